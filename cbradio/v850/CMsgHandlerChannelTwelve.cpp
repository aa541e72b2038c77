#include "CMsgHandlerChannelTwelve.h"

#include "CCBRadio.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CMsgHandlerChannelTwelve_processMsg(
    "CBRadio_CMsgHandlerChannelTwelve", "processMsg");

namespace
{
enum : unsigned char {
    CBR_ON_OFF = 0x01,
    CBR_CHANNEL_SELECT = 0x02,
    CBR_SET_SQUELCH_LEVEL = 0x03,
    CBR_HARDWARE_VERSION = 0x07,
    CBR_SOFTWARE_VERSION = 0x08,
    CBR_RECEPTION_SENSITIVITY_LEVEL = 0x09,
    CBR_TX_RX_STATUS = 0x0A,
    CBR_WEATHER_ALERT_ON_OFF_STATUS = 0x0B,
    CBR_WEATHER_ALERT_STATUS = 0x0C,
    CBR_HW_CONNECTION_STATUS = 0x0F
};

const unsigned char POSITIVE_RESPONSE = 0xA0;
const unsigned int MAX_SQUELCH_LEVEL = 14;
const unsigned int MAX_CHANNEL = 40;
const unsigned int MAX_WEATHER_CHANNEL = 7;
const unsigned int SW_VERSION_COPY = 15;  // more than the declared 10: the field is 15 wide

const std::memory_order relaxed = std::memory_order_relaxed;

// Radio off or hardware lost: nothing may keep transmitting or hold an audio source.
void shutDownAudioPath(CCBRadio* radio)
{
    radio->removeCBTxAudioSource();
    radio->req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
    CCBRadio::mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_NOT_REQUESTED, relaxed);
    radio->removeCBRxAudioSource();
    CCBRadio::mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_NOT_REQUESTED, relaxed);
    CCBRadio::mCBRRiderPttStatus.store(0, relaxed);
    CCBRadio::mPassengerPTTcount.store(0, relaxed);
    CCBRadio::mCBRPassengerPttStatus.store(0, relaxed);
    CCBRadio::mCBRVoxDetectStatus.store(0, relaxed);
}

void handleTxRxStatus(CCBRadio* radio, unsigned int tx, unsigned int rx)
{
    if (tx == 1) {
        if (rx == 1)
            radio->removeCBRxAudioSource();
        radio->setCBTxAudioSource();
    } else {
        radio->removeCBTxAudioSource();
    }
    if (rx == 1 && tx == 0)
        radio->setCBRxAudioSource();
    else
        radio->removeCBRxAudioSource();
    // Outside inspection mode the head unit only hears of the return to idle.
    if ((rx == 0 && tx == 0) || CCBRadio::mHuInspectionMode.load(relaxed) == 1)
        radio->sendCBRRxTxStatusSignal();
}

// One frame as the handlers see it: the payload length byte and the first two payload bytes.
struct Frame
{
    const CJTTraceScope& scope;
    CCBRadio* radio;
    const unsigned char* data;
    unsigned int len;
    unsigned int b2;
    unsigned int b3;
};

// A refused frame traces why and changes nothing.
bool refuseLength(const Frame& f, unsigned int wanted, const char* name)
{
    if (f.len == wanted)
        return false;
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] %s response data length %d is improper!\n", name, f.len);
    return true;
}

bool refuseData(const Frame& f, bool bad, const char* text)
{
    if (bad)
        f.scope.sendFormattedMessage("%s", text);
    return bad;
}

void hardwareVersion(const Frame& f)
{
    if (f.len != 2) {
        f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HARDWARE_VERSION invalid Length !!!\n");
        return;
    }
    f.radio->mCBRHWVersion[0].store(f.data[2], relaxed);
    f.radio->mCBRHWVersion[1].store(f.data[3], relaxed);
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HARDWARE_VERSION rspns handled!!!\n");
}

