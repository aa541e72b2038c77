// The V850 response decoder fed with arbitrary frames, as the reader thread hands them on: always
// its one 128-byte buffer, which keeps the bytes of earlier reads.
//
// Input layout:
//   byte 0  bit 0: the service is registered (its signals then fail on the missing bus rather
//           than being dropped); bits 1-2: the length handed on: 0 the byte count, 1 zero,
//           2 0xFFFFFFFF (a failed read: the buffer is left as it was), 3 the byte count again
//   rest    the frame, at most 128 bytes
// After each frame the radio values the decoder owns must still be in their ranges.
#include "CCBRadio.h"
#include "CMsgHandlerChannelTwelve.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace
{
const std::memory_order relaxed = std::memory_order_relaxed;

CCBRadio& radio()
{
    static CCBRadio* service = new CCBRadio;  // never started: no thread, device or bus
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
    static unsigned char buffer[128];
    static CMsgHandlerChannelTwelve decoder(&radio());
    if (size == 0)
        return 0;
    const unsigned int mode = (data[0] >> 1) & 3;
    radio().mServiceRegistered.store((data[0] & 1) != 0, relaxed);
    ++data;
    --size;

    unsigned int length = 0;
    if (mode == 2) {
        length = 0xFFFFFFFFu;
    } else {
        const size_t frame = size < sizeof(buffer) ? size : sizeof(buffer);
        std::memcpy(buffer, data, frame);
        length = mode == 1 ? 0 : static_cast<unsigned int>(frame);
    }
    decoder.processMsg(buffer, length);

    const int channel = CCBRadio::mCBRCurrentChannel.load(relaxed);
    check(channel >= 1 && channel <= 40);
    const int squelch = CCBRadio::mCBRSquelchLevel.load(relaxed);
    check(squelch >= 0 && squelch <= 14);
    check(CCBRadio::mCBRHWConnectionStatus.load(relaxed) <= 1);
    check(CCBRadio::mCBRWeatherAlertOnOff.load(relaxed) >= 0 && CCBRadio::mCBRWeatherAlertOnOff.load(relaxed) <= 1);
    check(CCBRadio::mCBRWeatherAlertChannelNumber.load(relaxed) <= 7);
    check(CCBRadio::mCBRTxStatus.load(relaxed) >= 0 && CCBRadio::mCBRTxStatus.load(relaxed) <= 1);
    check(CCBRadio::mCBRRxStatus.load(relaxed) >= 0 && CCBRadio::mCBRRxStatus.load(relaxed) <= 1);
    return 0;
}
