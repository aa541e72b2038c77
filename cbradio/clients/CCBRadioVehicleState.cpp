// CCBRadio: what the service learns about the vehicle and the head unit from other services: the
// nine signal subscriptions, the bus owner check used before calls, the diagnostic inspection mode,
// the rear controller, the headset routing, and the start-up queries of the last three.
//
// Inspection mode 1 takes the radio out of service (audio sources removed first, then PTT off and
// the radio switched off, its state remembered); mode 2 only un-keys it; mode 0 un-keys it and
// switches the radio back to the remembered state, which is "off" when mode 1 never came. The
// mode changes only through the signal: the start-up query is logged, not applied.
//
// Bad input: a signal with another name, or a payload or reply that is not a JSON object, logs the
// handler's "error" or "parse error" line and changes nothing. Text members that are missing or not
// strings read as empty; the inspection status must be an integer, otherwise the payload counts as
// a parse error, and so does a diagnostic reply without an integer "code" and a text
// "description".
//
// Threads: the signal handlers run on service-IPC dispatch threads; the subscriptions and the
// start-up queries run on the main thread, which each query blocks for up to its time-out.
#include "CCBRadio.h"
#include "CBRadioBusNames.h"

#include "CBRadioJson.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <cstring>
#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeRiderPTT("CBRadio_CCBRadio",
                                                                                 "subscribeRiderPTT");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribePassengerPTT("CBRadio_CCBRadio",
                                                                                     "subscribePassengerPTT");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribePowerMode("CBRadio_CCBRadio",
                                                                                  "subscribePowerMode");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeVoxDetectedState("CBRadio_CCBRadio",
                                                                                         "subscribeVoxDetectedState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribettsAvailable("CBRadio_CCBRadio",
                                                                                     "subscribettsAvailable");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeinterruptSrcState("CBRadio_CCBRadio",
                                                                                          "subscribeinterruptSrcState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeAudioRoutingStatus(
    "CBRadio_CCBRadio", "subscribeAudioRoutingStatus");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscriberearControllerState(
    "CBRadio_CCBRadio", "subscriberearControllerState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeHuInpectionModeState(
    "CBRadio_CCBRadio", "subscribeHuInpectionModeState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_getAudioRoutingStatus("CBRadio_CCBRadio",
                                                                                     "getAudioRoutingStatus");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_getRearControllerState("CBRadio_CCBRadio",
                                                                                      "getRearControllerState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_getDiagInspmodeState("CBRadio_CCBRadio",
                                                                                    "getDiagInspmodeState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_ondiagInspectionModeStatusSignal(
    "CBRadio_CCBRadio", "ondiagInspectionModeStatusSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onRearControllerStateSignal(
    "CBRadio_CCBRadio", "onRearControllerStateSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onAudioRoutingStatusSignal("CBRadio_CCBRadio",
                                                                                          "onAudioRoutingStatusSignal");

std::atomic<int> CCBRadio::mHuInspectionMode(0);
std::atomic<unsigned char> CCBRadio::mRearControlStatus(0);
std::atomic<unsigned char> CCBRadio::mheadset_r_status(0);
std::atomic<unsigned char> CCBRadio::mheadset_p_status(0);

using namespace CBRadioBusNames;

