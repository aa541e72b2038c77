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

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_PTT_STATUS_toV850("CBRadio_CCBRadio",
                                                                                         "req_CBR_PTT_STATUS_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStateChange("CBRadio_CCBRadio",
                                                                                 "reqCBRStateChange");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRWeatherAlertOnOffRequest(
    "CBRadio_CCBRadio", "reqCBRWeatherAlertOnOffRequest");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetChannel("CBRadio_CCBRadio", "reqCBRSetChannel");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSeek("CBRadio_CCBRadio", "reqCBRSeek");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSelectPreset("CBRadio_CCBRadio",
                                                                                  "reqCBRSelectPreset");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetSquelchLevel("CBRadio_CCBRadio",
                                                                                     "reqCBRSetSquelchLevel");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRAdjustSquelchLevel("CBRadio_CCBRadio",
                                                                                        "reqCBRAdjustSquelchLevel");
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

// One three-byte command under the frame lock: id, length 1 and the payload `fill` leaves in
// mTxBuf (it may leave the previous byte there). The frame is traced as "<name> WriteOut" and
// written when `fill` returns true; it is dropped when the lock is not had in time.
template <typename Fill>
void command(const CJTTraceScope& scope, const char* name, unsigned char id, Fill fill)
{
    const std::unique_lock<CTimedMutex> frame = CCBRadio::mpCBRadio->lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(id, 0x01);
    const bool write = fill();
    scope.sendFormattedMessage("\n[CBR]%s WriteOut %x %x %x \n", name, txByte(0), txByte(1), txByte(2));
    if (write)
        CCBRadio::mpCBRadio->writeTxBuf(3);
}

bool inRange(unsigned int value, unsigned int low, unsigned int high)
{
    return value >= low && value <= high;
}
}

std::unique_lock<CTimedMutex> CCBRadio::lockTxBuf()
{
    return std::unique_lock<CTimedMutex>(mpCBRadio->mTxMutex, TX_LOCK_TIMEOUT);
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
    command(scope, "reqCBRStateChange", MSG_ON_OFF, [state] {
        setPayload(state);
        return true;
    });
}

void CCBRadio::reqCBRWeatherAlertOnOffRequest(int onOff)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRWeatherAlertOnOffRequest);
    command(scope, "reqCBR_WA_OnOffRequest", MSG_WEATHER_ALERT_ON_OFF, [onOff] {
        setPayload(onOff);
        return true;
    });
}

void CCBRadio::reqCBRSetChannel(int channel)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetChannel);
    if (channel < MIN_CHANNEL || channel > MAX_CHANNEL) {
        scope.sendFormattedMessage("\n[CBR]reqCBRSetChannel invalid %x \n", static_cast<unsigned int>(channel));
        return;
    }
    command(scope, "reqCBRSetChannel", MSG_CHANNEL_SELECT, [channel] {
        setPayload(channel);
        return true;
    });
}

void CCBRadio::reqCBRSeek(int direction)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSeek);
    command(scope, "reqCBRSeek", MSG_CHANNEL_SELECT, [direction] {
        const int current = mCBRCurrentChannel.load(std::memory_order_relaxed);
        if (direction != 0)
            setPayload(current == MAX_CHANNEL ? MIN_CHANNEL : current + 1);
        else
            setPayload(current == MIN_CHANNEL ? MAX_CHANNEL : current - 1);
        return inRange(txByte(2), MIN_CHANNEL, MAX_CHANNEL);
    });
}

void CCBRadio::reqCBRSelectPreset(int channel)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSelectPreset);
    command(scope, "reqCBRSelectPreset", MSG_CHANNEL_SELECT, [channel] {
        setPayload(channel);
        return true;
    });
}

void CCBRadio::reqCBRSetSquelchLevel(int level)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRSetSquelchLevel);
    // The payload is stored whatever it is, but only 1..14 is sent.
    command(scope, "reqCBRSetSquelchLevel", MSG_SET_SQUELCH_LEVEL, [level] {
        setPayload(level);
        return inRange(txByte(2), 1, MAX_SQUELCH_LEVEL);
    });
}

void CCBRadio::reqCBRAdjustSquelchLevel(int direction)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRAdjustSquelchLevel);
    // At either limit the payload byte is left as it is, so the previous frame's byte goes out.
    command(scope, "reqCBRAdjustSquelchLevel", MSG_SET_SQUELCH_LEVEL, [direction] {
        const unsigned char level = static_cast<unsigned char>(mCBRSquelchLevel.load(std::memory_order_relaxed));
        if (direction != 0) {
            if (level <= MAX_SQUELCH_LEVEL - 1)
                setPayload(level + 1);
        } else if (static_cast<unsigned char>(level - 1) <= MAX_SQUELCH_LEVEL - 1) {
            setPayload(level - 1);
        }
        return txByte(2) <= MAX_SQUELCH_LEVEL;
    });
}

void CCBRadio::reqCBRStartScan()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStartScan);
    command(scope, "reqCBRStartScan", MSG_START_SCAN, [] {
        setPayload(mCBRCurrentChannel.load(std::memory_order_relaxed));
        return true;
    });
}

void CCBRadio::reqCBRStopScan()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_reqCBRStopScan);
    const std::unique_lock<CTimedMutex> frame = lockTxBuf();
    if (!frame.owns_lock())
        return;
    setTxBuf(MSG_STOP_SCAN, 0x00);
    // The stop builder reuses the start-scan wording on purpose.
    scope.sendFormattedMessage("\n[CBR]reqCBRStartScan WriteOut %x %x \n", txByte(0), txByte(1));
    writeTxBuf(2);
}
