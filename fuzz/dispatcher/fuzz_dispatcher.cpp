// The bus method dispatcher fed with arbitrary method names and argument texts, on a registered
// service without a bus: the request context is not one the library issued, so every result
// return fails with a status, and frames go nowhere.
//
// Input layout:
//   byte 0  bit 0: the radio data are initialised; bit 1: the radio is on; bit 2: the method
//           name is null
//   rest    "method\nargument text"; the argument text ends at the first zero byte
// Whatever the input, the presets must keep channels 0..40 and the channel and squelch their
// ranges: bad arguments may change nothing.
#include "CCBRadio.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{
const std::memory_order relaxed = std::memory_order_relaxed;

CCBRadio& radio()
{
    static CCBRadio* service = [] {
        CCBRadio* s = new CCBRadio;  // never started: no thread, device or bus
        s->mServiceRegistered.store(true, relaxed);
        return s;
    }();
    return *service;
}

void check(bool condition)
{
    if (!condition)
        std::abort();
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    radio();
    if (size == 0)
        return 0;
    const uint8_t flags = data[0];
    CCBRadio::mCBRDataInitialized.store((flags & 1) != 0, relaxed);
    CCBRadio::mCBRStatus.store((flags & 2) != 0 ? 1 : 0, relaxed);
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t newline = text.find('\n');
    const std::string method = text.substr(0, newline);
    const std::string params = newline == std::string::npos ? std::string() : text.substr(newline + 1);

    // A context the library never issued: results and frees must fail, not crash.
    SVCIPC_tReqContext context = reinterpret_cast<SVCIPC_tReqContext>(static_cast<uintptr_t>(0x5A5A5A5A));
    CCBRadio::handleCBRadioRequest(context, (flags & 4) != 0 ? nullptr : method.c_str(), params.c_str(), flags >> 7,
                                   nullptr);

    for (const auto& preset : CCBRadio::mCBRPreset)
        check(preset.load(relaxed) >= 0 && preset.load(relaxed) <= 40);
    check(CCBRadio::mCBRCurrentChannel.load(relaxed) >= 1 && CCBRadio::mCBRCurrentChannel.load(relaxed) <= 40);
    check(CCBRadio::mCBRSquelchLevel.load(relaxed) >= 0 && CCBRadio::mCBRSquelchLevel.load(relaxed) <= 14);
    return 0;
}