namespace
{
const unsigned int ROUTING_QUERY_TIMEOUT_MS = 1000;
const unsigned int REAR_QUERY_TIMEOUT_MS = 2000;
const unsigned int DIAG_QUERY_TIMEOUT_MS = 1000;

const int INSPECTION_OFF = 0;
const int INSPECTION_RADIO_OFF = 1;
const int INSPECTION_ONLY = 2;
const std::memory_order relaxed = std::memory_order_relaxed;

bool isSignal(const char* sigName, const char* expected)
{
    return sigName != nullptr && std::strcmp(sigName, expected) == 0;
}

// {"props":[name]}, the argument of the peers' "getProperties".
std::string propsParams(const char* name)
{
    Json::Value props(Json::arrayValue);
    props.append(name);
    Json::Value params(Json::objectValue);
    params["props"] = props;
    return CBRadioJson::write(params);
}

// A blocking call; `reply` is the reply text ("" when there is none). False on a failure status.
bool query(SVCIPC_tConnection connection, const char* service, const char* objPath, const char* method,
           const char* params, unsigned int timeoutMs, std::string& reply)
{
    SVCIPC_tResponse* response = nullptr;
    const SVCIPC_tError status = SVCIPC_invoke(connection, service, objPath, method, params, 0, timeoutMs, &response);
    if (response != nullptr) {
        reply = response->result != nullptr ? response->result : "";
        SVCIPC_freeResponse(response);
    }
    return !SVCIPC_IS_ERROR(status);
}

// Applies the headset texts of a "communication" routing; `prefix` names the caller in the
// log lines. Other sources and other texts change nothing.
void applyRouting(const Json::Value& routing, const CJTTraceScope& scope, const char* prefix)
{
    const std::string source = CBRadioJson::stringOr(routing, "source");
    const std::string driver = CBRadioJson::stringOr(routing, "headset_d");
    const std::string passenger = CBRadioJson::stringOr(routing, "headset_p");
    if (source != "communication")
        return;
    if (driver == "checked") {
        CCBRadio::mheadset_r_status.store(1, relaxed);
        scope.sendFormattedMessage("%s : headset_driver->checked", prefix);
    } else if (driver == "unchecked") {
        CCBRadio::mheadset_r_status.store(0, relaxed);
        scope.sendFormattedMessage("%s : headset_driver->unchecked", prefix);
    }
    if (passenger == "checked") {
        CCBRadio::mheadset_p_status.store(1, relaxed);
        scope.sendFormattedMessage("%s : headset_passenger->checked", prefix);
    } else if (passenger == "unchecked") {
        CCBRadio::mheadset_p_status.store(0, relaxed);
        scope.sendFormattedMessage("%s : headset_passenger->unchecked", prefix);
    }
}

// Re-decides PTT after the headsets changed, with the radio on and connected. Each rule that
// holds sends its own command, so one change may send several.
void applyHeadsetPtt(CCBRadio& radio)
{
    const bool rider = CCBRadio::mheadset_r_status.load(relaxed) != 0;
    const bool passenger = CCBRadio::mheadset_p_status.load(relaxed) != 0;
    const bool riderPtt = CCBRadio::mCBRRiderPttStatus.load(relaxed) == 1;
    const bool passengerPtt = CCBRadio::mCBRPassengerPttStatus.load(relaxed) == 1;
    const bool vox = CCBRadio::mCBRVoxDetectStatus.load(relaxed) == 1;
    if (rider && (riderPtt || vox))
        radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
    if (passenger && (passengerPtt || vox))
        radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
    if (!rider && CCBRadio::mCBRPassengerPttStatus.load(relaxed) == 0 &&
        CCBRadio::mCBRVoxDetectStatus.load(relaxed) == 0)
        radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
    if (!passenger && CCBRadio::mCBRRiderPttStatus.load(relaxed) == 0 &&
        CCBRadio::mCBRVoxDetectStatus.load(relaxed) == 0)
        radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
    if (!rider && !passenger)
        radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
}

void releaseSwitches()
{
    CCBRadio::mCBRRiderPttStatus.store(0, relaxed);
    CCBRadio::mCBRPassengerPttStatus.store(0, relaxed);
    CCBRadio::mPassengerPTTcount.store(0, relaxed);
}
}

bool CCBRadio::isServiceAvailable(const char* busName)
{
    SVCIPC_tBool hasOwner = 0;
    const SVCIPC_tError status = SVCIPC_nameHasOwner(mConnection, busName, &hasOwner, 0);
    return status == 0 && hasOwner != 0;
}

