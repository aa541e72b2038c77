// CCBRadio: every command frame written to the V850.
//
// A frame is message id, payload length (0 or 1) and the payload byte. The reqCBR... builders and
// the start sequence share mTxBuf and never clear it: a builder that leaves the payload byte alone
// carries the previous frame's byte over, which the squelch step at its limits relies on. Each
// builder fills, traces and writes its frame under lockTxBuf(), so two builders never mix their
// bytes; one that cannot get the lock in time drops its frame. The PTT builder and the status
// queries use frames of their own and need no lock.
#include "CCBRadio.h"

#include "CDevIpcChannelHandler.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <chrono>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_PTT_STATUS_toV850("CBRadio_CCBRadio", "req_CBR_PTT_STATUS_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStateChange("CBRadio_CCBRadio", "reqCBRStateChange");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRWeatherAlertOnOffRequest("CBRadio_CCBRadio", "reqCBRWeatherAlertOnOffRequest");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetChannel("CBRadio_CCBRadio", "reqCBRSetChannel");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSeek("CBRadio_CCBRadio", "reqCBRSeek");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSelectPreset("CBRadio_CCBRadio", "reqCBRSelectPreset");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetSquelchLevel("CBRadio_CCBRadio", "reqCBRSetSquelchLevel");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRAdjustSquelchLevel("CBRadio_CCBRadio", "reqCBRAdjustSquelchLevel");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStartScan("CBRadio_CCBRadio", "reqCBRStartScan");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStopScan("CBRadio_CCBRadio", "reqCBRStopScan");

namespace
{
    const unsigned char MSG_ON_OFF = 0x01;
    const unsigned char MSG_CHANNEL_SELECT = 0x02;
    const unsigned char MSG_SET_SQUELCH_LEVEL = 0x03;
    const unsigned char MSG_START_SCAN = 0x04;
    const unsigned char MSG_STOP_SCAN = 0x05;
    const unsigned char MSG_WEATHER_ALERT_ON_OFF = 0x0C;
    const unsigned char MSG_PTT_STATUS = 0x0E;
    const int MIN_CHANNEL = 1;
    const int MAX_CHANNEL = 40;
    const unsigned int MAX_SQUELCH_LEVEL = 14;
    // Longer than one bounded device write, so a frame waits out one stalled writer ahead of it.
    const std::chrono::milliseconds TX_LOCK_TIMEOUT(1500);

    void setTxBuf(unsigned char id, unsigned char length)
    {
        CCBRadio::mpCBRadio->mTxBuf[0].store(id, std::memory_order_relaxed);
        CCBRadio::mpCBRadio->mTxBuf[1].store(length, std::memory_order_relaxed);
    }

    void setPayload(int value)
    {
        CCBRadio::mpCBRadio->mTxBuf[2].store(static_cast<unsigned char>(value), std::memory_order_relaxed);
    }

    unsigned int txByte(int index)
    {
        return CCBRadio::mpCBRadio->mTxBuf[index].load(std::memory_order_relaxed);
    }

    void traceWriteOut(const CJTTraceScope& scope, const char* format)
    {
        scope.sendFormattedMessage(format, txByte(0), txByte(1), txByte(2));
    }
}

std::unique_lock<std::timed_mutex> CCBRadio::lockTxBuf()
{
    // A real-time deadline makes the wait a pthread_mutex_timedlock, the platform's bounded lock;
    // a relative time-out goes through pthread_mutex_clocklock, which ThreadSanitizer does not
    // follow, so every unlock looked like one of a mutex that was never locked.
    return std::unique_lock<std::timed_mutex>(mpCBRadio->mTxMutex, std::chrono::system_clock::now() + TX_LOCK_TIMEOUT);
}

int CCBRadio::writeTxBuf(unsigned int length)
{
    CDevIpcChannelHandler* handler = mpCBRadio->mpIpcHandler.load();
    if (handler == nullptr)
        return -1;
    unsigned char frame[sizeof(mTxBuf) / sizeof(mTxBuf[0])];
    if (length > sizeof(frame))
        length = sizeof(frame);
    for (unsigned int i = 0; i < length; ++i)
        frame[i] = mpCBRadio->mTxBuf[i].load(std::memory_order_relaxed);
    return handler->writeData(frame, length);
}