void softwareVersion(const Frame& f)
{
    if (f.len != 10) {
        f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SOFTWARE_VERSION invalid Length !!!\n");
        return;
    }
    for (unsigned int i = 0; i < SW_VERSION_COPY; ++i)
        f.radio->mCBRSWVersion[i].store(f.data[2 + i], relaxed);
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SOFTWARE_VERSION rspns handled!!!\n");
}

void receptionSensitivity(const Frame& f)
{
    if (refuseLength(f, 1, "CBR_RECEPTION_SENSITIVITY_LEVEL"))
        return;
    CCBRadio::mCBRReceptionSensitivity.store(static_cast<unsigned char>(f.b2), relaxed);
    f.radio->sendCBRReceptionSensitivitySignal();
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_RECEPTION_SENSITIVITY_LEVEL is %d \n", f.b2);
}

// After an on/off or connection report, refused or not: radio off or hardware lost shuts the
// audio path down.
void checkAudioPath(const Frame& f)
{
    if (CCBRadio::mCBRStatus.load(relaxed) == 0 || CCBRadio::mCBRHWConnectionStatus.load(relaxed) == 0)
        shutDownAudioPath(f.radio);
}

void hwConnectionStatus(const Frame& f)
{
    if (!refuseLength(f, 1, "CBR_HW_CONNECTION_STATUS") &&
        !refuseData(
            f, f.b2 > 1,
            "\n[CBRadio] [CH6] CBR_HW_CONNECTION_STATUS invalid response data or non +ve rspns. command failed at V850!\n")) {
        CCBRadio::mCBRHWConnectionStatus.store(static_cast<unsigned char>(f.b2), relaxed);
        f.radio->sendCBRHWConnectionStatus();
        f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HW_CONNECTION_STATUS is %d \n", f.b2);
    }
    checkAudioPath(f);
}

void onOff(const Frame& f)
{
    // The V850 sends the state with a result byte after it; the length is not checked.
    CCBRadio::mCBRStatus.store(static_cast<signed char>(f.b2), relaxed);
    const int state = CCBRadio::mCBRStatus.load(relaxed);
    f.radio->sendCBRadioStatusSignal();
    if (state == 1) {
        f.radio->sendCBRSquelchLevelSignal();
        f.radio->sendCBRChannelNumberSignal();
        f.radio->getVoxDetectedState();
    }
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_ON_OFF state = %d\n", state);
    checkAudioPath(f);
}

void weatherAlertOnOff(const Frame& f)
{
    if (refuseLength(f, 1, "CBR_WEATHER_ALERT_ON_OFF_STATUS") ||
        refuseData(f, f.b2 > 1,
                   "\n[CBRadio] [CH6] CBR_WEATHER_ALERT_ON_OFF_STATUS invalid data or command failed at V850!\n"))
        return;
    CCBRadio::mCBRWeatherAlertOnOff.store(static_cast<signed char>(f.b2), relaxed);
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_WEATHER_ALERT_ON_OFF is %d \n", f.b2);
    f.radio->sendCBRWeatherAlertOnOffStatusSignal();
}

void weatherAlertStatus(const Frame& f)
{
    if (refuseLength(f, 2, "CBR_WEATHER_ALERT_STATUS"))
        return;
    if (f.b2 > 1 || f.b3 < 1 || f.b3 > MAX_WEATHER_CHANNEL) {
        f.scope.sendFormattedMessage(
            "\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS invalid rspns Status = %d, CH_Num = %d\n", f.b2, f.b3);
        return;
    }
    if (CCBRadio::mCBRWeatherAlertOnOff.load(relaxed) != 1)
        return;
    CCBRadio::mCBRWeatherAlertStatus.store(static_cast<unsigned char>(f.b2), relaxed);
    f.scope.sendFormattedMessage("\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS = %d CH Num = %d\n", f.b2, f.b3);
    CCBRadio::mCBRWeatherAlertChannelNumber.store(static_cast<unsigned char>(f.b3), relaxed);
    f.radio->sendCBRWeatherAlertStatusSignal();
}