namespace
{
// The client subscriptions, in the order the service makes them. Each routine traces its flag
// first, then subscribes (true) or unsubscribes (false); the results are not checked.
struct Subscription
{
    void (CCBRadio::*routine)(bool);
    const CJTTraceScopeDef& scope;
    const char* objPath;
    const char* sigName;
    SVCIPC_tSignalCallback onSignal;
    SVCIPC_tSigSubHnd CCBRadio::*handle;
    const char* logLine;  // "<logLine><flag><logEnd>"
    const char* logEnd;
    bool keptAtStop;  // left to the closing of the connection, on purpose
};

const Subscription SUBSCRIPTIONS[] = {
    {&CCBRadio::subscribeRiderPTT, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeRiderPTT, CAN_HMI_OBJECT,
     "function_sw_9", &CCBRadio::onRiderPTTSignal, &CCBRadio::mRiderPTTSub, "\n[CBR subscribeRiderPTT] = ", "\n",
     false},
    {&CCBRadio::subscribePassengerPTT, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribePassengerPTT, CAN_HMI_OBJECT,
     "function_sw_15", &CCBRadio::onPassengerPTTSignal, &CCBRadio::mPassengerPTTSub,
     "\n[CBR subscribePassengerPTT] = ", "\n", false},
    {&CCBRadio::subscribePowerMode, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribePowerMode, POWER_OBJECT,
     "powerMode", &CCBRadio::onPowerModeSignal, &CCBRadio::mPowerModeSub, "\n[CBR subscribePowerMode] = ", "\n", false},
    {&CCBRadio::subscribeVoxDetectedState, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeVoxDetectedState,
     AUDIO_MANAGER_OBJECT, "voxDetectedState", &CCBRadio::onVoxDetectedStateSignal, &CCBRadio::mVoxDetectedStateSub,
     "\n[CBR subscribeVoxDetectedState] = ", "\n", true},
    {&CCBRadio::subscribettsAvailable, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribettsAvailable, TTS_OBJECT,
     "ttsAvailable", &CCBRadio::onttsAvailableSignal, &CCBRadio::mttsAvailableSub,
     "\n[CBR subscribettsAvailable] = ", " \n", false},
    {&CCBRadio::subscribeinterruptSrcState, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeinterruptSrcState,
     AUDIO_MANAGER_OBJECT, "interruptSrc", &CCBRadio::oninterruptSrcStateSignal, &CCBRadio::minterruptSrcStateSub,
     "\n[CBR subscribeinterruptSrcState] = ", "\n", false},
    {&CCBRadio::subscribeAudioRoutingStatus, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeAudioRoutingStatus,
     AUDIO_MANAGER_OBJECT, "audioRoutingStatus", &CCBRadio::onAudioRoutingStatusSignal,
     &CCBRadio::mAudioRoutingStatusSub, "\n[CBR subscribeAudioRoutingStatus] = ", "\n", false},
    {&CCBRadio::subscriberearControllerState, gsTraceServerScopeDef_CBRadio_CCBRadio_subscriberearControllerState,
     MODE_MANAGER_OBJECT, "rearControllerState", &CCBRadio::onRearControllerStateSignal,
     &CCBRadio::mrearControllerStateSub, "\n[CBR subscriberearControllerState] = ", "\n", false},
    {&CCBRadio::subscribeHuInpectionModeState, gsTraceServerScopeDef_CBRadio_CCBRadio_subscribeHuInpectionModeState,
     DIAGNOSIS_OBJECT, "diagInspectionModeStatus", &CCBRadio::ondiagInspectionModeStatusSignal,
     &CCBRadio::mHuInspectionModeStateSub, "\n[CBR subscribeHuInpectionModeState] = ", " \n", false},
};

void subscribe(CCBRadio& radio, void (CCBRadio::*routine)(bool), bool on)
{
    for (const Subscription& row : SUBSCRIPTIONS) {
        if (row.routine != routine)
            continue;
        CJTTraceScope scope(row.scope);
        scope.sendFormattedMessage("%s%d%s", row.logLine, on, row.logEnd);
        if (on)
            SVCIPC_subscribe(radio.mConnection, row.objPath, row.sigName, row.onSignal, CLIENT_TOKEN,
                             &(radio.*row.handle));
        else
            SVCIPC_unsubscribe(radio.*row.handle);
        return;
    }
}
}

void CCBRadio::subscribeClients(bool on)
{
    for (const Subscription& row : SUBSCRIPTIONS)
        if (on || !row.keptAtStop)
            (this->*row.routine)(on);
}

