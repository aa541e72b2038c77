// Arbitrary bytes as peersim command lines, each parsed and then applied to the peers' state, so
// that neither the parser nor the JSON it feeds to the peers can be made to crash or hang.
#include "PeerCommand.h"
#include "PeerServices.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static PeerServices services("");  // in memory: the fuzzer must not write files
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start <= input.size()) {
        size_t end = input.find('\n', start);
        if (end == std::string::npos)
            end = input.size();
        const PeerCommand c = PeerCommand::parse(input.substr(start, end - start));
        switch (c.kind) {
        case PeerCommand::SLEEP:
        case PeerCommand::QUIT:
        case PeerCommand::JOIN:
        case PeerCommand::LEAVE:
        case PeerCommand::BOUNCE:
            break;  // bus and timing actions are not the model's
        default:
            services.apply(c);
            break;
        }
        // The text of the line also goes in as a call argument of each peer's first method.
        services.onCall(Peer::AudioManager, "addInterruptSrc", c.text);
        services.onCall(Peer::PersistentKeyValue, "read", c.text);
        services.onCall(Peer::ModeManager, "getProperties", c.text);
        start = end + 1;
    }
    return 0;
}