void squelchLevel(const Frame& f)
{
    if (refuseLength(f, 2, "CBR_SET_SQUELCH_LEVEL") ||
        refuseData(
            f, f.b3 != POSITIVE_RESPONSE || f.b2 > MAX_SQUELCH_LEVEL,
            "\n[CBRadio] [CH6] CBR_SET_SQUELCH_LEVEL invalid rspns data or non +ve rspns. command failed at V850!\n"))
        return;
    CCBRadio::mCBRSquelchLevel.store(static_cast<signed char>(f.b2), relaxed);
    f.radio->sendCBRSquelchLevelSignal();
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SET_SQUELCH_LEVEL is %d \n", f.b2);
}

void txRxStatus(const Frame& f)
{
    if (refuseLength(f, 2, "CBR_TX_RX_STATUS") ||
        refuseData(f, f.b2 > 1 || f.b3 > 1,
                   "\n[CBRadio] [CH6] CBR_TX_RX_STATUS invalid rspns data or non +ve rspns. command failed at V850!\n"))
        return;
    CCBRadio::mCBRTxStatus.store(static_cast<signed char>(f.b2), relaxed);
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_TX_STATUS is %d \n", f.b2);
    CCBRadio::mCBRRxStatus.store(static_cast<signed char>(f.b3), relaxed);
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_RX_STATUS is %d \n", f.b3);
    handleTxRxStatus(f.radio, f.b2, f.b3);
}

void channelSelect(const Frame& f)
{
    if (refuseLength(f, 2, "CBR_CHANNEL_SELECT") ||
        refuseData(
            f, f.b3 != POSITIVE_RESPONSE || f.b2 == 0 || f.b2 > MAX_CHANNEL,
            "\n[CBRadio] [CH6] CBR_CHANNEL_SELECT invalid rspns data or non +ve rspns. command failed at V850!\n"))
        return;
    CCBRadio::mCBRCurrentChannel.store(static_cast<signed char>(f.b2), relaxed);
    f.radio->sendCBRChannelNumberSignal();
    f.scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_CHANNEL_SELECT is %d \n", f.b2);
}

struct Report
{
    unsigned char id;
    bool onlyWhileOn;  // channel, squelch and Tx/Rx reports mean nothing while the radio is off
    void (*handle)(const Frame&);
};

const Report REPORTS[] = {
    {CBR_HARDWARE_VERSION, false, &hardwareVersion},
    {CBR_SOFTWARE_VERSION, false, &softwareVersion},
    {CBR_RECEPTION_SENSITIVITY_LEVEL, false, &receptionSensitivity},
    {CBR_HW_CONNECTION_STATUS, false, &hwConnectionStatus},
    {CBR_ON_OFF, false, &onOff},
    {CBR_WEATHER_ALERT_ON_OFF_STATUS, false, &weatherAlertOnOff},
    {CBR_WEATHER_ALERT_STATUS, false, &weatherAlertStatus},
    {CBR_SET_SQUELCH_LEVEL, true, &squelchLevel},
    {CBR_TX_RX_STATUS, true, &txRxStatus},
    {CBR_CHANNEL_SELECT, true, &channelSelect},
};
}

CMsgHandlerChannelTwelve::CMsgHandlerChannelTwelve(CCBRadio* radio) : mpCBRadio(radio) {}

CMsgHandlerChannelTwelve::~CMsgHandlerChannelTwelve() {}

void CMsgHandlerChannelTwelve::processMsg(unsigned char* data, unsigned int length)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CMsgHandlerChannelTwelve_processMsg);
    scope.sendFormattedMessage("\n[CBRadio] [CH6] Received the data from IPC Channel !!!\n");
    if (data == nullptr || length == 0 || mpCBRadio == nullptr) {
        scope.sendFormattedMessage("\n[CBRadio] [CH6] Msg received from V850 seems to be corrupted!!!\n");
        return;
    }
    for (const Report& report : REPORTS) {
        if (report.id != data[0])
            continue;
        if (!report.onlyWhileOn || CCBRadio::mCBRStatus.load(relaxed) != 0)
            report.handle(Frame{scope, mpCBRadio, data, data[1], data[2], data[3]});
        return;
    }
}