void CCBRadio::subscribeRiderPTT(bool on)
{
    subscribe(*this, &CCBRadio::subscribeRiderPTT, on);
}
void CCBRadio::subscribePassengerPTT(bool on)
{
    subscribe(*this, &CCBRadio::subscribePassengerPTT, on);
}
void CCBRadio::subscribePowerMode(bool on)
{
    subscribe(*this, &CCBRadio::subscribePowerMode, on);
}
void CCBRadio::subscribeVoxDetectedState(bool on)
{
    subscribe(*this, &CCBRadio::subscribeVoxDetectedState, on);
}
void CCBRadio::subscribettsAvailable(bool on)
{
    subscribe(*this, &CCBRadio::subscribettsAvailable, on);
}
void CCBRadio::subscribeinterruptSrcState(bool on)
{
    subscribe(*this, &CCBRadio::subscribeinterruptSrcState, on);
}
void CCBRadio::subscribeAudioRoutingStatus(bool on)
{
    subscribe(*this, &CCBRadio::subscribeAudioRoutingStatus, on);
}
void CCBRadio::subscriberearControllerState(bool on)
{
    subscribe(*this, &CCBRadio::subscriberearControllerState, on);
}
void CCBRadio::subscribeHuInpectionModeState(bool on)
{
    subscribe(*this, &CCBRadio::subscribeHuInpectionModeState, on);
}

void CCBRadio::getAudioRoutingStatus()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_getAudioRoutingStatus);
    if (!mDbusInitilaised.load(relaxed) || !isServiceAvailable(AUDIO_MANAGER_SERVICE)) {
        scope.sendFormattedMessage("\n[CBR getAudioRoutingStatus] : Service Not Available");
        return;
    }
    std::string reply;
    if (!query(mConnection, AUDIO_MANAGER_SERVICE, AUDIO_MANAGER_OBJECT, "getProperties",
               propsParams("audioRoutingStatus").c_str(), ROUTING_QUERY_TIMEOUT_MS, reply)) {
        scope.sendFormattedMessage("\n[CBR getAudioRoutingStatus] SVCIPC Error \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(reply.c_str(), root)) {
        scope.sendFormattedMessage("\n[CBR getAudioRoutingStatus] : parse error");
        return;
    }
    // At start nobody holds a switch yet, so no PTT decision follows.
    applyRouting(CBRadioJson::member(root, "audioRoutingStatus"), scope, "[CBR getAudioRoutingStatus]");
}

void CCBRadio::getRearControllerState()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_getRearControllerState);
    if (!mDbusInitilaised.load(relaxed) || !isServiceAvailable(MODE_MANAGER_SERVICE)) {
        scope.sendFormattedMessage("\n[CBR getRearControllerState] : Service Not Available");
        return;
    }
    std::string reply;
    if (!query(mConnection, MODE_MANAGER_SERVICE, MODE_MANAGER_OBJECT, "getProperties",
               propsParams("rearControllerState").c_str(), REAR_QUERY_TIMEOUT_MS, reply)) {
        scope.sendFormattedMessage("\n[CBR getRearControllerState] SVCIPC Error \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(reply.c_str(), root)) {
        scope.sendFormattedMessage("\n[CBR getRearControllerState] : parse error");
        return;
    }
    const std::string state = CBRadioJson::stringOr(CBRadioJson::member(root, "rearControllerState"), "state");
    scope.sendFormattedMessage("[CBR getRearControllerState] : %s ", state.c_str());
    if (state == "ON") {
        mRearControlStatus.store(1, relaxed);
        scope.sendFormattedMessage("[CBR getRearControllerState] : ON");
    } else if (state == "OFF") {
        mRearControlStatus.store(0, relaxed);
        scope.sendFormattedMessage("[CBR getRearControllerState] : OFF");
    }
}