void CCBRadio::req_CBR_PTT_STATUS_toV850(ECBRPTTStatus status)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_PTT_STATUS_toV850);
    unsigned char frame[3] = {MSG_PTT_STATUS, 0x01, static_cast<unsigned char>(status)};
    scope.sendFormattedMessage("\n[CBR req_CBR_PTT_STATUS_toV850] : PTT_Status = %d\n", static_cast<int>(status));
    CDevIpcChannelHandler* handler = mpCBRadio->mpIpcHandler.load();
    if (handler != nullptr)
        handler->writeData(frame, 3);
}

void CCBRadio::reqCBRStateChange(int state)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStateChange);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_ON_OFF, 0x01);
    setPayload(state);
    traceWriteOut(scope, "\n[CBR]reqCBRStateChange WriteOut %x %x %x \n");
    writeTxBuf(3);
}

void CCBRadio::reqCBRWeatherAlertOnOffRequest(int onOff)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRWeatherAlertOnOffRequest);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_WEATHER_ALERT_ON_OFF, 0x01);
    setPayload(onOff);
    traceWriteOut(scope, "\n[CBR]reqCBR_WA_OnOffRequest WriteOut %x %x %x \n");
    writeTxBuf(3);
}

void CCBRadio::reqCBRSetChannel(int channel)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetChannel);
    if (channel < MIN_CHANNEL || channel > MAX_CHANNEL) {
        scope.sendFormattedMessage("\n[CBR]reqCBRSetChannel invalid %x \n", static_cast<unsigned int>(channel));
        return;
    }
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_CHANNEL_SELECT, 0x01);
    setPayload(channel);
    traceWriteOut(scope, "\n[CBR]reqCBRSetChannel WriteOut %x %x %x \n");
    writeTxBuf(3);
}

void CCBRadio::reqCBRSeek(int direction)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSeek);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_CHANNEL_SELECT, 0x01);
    const int current = mCBRCurrentChannel.load(std::memory_order_relaxed);
    if (direction != 0)
        setPayload(current == MAX_CHANNEL ? MIN_CHANNEL : current + 1);
    else
        setPayload(current == MIN_CHANNEL ? MAX_CHANNEL : current - 1);
    traceWriteOut(scope, "\n[CBR]reqCBRSeek WriteOut %x %x %x \n");
    const unsigned int next = txByte(2);
    if (next >= MIN_CHANNEL && next <= MAX_CHANNEL)
        writeTxBuf(3);
}

void CCBRadio::reqCBRSelectPreset(int channel)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSelectPreset);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_CHANNEL_SELECT, 0x01);
    setPayload(channel);
    traceWriteOut(scope, "\n[CBR]reqCBRSelectPreset WriteOut %x %x %x \n");
    writeTxBuf(3);
}

void CCBRadio::reqCBRSetSquelchLevel(int level)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetSquelchLevel);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_SET_SQUELCH_LEVEL, 0x01);
    setPayload(level);
    traceWriteOut(scope, "\n[CBR]reqCBRSetSquelchLevel WriteOut %x %x %x \n");
    const unsigned int payload = txByte(2);
    if (payload >= 1 && payload <= MAX_SQUELCH_LEVEL)
        writeTxBuf(3);
}

void CCBRadio::reqCBRAdjustSquelchLevel(int direction)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRAdjustSquelchLevel);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_SET_SQUELCH_LEVEL, 0x01);
    const unsigned char level = static_cast<unsigned char>(mCBRSquelchLevel.load(std::memory_order_relaxed));
    if (direction != 0) {
        if (level <= MAX_SQUELCH_LEVEL - 1)
            setPayload(level + 1);
    } else if (static_cast<unsigned char>(level - 1) <= MAX_SQUELCH_LEVEL - 1) {
        setPayload(level - 1);
    }
    traceWriteOut(scope, "\n[CBR]reqCBRAdjustSquelchLevel WriteOut %x %x %x \n");
    if (txByte(2) <= MAX_SQUELCH_LEVEL)
        writeTxBuf(3);
}

void CCBRadio::reqCBRStartScan()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStartScan);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_START_SCAN, 0x01);
    setPayload(mCBRCurrentChannel.load(std::memory_order_relaxed));
    traceWriteOut(scope, "\n[CBR]reqCBRStartScan WriteOut %x %x %x \n");
    writeTxBuf(3);
}

void CCBRadio::reqCBRStopScan()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStopScan);
    const std::unique_lock<std::timed_mutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_STOP_SCAN, 0x00);
    // The stop builder reuses the start-scan wording on purpose.
    scope.sendFormattedMessage("\n[CBR]reqCBRStartScan WriteOut %x %x \n", txByte(0), txByte(1));
    writeTxBuf(2);
}
