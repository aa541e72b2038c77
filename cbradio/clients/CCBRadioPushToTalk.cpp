// CCBRadio: when to key the transmitter. The rider's switch ("function_sw_9") is held, the
// passenger's ("function_sw_15") toggles, voice detection ("voxDetectedState") keys while voice is
// heard, and the vehicle power mode ("powerMode") decides whether a switch may key at all: only
// in power mode 3 does a press send PTT on, and power mode 4 sends PTT off while a switch is still
// latched. Power mode 1 also stores the settings.
//
// Bad payloads: a payload that is not a JSON object, or whose value member is missing or not a
// number within an int (fractions are cut towards zero), is handled like text that is not JSON: the switch handlers log their "Parse Error"
// line, the VOX and power mode handlers ignore it silently. In every case nothing changes. The
// power mode is kept as a signed byte and acted upon as stored (a value of 257 acts as 1).
//
// Threads: the four handlers run on service-IPC dispatch threads; getVoxDetectedState runs on the
// V850 reader thread and blocks it for up to one second; GetPowerModeValue runs once on the main
// thread during start.
#include "CCBRadio.h"
#include "CBRadioBusNames.h"

#include "CBRadioJson.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <cstring>
#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onRiderPTTSignal("CBRadio_CCBRadio", "onRiderPTTSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onPassengerPTTSignal("CBRadio_CCBRadio",
                                                                                    "onPassengerPTTSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onVoxDetectedStateSignal("CBRadio_CCBRadio",
                                                                                        "onVoxDetectedStateSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onPowerModeSignal("CBRadio_CCBRadio",
                                                                                 "onPowerModeSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_GetPowerModeValue("CBRadio_CCBRadio",
                                                                                 "GetPowerModeValue");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_getVoxDetectedState("CBRadio_CCBRadio",
                                                                                   "getVoxDetectedState");

std::atomic<unsigned char> CCBRadio::mCBRRiderPttStatus(0);
std::atomic<unsigned char> CCBRadio::mCBRPassengerPttStatus(0);
std::atomic<unsigned char> CCBRadio::mPassengerPTTcount(0);
std::atomic<unsigned char> CCBRadio::mCBRVoxDetectStatus(0);
std::atomic<signed char> CCBRadio::mCBRPowerModeValue(0);

using namespace CBRadioBusNames;

namespace
{
const unsigned int VOX_QUERY_TIMEOUT_MS = 1000;

const int SWITCH_RELEASED = 0;
const int SWITCH_PRESSED = 2;
const int POWER_MODE_STORE = 1;
const int POWER_MODE_KEYING = 3;
const int POWER_MODE_UNKEY = 4;
const unsigned char PASSENGER_LATCHED = 1;
const unsigned char PASSENGER_UNLATCHED = 2;
const std::memory_order relaxed = std::memory_order_relaxed;

bool isSignal(const char* sigName, const char* expected)
{
    return sigName != nullptr && std::strcmp(sigName, expected) == 0;
}

// The integer member `key` of the payload; false when the payload is unusable.
bool readPayloadInt(const char* data, const char* key, int& value)
{
    Json::Value root;
    return CBRadioJson::parseObject(data, root) && CBRadioJson::readInt(root, key, value);
}

bool radioOnAndConnected()
{
    return CCBRadio::mCBRStatus.load(relaxed) == 1 && CCBRadio::mCBRHWConnectionStatus.load(relaxed) != 0;
}

void sendPtt(ECBRPTTStatus status)
{
    CCBRadio* radio = CCBRadio::mpCBRadio;
    if (radio != nullptr)
        radio->req_CBR_PTT_STATUS_toV850(status);
}
}

