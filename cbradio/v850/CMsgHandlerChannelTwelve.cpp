#include "CMsgHandlerChannelTwelve.h"

#include "CCBRadio.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CMsgHandlerChannelTwelve_processMsg("CBRadio_CMsgHandlerChannelTwelve", "processMsg");

namespace
{
    enum : unsigned char
    {
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
    const unsigned int SW_VERSION_COPY = 15;   // more than the declared 10: the field is 15 wide

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
}

CMsgHandlerChannelTwelve::CMsgHandlerChannelTwelve(CCBRadio* radio) : mpCBRadio(radio)
{
}

CMsgHandlerChannelTwelve::~CMsgHandlerChannelTwelve()
{
}

void CMsgHandlerChannelTwelve::processMsg(unsigned char* data, unsigned int length)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CMsgHandlerChannelTwelve_processMsg);
    scope.sendFormattedMessage("\n[CBRadio] [CH6] Received the data from IPC Channel !!!\n");
    if (data == nullptr || length == 0 || mpCBRadio == nullptr) {
        scope.sendFormattedMessage("\n[CBRadio] [CH6] Msg received from V850 seems to be corrupted!!!\n");
        return;
    }
    CCBRadio* const radio = mpCBRadio;
    const unsigned int id = data[0];
    const unsigned int len = data[1];
    const unsigned int b2 = data[2];
    const unsigned int b3 = data[3];

    if (id == CBR_HARDWARE_VERSION) {
        if (len != 2) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HARDWARE_VERSION invalid Length !!!\n");
        } else {
            radio->mCBRHWVersion[0].store(data[2], relaxed);
            radio->mCBRHWVersion[1].store(data[3], relaxed);
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HARDWARE_VERSION rspns handled!!!\n");
        }
    }

    if (id == CBR_SOFTWARE_VERSION) {
        if (len != 10) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SOFTWARE_VERSION invalid Length !!!\n");
        } else {
            for (unsigned int i = 0; i < SW_VERSION_COPY; ++i)
                radio->mCBRSWVersion[i].store(data[2 + i], relaxed);
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SOFTWARE_VERSION rspns handled!!!\n");
        }
    }

    if (id == CBR_RECEPTION_SENSITIVITY_LEVEL) {
        if (len != 1) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_RECEPTION_SENSITIVITY_LEVEL response data length %d is improper!\n", len);
        } else {
            CCBRadio::mCBRReceptionSensitivity.store(static_cast<unsigned char>(b2), relaxed);
            radio->sendCBRReceptionSensitivitySignal();
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_RECEPTION_SENSITIVITY_LEVEL is %d \n", b2);
        }
    } else if (id == CBR_HW_CONNECTION_STATUS) {
        if (len != 1) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HW_CONNECTION_STATUS response data length %d is improper!\n", len);
        } else if (b2 > 1) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HW_CONNECTION_STATUS invalid response data or non +ve rspns. command failed at V850!\n");
        } else {
            CCBRadio::mCBRHWConnectionStatus.store(static_cast<unsigned char>(b2), relaxed);
            radio->sendCBRHWConnectionStatus();
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_HW_CONNECTION_STATUS is %d \n", b2);
        }
    } else if (id == CBR_ON_OFF) {
        // The V850 sends the state with a result byte after it; the length is not checked.
        CCBRadio::mCBRStatus.store(static_cast<signed char>(b2), relaxed);
        const int state = CCBRadio::mCBRStatus.load(relaxed);
        radio->sendCBRadioStatusSignal();
        if (state == 1) {
            radio->sendCBRSquelchLevelSignal();
            radio->sendCBRChannelNumberSignal();
            radio->getVoxDetectedState();
        }
        scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_ON_OFF state = %d\n", state);
    }

    if ((id == CBR_ON_OFF || id == CBR_HW_CONNECTION_STATUS)
        && (CCBRadio::mCBRStatus.load(relaxed) == 0 || CCBRadio::mCBRHWConnectionStatus.load(relaxed) == 0))
        shutDownAudioPath(radio);

    if (id == CBR_WEATHER_ALERT_ON_OFF_STATUS) {
        if (len != 1) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_WEATHER_ALERT_ON_OFF_STATUS response data length %d is improper!\n", len);
        } else if (b2 > 1) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_WEATHER_ALERT_ON_OFF_STATUS invalid data or command failed at V850!\n");
        } else {
            CCBRadio::mCBRWeatherAlertOnOff.store(static_cast<signed char>(b2), relaxed);
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_WEATHER_ALERT_ON_OFF is %d \n", b2);
            radio->sendCBRWeatherAlertOnOffStatusSignal();
        }
    }

    if (id == CBR_WEATHER_ALERT_STATUS) {
        if (len != 2) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_WEATHER_ALERT_STATUS response data length %d is improper!\n", len);
        } else if (b2 > 1 || b3 < 1 || b3 > MAX_WEATHER_CHANNEL) {
            scope.sendFormattedMessage("\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS invalid rspns Status = %d, CH_Num = %d\n", b2, b3);
        } else if (CCBRadio::mCBRWeatherAlertOnOff.load(relaxed) == 1) {
            CCBRadio::mCBRWeatherAlertStatus.store(static_cast<unsigned char>(b2), relaxed);
            scope.sendFormattedMessage("\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS = %d CH Num = %d\n", b2, b3);
            CCBRadio::mCBRWeatherAlertChannelNumber.store(static_cast<unsigned char>(b3), relaxed);
            radio->sendCBRWeatherAlertStatusSignal();
        }
    }

    // Channel, squelch and Tx/Rx reports mean nothing while the radio is off.
    if (CCBRadio::mCBRStatus.load(relaxed) == 0)
        return;

    if (id == CBR_SET_SQUELCH_LEVEL) {
        if (len != 2) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SET_SQUELCH_LEVEL response data length %d is improper!\n", len);
        } else if (b3 != POSITIVE_RESPONSE || b2 > MAX_SQUELCH_LEVEL) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SET_SQUELCH_LEVEL invalid rspns data or non +ve rspns. command failed at V850!\n");
        } else {
            CCBRadio::mCBRSquelchLevel.store(static_cast<signed char>(b2), relaxed);
            radio->sendCBRSquelchLevelSignal();
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_SET_SQUELCH_LEVEL is %d \n", b2);
        }
    }

    if (id == CBR_TX_RX_STATUS) {
        if (len != 2) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_TX_RX_STATUS response data length %d is improper!\n", len);
        } else if (b2 > 1 || b3 > 1) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_TX_RX_STATUS invalid rspns data or non +ve rspns. command failed at V850!\n");
        } else {
            CCBRadio::mCBRTxStatus.store(static_cast<signed char>(b2), relaxed);
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_TX_STATUS is %d \n", b2);
            CCBRadio::mCBRRxStatus.store(static_cast<signed char>(b3), relaxed);
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_RX_STATUS is %d \n", b3);
            handleTxRxStatus(radio, b2, b3);
        }
    }

    if (id == CBR_CHANNEL_SELECT) {
        if (len != 2) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_CHANNEL_SELECT response data length %d is improper!\n", len);
        } else if (b3 != POSITIVE_RESPONSE || b2 == 0 || b2 > MAX_CHANNEL) {
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_CHANNEL_SELECT invalid rspns data or non +ve rspns. command failed at V850!\n");
        } else {
            CCBRadio::mCBRCurrentChannel.store(static_cast<signed char>(b2), relaxed);
            radio->sendCBRChannelNumberSignal();
            scope.sendFormattedMessage("\n[CBRadio] [CH6] CBR_CHANNEL_SELECT is %d \n", b2);
        }
    }
}
