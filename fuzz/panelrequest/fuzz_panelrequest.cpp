// Arbitrary bytes as a browser's call request: the first line is the method name, the second the
// Origin header, the third the Host header, the rest the body. Whatever comes, the checks answer
// without crashing, and what they accept is a known method with an empty or one-object argument.
#include "PanelRequest.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{
std::string line(const std::string& input, std::size_t& pos)
{
    const std::size_t end = input.find('\n', pos);
    const std::string out = input.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    pos = end == std::string::npos ? input.size() : end + 1;
    return out;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t pos = 0;
    const std::string method = line(input, pos);
    const std::string origin = line(input, pos);
    const std::string host = line(input, pos);
    const std::string body = input.substr(pos);

    panel::CallRequest call;
    if (!panel::parseCall(method, body, call)) {
        if (!panel::findServiceMethod(call.method))
            std::abort();
        if (!call.argument.empty() && (call.argument.front() != '{' || call.argument.back() != '}'))
            std::abort();
    }
    panel::isSameOrigin(origin, host);
    panel::isAllowedHost(host, {"127.0.0.1:8027", "localhost:8027"});
    return 0;
}