void CCBRadio::onRiderPTTSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onRiderPTTSignal);
    if (!isSignal(sigName, "function_sw_9"))
        return;
    int value = 0;
    if (!readPayloadInt(data, "Value", value)) {
        scope.sendFormattedMessage("\n[CBR onRiderPTTSignal] Parse Error");
        return;
    }
    if (!radioOnAndConnected())
        return;
    if (value == SWITCH_PRESSED) {
        mCBRRiderPttStatus.store(1, relaxed);
        if (mCBRPowerModeValue.load(relaxed) == POWER_MODE_KEYING && mheadset_r_status.load(relaxed) != 0)
            sendPtt(CBR_PTT_ON);
    } else if (value == SWITCH_RELEASED && mCBRRiderPttStatus.load(relaxed) == 1) {
        // Letting go of the rider's switch also cancels a latched passenger PTT.
        mCBRRiderPttStatus.store(0, relaxed);
        mPassengerPTTcount.store(0, relaxed);
        mCBRPassengerPttStatus.store(0, relaxed);
        if (mCBRVoxDetectStatus.load(relaxed) == 0)
            sendPtt(CBR_PTT_OFF);
    }
    scope.sendFormattedMessage("\n[CBR onRiderPTTSignal] Value %d\n", value);
}

void CCBRadio::onPassengerPTTSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onPassengerPTTSignal);
    if (!isSignal(sigName, "function_sw_15"))
        return;
    int value = 0;
    if (!readPayloadInt(data, "Value", value)) {
        scope.sendFormattedMessage("\n[CBR onPassengerPTTSignal] : Parse Error");
        return;
    }
    // The passenger's switch sits on the rear controller; without it the presses mean nothing.
    if (!radioOnAndConnected() || mRearControlStatus.load(relaxed) == 0)
        return;
    if (value == 1 || value == 2) {
        const unsigned char presses = static_cast<unsigned char>(mPassengerPTTcount.load(relaxed) + 1);
        mPassengerPTTcount.store(presses, relaxed);
        if (presses == PASSENGER_LATCHED) {
            mCBRPassengerPttStatus.store(1, relaxed);
            if (mCBRPowerModeValue.load(relaxed) == POWER_MODE_KEYING && mheadset_p_status.load(relaxed) != 0)
                sendPtt(CBR_PTT_ON);
        }
    }
    if (mPassengerPTTcount.load(relaxed) == PASSENGER_UNLATCHED) {
        mCBRPassengerPttStatus.store(0, relaxed);
        if (mCBRRiderPttStatus.load(relaxed) == 0 && mCBRVoxDetectStatus.load(relaxed) == 0)
            sendPtt(CBR_PTT_OFF);
        mPassengerPTTcount.store(0, relaxed);
    }
    scope.sendFormattedMessage("\n[CBR onPassengerPTTSignal] : PTT Value %d\n", value);
}

void CCBRadio::onVoxDetectedStateSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onVoxDetectedStateSignal);
    scope.sendFormattedMessage("\n[CBR onVoxDetectedStateSignal] \n");
    if (!isSignal(sigName, "voxDetectedState"))
        return;
    int state = 0;
    if (!readPayloadInt(data, "state", state))
        return;
    const bool switchHeld = mCBRRiderPttStatus.load(relaxed) != 0 || mCBRPassengerPttStatus.load(relaxed) != 0;
    if (state != 0) {
        mCBRVoxDetectStatus.store(1, relaxed);
        // Voice keys the transmitter only through a routed headset, and never over a held switch.
        const bool headset = mheadset_r_status.load(relaxed) != 0 || mheadset_p_status.load(relaxed) != 0;
        if (mCBRStatus.load(relaxed) != 0 && mCBRHWConnectionStatus.load(relaxed) != 0 && !switchHeld && headset) {
            sendPtt(CBR_PTT_ON);
            scope.sendFormattedMessage("\n[CBR onVoxDetectedStateSignal] : CBR_PTT_ON\n");
        }
    } else {
        mCBRVoxDetectStatus.store(0, relaxed);
        if (!switchHeld) {
            sendPtt(CBR_PTT_OFF);
            scope.sendFormattedMessage("\n[CBR onVoxDetectedStateSignal] : CBR_PTT_OFF\n");
        }
    }
}

