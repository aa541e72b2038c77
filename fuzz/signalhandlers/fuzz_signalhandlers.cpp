// Every signal handler, completion and owner-change callback of the service's cooperation with
// other services, fed with arbitrary names, payloads and replies. The service object has no bus
// and no V850 device: calls it makes fail with a status and frames go nowhere, which is what the
// callbacks must survive as well.
//
// Input layout:
//   byte 0  which callback (modulo the table below)
//   byte 1  state flags: radio on, hardware connected, rider headset, passenger headset, rear
//           controller on, service registered, voice detected, read-out enabled
//   byte 2  bit 0: deliver under the callback's own signal name (the rest is the payload);
//           otherwise the rest is "name\0payload". Bits 1-7: the completion's error code.
//   byte 3  power mode; it also picks the inspection mode and weather channel, and its top bit
//           says the audio manager is away
//   rest    as byte 2 says; owner changes take "name\0old\0new".
// After each call the request states must still be values the service can hold.
#include "CCBRadio.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{
typedef void (*tSignal)(const char*, const char*, SVCIPC_tUserToken);
typedef void (*tCompletion)(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken);
typedef void (*tOwner)(const char*, const char*, const char*, SVCIPC_tUserToken);

struct Callback
{
    const char* ownName;
    tSignal signal;
    tCompletion completion;
    tOwner owner;
};

const Callback CALLBACKS[] = {
    {"function_sw_9", &CCBRadio::onRiderPTTSignal, nullptr, nullptr},
    {"function_sw_15", &CCBRadio::onPassengerPTTSignal, nullptr, nullptr},
    {"voxDetectedState", &CCBRadio::onVoxDetectedStateSignal, nullptr, nullptr},
    {"powerMode", &CCBRadio::onPowerModeSignal, nullptr, nullptr},
    {"ttsAvailable", &CCBRadio::onttsAvailableSignal, nullptr, nullptr},
    {"interruptSrc", &CCBRadio::oninterruptSrcStateSignal, nullptr, nullptr},
    {"audioRoutingStatus", &CCBRadio::onAudioRoutingStatusSignal, nullptr, nullptr},
    {"rearControllerState", &CCBRadio::onRearControllerStateSignal, nullptr, nullptr},
    {"diagInspectionModeStatus", &CCBRadio::ondiagInspectionModeStatusSignal, nullptr, nullptr},
    {"", nullptr, &CCBRadio::onCBRadioPersistDataRead, nullptr},
    {"", nullptr, &CCBRadio::onCompletionCBRxAddInterruptSrc, nullptr},
    {"", nullptr, &CCBRadio::onCompletionCBTxAddInterruptSrc, nullptr},
    {"", nullptr, &CCBRadio::onCompletionCBRxRemoveInterruptSrc, nullptr},
    {"", nullptr, &CCBRadio::onCompletionCBTxRemoveInterruptSrc, nullptr},
    {"", nullptr, &CCBRadio::onCompletionSetDeviceState, nullptr},
    {"", nullptr, &CCBRadio::onCompletionttsRequest, nullptr},
    {"", nullptr, nullptr, &CCBRadio::onNotifyPERSISTAvailability},
    {"", nullptr, nullptr, &CCBRadio::onNotifyAudioManagerAvailability},
};
const size_t CALLBACK_COUNT = sizeof(CALLBACKS) / sizeof(CALLBACKS[0]);
const std::memory_order relaxed = std::memory_order_relaxed;

CCBRadio& radio()
{
    static CCBRadio* service = new CCBRadio();  // lives for the whole run, like in the daemon
    return *service;
}

void setState(uint8_t flags, uint8_t mode)
{
    CCBRadio::mCBRStatus.store((flags & 0x01) ? 1 : 0, relaxed);
    CCBRadio::mCBRHWConnectionStatus.store((flags & 0x02) ? 1 : 0, relaxed);
    CCBRadio::mheadset_r_status.store((flags & 0x04) ? 1 : 0, relaxed);
    CCBRadio::mheadset_p_status.store((flags & 0x08) ? 1 : 0, relaxed);
    CCBRadio::mRearControlStatus.store((flags & 0x10) ? 1 : 0, relaxed);
    radio().mServiceRegistered.store((flags & 0x20) != 0, relaxed);
    CCBRadio::mCBRVoxDetectStatus.store((flags & 0x40) ? 1 : 0, relaxed);
    CCBRadio::mWAttsReadonoff.store((flags & 0x80) != 0, relaxed);
    CCBRadio::mCBRPowerModeValue.store(static_cast<signed char>(mode), relaxed);
    CCBRadio::mHuInspectionMode.store(mode % 3, relaxed);
    CCBRadio::mCBRWeatherAlertStatus.store(1, relaxed);
    CCBRadio::mCBRWeatherAlertChannelNumber.store(mode % 9, relaxed);
    CCBRadio::ttsReadRequest.store(0, relaxed);
    CCBRadio::mAudioManagerServiceAvailStatus.store((mode & 0x80) == 0, relaxed);
}

// Splits off the text up to the next zero byte (or the end).
std::string take(const uint8_t*& data, size_t& size)
{
    size_t n = 0;
    while (n < size && data[n] != 0)
        ++n;
    std::string text(reinterpret_cast<const char*>(data), n);
    const size_t used = n < size ? n + 1 : n;
    data += used;
    size -= used;
    return text;
}

void check(bool condition)
{
    if (!condition)
        std::abort();
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4)
        return 0;
    const Callback& callback = CALLBACKS[data[0] % CALLBACK_COUNT];
    const bool ownName = (data[2] & 1) != 0;
    const int errCode = data[2] >> 1;
    setState(data[1], data[3]);
    data += 4;
    size -= 4;

    if (callback.owner != nullptr) {
        const std::string name = take(data, size);
        const std::string oldOwner = take(data, size);
        const std::string newOwner = take(data, size);
        callback.owner(name.c_str(), oldOwner.c_str(), newOwner.c_str(), nullptr);
    } else {
        const std::string name = ownName ? std::string(callback.ownName) : take(data, size);
        const std::string payload(reinterpret_cast<const char*>(data), size);
        if (callback.signal != nullptr) {
            callback.signal(name.c_str(), payload.c_str(), const_cast<char*>("MRDCBRadio"));
        } else {
            const SVCIPC_tCallbackStatus status = {errCode, payload.c_str(), errCode ? SVCIPC_ERR(errCode) : 0, "", ""};
            callback.completion(&status, payload.c_str(), const_cast<char*>("MRDCBRadio"));
        }
    }
    radio().sendCBRWeatherAlertStatusSignal();

    check(CCBRadio::mCBRRxAudioSrcIntrStatus.load(relaxed) <= CBR_RX_INT_REQUEST_SUCCESS);
    check(CCBRadio::mCBRTxAudioSrcIntrStatus.load(relaxed) <= CBR_TX_INT_REQUEST_SUCCESS);
    check(CCBRadio::mPassengerPTTcount.load(relaxed) <= 1);
    check(CCBRadio::mHuInspectionMode.load(relaxed) >= 0 && CCBRadio::mHuInspectionMode.load(relaxed) <= 2);
    check(CCBRadio::ttsReadRequest.load(relaxed) <= 1);
    return 0;
}
