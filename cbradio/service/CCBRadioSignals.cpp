// CCBRadio: the status signals.
//
// Every sender publishes one value of the radio state as a compact JSON object (written as
// jsoncpp's FastWriter writes it, so the text ends with a newline) through SVCIPC_asyncEmit,
// without a completion callback: signals are fire-and-forget. Before registration (and after stop) nothing is emitted and nothing is
// queued: late clients ask with "getProperties". Senders run on the V850 reader thread or a bus
// dispatch thread and only read the one-byte state.
#include "CCBRadio.h"
#include "CBRadioJsonText.h"

#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRadioStatusSignal("CBRadio_CCBRadio",
                                                                                       "sendCBRadioStatusSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRChannelNumberSignal("CBRadio_CCBRadio",
                                                                                          "sendCBRChannelNumberSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRSquelchLevelSignal("CBRadio_CCBRadio",
                                                                                         "sendCBRSquelchLevelSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRReceptionSensitivitySignal(
    "CBRadio_CCBRadio", "sendCBRReceptionSensitivitySignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRHWConnectionStatus("CBRadio_CCBRadio",
                                                                                         "sendCBRHWConnectionStatus");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRRxTxStatusSignal("CBRadio_CCBRadio",
                                                                                       "sendCBRRxTxStatusSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRWeatherAlertOnOffStatusSignal(
    "CBRadio_CCBRadio", "sendCBRWeatherAlertOnOffStatusSignal");

namespace
{
const std::memory_order relaxed = std::memory_order_relaxed;

// Raw reception sensitivity 0..255 as the 0..5 bars the head unit shows: 0 is no signal, then
// five bands of 51 values each.
int sensitivityBars(unsigned int raw)
{
    return raw == 0 ? 0 : static_cast<int>((raw - 1) / 51 + 1);
}

// Emits `name` carrying `text` once the service is registered. Traces why not and returns
// false otherwise; the caller traces its own line for a signal sent. `sender` names the caller
// in the "not initialized" line.
bool emitSignal(const CCBRadio& radio, const CJTTraceScope& scope, const char* sender, const char* name,
                const std::string& text)
{
    if (!radio.mServiceRegistered.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBR] %s: Service Not initialized\n", sender);
        return false;
    }
    const SVCIPC_tError status = SVCIPC_asyncEmit(radio.mConnection, name, text.c_str(), nullptr, nullptr);
    if (SVCIPC_IS_ERROR(status)) {
        scope.sendFormattedMessage("\n[CBR] ERROR emit %s\n", name);
        return false;
    }
    return true;
}

using CBRadioJsonText::object;
}

void CCBRadio::sendCBRadioStatusSignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRadioStatusSignal);
    const int status = static_cast<unsigned char>(mCBRStatus.load(relaxed));
    if (emitSignal(*this, scope, "sendCBRadioStatusSignal", "CBRadioStatus", object("Status", status)))
        scope.sendFormattedMessage("\n[CBR] sending CBRadioStatus=%d \n", status);
}

void CCBRadio::sendCBRChannelNumberSignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRChannelNumberSignal);
    const int channel = mCBRCurrentChannel.load(relaxed);
    if (emitSignal(*this, scope, "sendCBRChannelNumberSignal", "CBRChannelNumber", object("ChannelNumber", channel)))
        scope.sendFormattedMessage("\n[CBR] sending CBRChannelNumber=%d \n", channel);
}

void CCBRadio::sendCBRSquelchLevelSignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRSquelchLevelSignal);
    const int level = mCBRSquelchLevel.load(relaxed);
    if (emitSignal(*this, scope, "sendCBRSquelchLevelSignal", "CBRSquelchLevel", object("SquelchLevel", level)))
        scope.sendFormattedMessage("\n[CBR] sending CBRSquelchLevel=%d \n", level);
}

void CCBRadio::sendCBRReceptionSensitivitySignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRReceptionSensitivitySignal);
    const unsigned int raw = mCBRReceptionSensitivity.load(relaxed);
    if (emitSignal(*this, scope, "sendCBRReceptionSensitivitySignal", "CBRReceptionSensitivity",
                   object("Sensitivity", sensitivityBars(raw))))
        scope.sendFormattedMessage("\n[CBR] sending CBRReceptionSensitivity=%d \n", static_cast<int>(raw));
}

void CCBRadio::sendCBRHWConnectionStatus()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRHWConnectionStatus);
    const int connected = mCBRHWConnectionStatus.load(relaxed);
    if (connected == 1) {
        // A freshly connected module is asked for its software version, bus or no bus.
        const std::unique_lock<CTimedMutex> frame = lockTxBuf();
        if (frame.owns_lock()) {
            mTxBuf[0].store(0x08, relaxed);
            mTxBuf[1].store(0x00, relaxed);
            writeTxBuf(2);
        }
    }
    if (emitSignal(*this, scope, "sendCBRHWConnectionStatus", "CBRHWConnectionStatus",
                   object("HWConnectionStatus", connected)))
        scope.sendFormattedMessage("\n[CBR] sending CBRHWConnectionStatus=%d \n", connected);
}

void CCBRadio::sendCBRRxTxStatusSignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRRxTxStatusSignal);
    const int rx = mCBRRxStatus.load(relaxed);
    const int tx = mCBRTxStatus.load(relaxed);
    // Not initialized: shares the radio status wording.
    if (emitSignal(*this, scope, "sendCBRadioStatusSignal", "CBRRxTxStatus", object("RxStatus", rx, "TxStatus", tx)))
        scope.sendFormattedMessage("\n[CBR] sending CBRRxStatus=%d, CBRTxStatus=%d \n", rx, tx);
}

void CCBRadio::sendCBRWeatherAlertOnOffStatusSignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRWeatherAlertOnOffStatusSignal);
    const int onOff = mCBRWeatherAlertOnOff.load(relaxed);
    // The line names the alert itself, not the on/off value just sent.
    if (emitSignal(*this, scope, "sendCBRWeatherAlertOnOffStatusSignal", "CBRWeatherAlertOnOffStatus",
                   object("weatherAlertOnOffStatus", onOff)))
        scope.sendFormattedMessage("\n[CBR] sending weatherAlertStatus=%d, channelNumber=%d \n",
                                   static_cast<int>(mCBRWeatherAlertStatus.load(relaxed)),
                                   static_cast<int>(mCBRWeatherAlertChannelNumber.load(relaxed)));
}