void CCBRadio::onPowerModeSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onPowerModeSignal);
    scope.sendFormattedMessage("\n[CBR onPowerModeSignal] \n");
    if (!isSignal(sigName, "powerMode"))
        return;
    int value = 0;
    if (!readPayloadInt(data, "value", value))
        return;
    const signed char mode = static_cast<signed char>(value);
    mCBRPowerModeValue.store(mode, relaxed);
    scope.sendFormattedMessage("\n[CBR onPowerModeSignal] : Value %d\n", static_cast<int>(mode));

    const bool switchLatched = mCBRRiderPttStatus.load(relaxed) == 1 || mCBRPassengerPttStatus.load(relaxed) == 1;
    CCBRadio* radio = mpCBRadio;
    switch (mode) {
    case POWER_MODE_STORE:
        if (radio != nullptr)
            radio->storePersistedCBRadioProperties();
        break;
    case POWER_MODE_KEYING:
        if (switchLatched) {
            sendPtt(CBR_PTT_ON);
            scope.sendFormattedMessage("\n[CBR onPowerModeSignal] : PTT ON Status sent to v850");
        }
        break;
    case POWER_MODE_UNKEY:
        if (switchLatched) {
            sendPtt(CBR_PTT_OFF);
            scope.sendFormattedMessage("\n[CBR onPowerModeSignal] : PTT OFF Status sent to v850");
        }
        break;
    default:
        break;
    }
}

void CCBRadio::GetPowerModeValue()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_GetPowerModeValue);
    if (!isServiceAvailable(POWER_SERVICE)) {
        scope.sendFormattedMessage("\n[CBR GetPowerModeValue] MERIDOOnOff Service Not Available\n");
        return;
    }
    // Only a prompt: the value itself arrives with the "powerMode" signal.
    const SVCIPC_tError status = SVCIPC_asyncInvoke(mConnection, POWER_SERVICE, POWER_OBJECT, "getPowerMode", nullptr,
                                                    1, 0, nullptr, CLIENT_TOKEN);
    if (SVCIPC_IS_ERROR(status))
        scope.sendFormattedMessage("\n[CBR GetPowerModeValue] failed to GetPowerModeValue\n");
    else
        scope.sendFormattedMessage("\n[CBR GetPowerModeValue] Method Called\n");
}

void CCBRadio::getVoxDetectedState()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_getVoxDetectedState);
    if (mHuInspectionMode.load(relaxed) != 0)
        return;
    if (!mDbusInitilaised.load(relaxed) || !isServiceAvailable(AUDIO_MANAGER_SERVICE)) {
        scope.sendFormattedMessage("\n[CBR getVoxDetectedState] : Service Not Available");
        return;
    }

    Json::Value props(Json::arrayValue);
    props.append("voxDetectedState");
    Json::Value params(Json::objectValue);
    params["props"] = props;
    SVCIPC_tResponse* reply = nullptr;
    const SVCIPC_tError status = SVCIPC_invoke(mConnection, AUDIO_MANAGER_SERVICE, AUDIO_MANAGER_OBJECT,
                                               "getProperties", CBRadioJson::write(params).c_str(), 0,
                                               VOX_QUERY_TIMEOUT_MS, &reply);
    if (SVCIPC_IS_ERROR(status)) {
        scope.sendFormattedMessage("\n[CBR getVoxDetectedState] SVCIPC Error \n");
    } else {
        Json::Value root;
        int state = 0;
        if (!CBRadioJson::parseObject(reply != nullptr ? reply->result : nullptr, root) ||
            !CBRadioJson::readInt(CBRadioJson::member(root, "voxDetectedState"), "state", state)) {
            scope.sendFormattedMessage("\n[CBR getVoxDetectedState] : parse error");
        } else {
            scope.sendFormattedMessage("\n[CBR getVoxDetectedState] Status = %d \n", state);
            // Only a detected voice is taken over; silence leaves the last signal's word standing.
            if (state == 1) {
                mCBRVoxDetectStatus.store(1, relaxed);
                scope.sendFormattedMessage("\n[CBR getVoxDetectedState] CBR_ON, VOX ON, Set PTT ON\n");
            }
        }
    }
    if (reply != nullptr)
        SVCIPC_freeResponse(reply);

    // The radio has just come on: key it again for whoever was talking through a headset.
    const bool vox = mCBRVoxDetectStatus.load(relaxed) == 1;
    if (mheadset_r_status.load(relaxed) != 0 && radioOnAndConnected() && (mCBRRiderPttStatus.load(relaxed) == 1 || vox))
        req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
    if (mheadset_p_status.load(relaxed) != 0 && radioOnAndConnected() &&
        (mCBRPassengerPttStatus.load(relaxed) == 1 || vox))
        req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
}