void CCBRadio::getDiagInspmodeState()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_getDiagInspmodeState);
    if (!isServiceAvailable(DIAGNOSIS_SERVICE)) {
        scope.sendFormattedMessage("\n[CBR getDiagInspmodeState] service not exists \n");
        return;
    }
    std::string reply;
    if (!query(mConnection, DIAGNOSIS_SERVICE, DIAGNOSIS_OBJECT, "reqGetDiagInspectionModeStatus", nullptr,
               DIAG_QUERY_TIMEOUT_MS, reply)) {
        scope.sendFormattedMessage("\n[CBR getDiagInspmodeState] SVCIPC Error \n");
        return;
    }
    Json::Value root;
    int code = 0;
    std::string description;
    if (!CBRadioJson::parseObject(reply.c_str(), root) || !CBRadioJson::readInt(root, "code", code) ||
        !CBRadioJson::readString(root, "description", description)) {
        scope.sendFormattedMessage("\n[CBR getDiagInspmodeState] : parse error");
        return;
    }
    scope.sendFormattedMessage("\n[CBR getDiagInspmodeState] code = %d,description = %s \n", code, description.c_str());
}

void CCBRadio::ondiagInspectionModeStatusSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_ondiagInspectionModeStatusSignal);
    if (!isSignal(sigName, "diagInspectionModeStatus")) {
        scope.sendFormattedMessage("[CBR ondiagInspectionModeStatusSignal] : error");
        return;
    }
    Json::Value root;
    int status = 0;
    if (!CBRadioJson::parseObject(data, root) || !CBRadioJson::readInt(root, "status", status)) {
        scope.sendFormattedMessage("[CBR ondiagInspectionModeStatusSignal] : parse error");
        return;
    }
    scope.sendFormattedMessage("[CBR ondiagInspectionModeStatusSignal] : %d ", status);
    CCBRadio* radio = mpCBRadio;
    if (radio == nullptr)
        return;
    switch (status) {
    case INSPECTION_RADIO_OFF:
        // The sources go first: once the mode is set, removes are blocked too.
        radio->removeCBTxAudioSource();
        radio->removeCBRxAudioSource();
        mHuInspectionMode.store(INSPECTION_RADIO_OFF, relaxed);
        radio->req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
        mPrevCBRStatus.store(mCBRStatus.load(relaxed), relaxed);
        radio->reqCBRStateChange(0);
        releaseSwitches();
        break;
    case INSPECTION_ONLY:
        mHuInspectionMode.store(INSPECTION_ONLY, relaxed);
        radio->req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
        releaseSwitches();
        break;
    case INSPECTION_OFF:
        // Restores the state saved by mode 1; without a mode 1 before, that is "off".
        mHuInspectionMode.store(INSPECTION_OFF, relaxed);
        radio->req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
        releaseSwitches();
        radio->reqCBRStateChange(mPrevCBRStatus.load(relaxed));
        break;
    default:
        break;
    }
}

void CCBRadio::onRearControllerStateSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onRearControllerStateSignal);
    Json::Value root;
    if (!CBRadioJson::signalObject(scope, sigName, "rearControllerState", data, root,
                                   "[CBR onRearControllerStateSignal] : error",
                                   "[CBR onRearControllerStateSignal] : parse error"))
        return;
    const std::string state = CBRadioJson::stringOr(root, "state");
    scope.sendFormattedMessage("[CBR onRearControllerStateSignal] : %s ", state.c_str());
    if (state == "ON")
        mRearControlStatus.store(1, relaxed);
    else if (state == "OFF")
        mRearControlStatus.store(0, relaxed);
}

void CCBRadio::onAudioRoutingStatusSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onAudioRoutingStatusSignal);
    Json::Value root;
    if (!CBRadioJson::signalObject(scope, sigName, "audioRoutingStatus", data, root,
                                   "[CBR onAudioRoutingStatusSignal] : error",
                                   "[CBR onAudioRoutingStatusSignal] : parse error"))
        return;
    const Json::Value& routing = CBRadioJson::member(root, "audioRoutingStatus");
    if (CBRadioJson::stringOr(routing, "source") != "communication")
        return;
    applyRouting(routing, scope, "[CBR onAudioRoutingStatusSignal]");
    CCBRadio* radio = mpCBRadio;
    if (radio != nullptr && mCBRStatus.load(relaxed) == 1 && mCBRHWConnectionStatus.load(relaxed) != 0)
        applyHeadsetPtt(*radio);
}
