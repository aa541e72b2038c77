// CCBRadio: the interrupting audio sources "cbRX" (receiving) and "cbTX" (transmitting) held at the
// head unit's audio manager, and its microphone switch.
//
// Each source has one request state (ECBRRxIntStatus / ECBRTxIntStatus): not requested, requested
// (an add is on its way) and held. An add is sent only from "not requested", so the audio manager
// is never asked twice for the same source; a remove is sent whenever the source is not "not
// requested", and the state returns to "not requested" only when the answer (or the manager's own
// "interruptSrc" signal) says so. The signal has the last word: it may move a source either way.
// Inspection mode blocks adds and removes alike.
//
// An add answered with a bus error (for example its 1000 ms time-out) keeps the state "requested";
// further adds are then refused until a signal or a remove answer resets it. Members of the
// answers and of the signal that are missing or are not strings count as absent.
//
// Threads: adds and removes come from the V850 reader, the method dispatcher and the inspection
// mode handler; completions, the signal and the owner watch run on service-IPC dispatch threads.
// The states are shared bytes; the check before an add is best effort, not a lock.
#include "CCBRadio.h"
#include "CBRadioBusNames.h"

#include "CBRadioJson.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <cstring>
#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_setCBRxAudioSource("CBRadio_CCBRadio", "setCBRxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_setCBTxAudioSource("CBRadio_CCBRadio", "setCBTxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBRxAudioSource("CBRadio_CCBRadio", "removeCBRxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBTxAudioSource("CBRadio_CCBRadio", "removeCBTxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_setMicStatus("CBRadio_CCBRadio", "setMicStatus");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxAddInterruptSrc("CBRadio_CCBRadio", "onCompletionCBRxAddInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxAddInterruptSrc("CBRadio_CCBRadio", "onCompletionCBTxAddInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxRemoveInterruptSrc("CBRadio_CCBRadio", "onCompletionCBRxRemoveInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxRemoveInterruptSrc("CBRadio_CCBRadio", "onCompletionCBTxRemoveInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionSetDeviceState("CBRadio_CCBRadio", "onCompletionSetDeviceState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_oninterruptSrcStateSignal("CBRadio_CCBRadio", "oninterruptSrcStateSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onNotifyAudioManagerAvailability("CBRadio_CCBRadio", "onNotifyAudioManagerAvailability");

std::atomic<unsigned char> CCBRadio::mCBRRxAudioSrcIntrStatus(CBR_RX_INT_NOT_REQUESTED);
std::atomic<unsigned char> CCBRadio::mCBRTxAudioSrcIntrStatus(CBR_TX_INT_NOT_REQUESTED);

using namespace CBRadioBusNames;

namespace
{
    const unsigned int AUDIO_TIMEOUT_MS = 1000;
    const int DRIVER = 1;
    const int MIC_ON = 1;
    const std::memory_order relaxed = std::memory_order_relaxed;

    const char* orEmpty(const char* text) { return text != nullptr ? text : ""; }

    unsigned int errorCode(SVCIPC_tError status) { return SVCIPC_GET_CODE(status); }

    int completionError(const SVCIPC_tCallbackStatus* status)
    {
        return status != nullptr ? status->errCode : static_cast<int>(SVCIPC_ERROR_INTERNAL);
    }

    std::string addParams(const char* source)
    {
        Json::Value params(Json::objectValue);
        params["exclusive"] = true;
        params["source"] = source;
        return CBRadioJson::write(params);
    }

    std::string removeParams(const char* source)
    {
        Json::Value params(Json::objectValue);
        params["source"] = source;
        return CBRadioJson::write(params);
    }

    SVCIPC_tError invokeAudioManager(SVCIPC_tConnection connection, const char* method, const std::string& params,
                                     SVCIPC_tResultCallback onResult)
    {
        return SVCIPC_asyncInvoke(connection, AUDIO_MANAGER_SERVICE, AUDIO_MANAGER_OBJECT, method, params.c_str(), 0,
                                  AUDIO_TIMEOUT_MS, onResult, CLIENT_TOKEN);
    }

    // "action" and "source" of an answer or of the "interruptSrc" signal; false when either is
    // missing or not a string.
    bool readAction(const Json::Value& root, std::string& action, std::string& source)
    {
        return CBRadioJson::readString(root, "action", action) && CBRadioJson::readString(root, "source", source);
    }
}

void CCBRadio::setCBRxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_setCBRxAudioSource);
    if (mHuInspectionMode.load(relaxed) != 0) {
        scope.sendFormattedMessage("\n[CBR setCBRxAudioSource] : inspection mode\n");
        return;
    }
    if (mCBRRxAudioSrcIntrStatus.load(relaxed) != CBR_RX_INT_NOT_REQUESTED) {
        scope.sendFormattedMessage("\n[CBR setCBRxAudioSource] : CBRx already Requested\n");
        return;
    }
    if (!mAudioManagerServiceAvailStatus.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBR setCBRxAudioSource] : AudioManager Service Not available\n");
        return;
    }
    const std::string params = addParams("cbRX");
    mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_REQUESTED, relaxed);
    scope.sendFormattedMessage("\n[CBR setCBRxAudioSource] : CBR_RX_INT_REQUESTED\n");
    const SVCIPC_tError status =
        invokeAudioManager(mConnection, "addInterruptSrc", params, &CCBRadio::onCompletionCBRxAddInterruptSrc);
    if (status < 0) {
        scope.sendFormattedMessage("[CBR setCBRxAudioSource] Failed to invoke on AudioManager service for addInterruptSrc: 0x%0X\n",
                                   errorCode(status));
        mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR setCBRxAudioSource] : CBR_RX_INT_NOT_REQUESTED\n");
    }
}

void CCBRadio::setCBTxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_setCBTxAudioSource);
    if (mHuInspectionMode.load(relaxed) != 0) {
        // The transmit side reports inspection mode with the receive side's words.
        scope.sendFormattedMessage("\n[CBR setCBRxAudioSource] : inspection mode\n");
        return;
    }
    if (mCBRTxAudioSrcIntrStatus.load(relaxed) != CBR_TX_INT_NOT_REQUESTED) {
        scope.sendFormattedMessage("[CBR setCBTxAudioSource] : CBTx already Requested\n");
        return;
    }
    if (!mAudioManagerServiceAvailStatus.load(relaxed)) {
        scope.sendFormattedMessage("[CBR setCBTxAudioSource] : AudioManager service Not Available\n");
        return;
    }
    const std::string params = addParams("cbTX");
    mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_REQUESTED, relaxed);
    scope.sendFormattedMessage("[CBR setCBTxAudioSource] : CBR_TX_INT_REQUESTED\n");
    const SVCIPC_tError status =
        invokeAudioManager(mConnection, "addInterruptSrc", params, &CCBRadio::onCompletionCBTxAddInterruptSrc);
    if (status < 0) {
        scope.sendFormattedMessage("[CBR setCBTxAudioSource] Failed to invoke on AudioManager service for addInterruptSrc: 0x%0X\n",
                                   errorCode(status));
        mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("[CBR setCBTxAudioSource] : CBR_TX_INT_NOT_REQUESTED\n");
    }
}

void CCBRadio::removeCBRxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBRxAudioSource);
    if (mHuInspectionMode.load(relaxed) != 0) {
        scope.sendFormattedMessage("\n[CBR removeCBRxAudioSource] Inspection mode\n");
        return;
    }
    if (mCBRRxAudioSrcIntrStatus.load(relaxed) == CBR_RX_INT_NOT_REQUESTED) {
        scope.sendFormattedMessage("[CBR removeCBRxAudioSource] already Requested\n");
        return;
    }
    if (!mAudioManagerServiceAvailStatus.load(relaxed)) {
        scope.sendFormattedMessage("[CBR removeCBRxAudioSource] AudioManager service Not Available\n");
        return;
    }
    // The state stays as it is until the answer or the audio manager's signal arrives.
    const SVCIPC_tError status = invokeAudioManager(mConnection, "removeInterruptSrc", removeParams("cbRX"),
                                                    &CCBRadio::onCompletionCBRxRemoveInterruptSrc);
    if (status >= 0)
        scope.sendFormattedMessage("\n[CBR removeCBRxAudioSource] Requested\n");
    else
        scope.sendFormattedMessage("[CBR removeCBRxAudioSource] Failed to invoke on AudioManager service for removeInterruptSrc: 0x%0X\n",
                                   errorCode(status));
}

void CCBRadio::removeCBTxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBTxAudioSource);
    if (mHuInspectionMode.load(relaxed) != 0) {
        scope.sendFormattedMessage("\n[CBR removeCBTxAudioSource] Inspection mode\n");
        return;
    }
    if (mCBRTxAudioSrcIntrStatus.load(relaxed) == CBR_TX_INT_NOT_REQUESTED)
        return;   // nothing held, nothing to say: the V850 reports idle often
    if (!mAudioManagerServiceAvailStatus.load(relaxed)) {
        scope.sendFormattedMessage("[CBR removeCBTxAudioSource] : AudioManager service Not Available\n");
        return;
    }
    const SVCIPC_tError status = invokeAudioManager(mConnection, "removeInterruptSrc", removeParams("cbTX"),
                                                    &CCBRadio::onCompletionCBTxRemoveInterruptSrc);
    if (status >= 0)
        scope.sendFormattedMessage("\n[CBR removeCBTxAudioSource] : Requested\n");
    else
        scope.sendFormattedMessage("[CBR removeCBTxAudioSource] : Failed to invoke on AudioManager service for removeInterruptSrc: 0x%0X\n",
                                   errorCode(status));
}

void CCBRadio::setMicStatus(int user, int micStatus)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_setMicStatus);
    Json::Value params(Json::objectValue);
    params["device"] = "MIC";
    params["state"] = micStatus == MIC_ON ? "ON" : "OFF";
    if (user == DRIVER)
        params["user"] = "driver";
    if (!mAudioManagerServiceAvailStatus.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBR setMicStatus] : AudioManager Service not Available \n");
        return;
    }
    const SVCIPC_tError status = invokeAudioManager(mConnection, "setDeviceState", CBRadioJson::write(params),
                                                    &CCBRadio::onCompletionSetDeviceState);
    if (status >= 0)
        scope.sendFormattedMessage("\n[CBR setMicStatus] : Requested user = %d, MicStatus = %d\n", user, micStatus);
    else
        scope.sendFormattedMessage("[CBR setMicStatus] : Failed to invoke AudioManager for setDeviceState: 0x%0X\n",
                                   errorCode(status));
}

void CCBRadio::onCompletionCBRxAddInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                               SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxAddInterruptSrc);
    if (completionError(status) != 0) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxAddInterruptSrc] : CBR_RX_INT_REQUEST_FAILURE \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(result, root)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxAddInterruptSrc] : error parsing \n");
        return;
    }
    std::string action, source;
    if (!readAction(root, action, source)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxAddInterruptSrc] : Not a member \n");
        return;
    }
    if (source != "cbRX")
        return;
    if (action == "added") {
        mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_REQUEST_SUCCESS, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxAddInterruptSrc]  : CBR_RX_INT_REQUEST_SUCCESS \n");
    } else if (action == "not added") {
        mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxAddInterruptSrc]  : CBR_RX_INT_NOT_REQUESTED \n");
    }
}

void CCBRadio::onCompletionCBTxAddInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                               SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxAddInterruptSrc);
    if (completionError(status) != 0) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxAddInterruptSrc] : CBR_TX_INT_REQUEST_FAILURE \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(result, root)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxAddInterruptSrc] : error parsing \n");
        return;
    }
    std::string action, source;
    if (!readAction(root, action, source)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxAddInterruptSrc] : Not a member \n");
        return;
    }
    if (source != "cbTX")
        return;
    if (action == "added") {
        mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_REQUEST_SUCCESS, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxAddInterruptSrc] : CBR_TX_INT_REQUEST_SUCCESS \n");
    } else if (action == "not added") {
        mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxAddInterruptSrc] : CBR_TX_INT_NOT_REQUESTED = %d \n",
                                   static_cast<int>(CBR_TX_INT_NOT_REQUESTED));
    }
}

void CCBRadio::onCompletionCBRxRemoveInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                  SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxRemoveInterruptSrc);
    if (completionError(status) != 0) {
        scope.sendFormattedMessage("\n[CB onCompletionCBRxRemoveInterruptSrc] : error \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(result, root)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxRemoveInterruptSrc] : error parsing \n");
        return;
    }
    std::string action, source;
    if (!readAction(root, action, source)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxRemoveInterruptSrc] : failure \n");
        return;
    }
    if (source != "cbRX")
        return;
    // Either way the source is no longer ours to remove.
    if (action == "removed") {
        mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxRemoveInterruptSrc]  : CBR_RX_INT_NOT_REQUESTED");
    } else if (action == "not removed") {
        mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBRxRemoveInterruptSrc] : RX_NOT_REMOVED");
    }
}

void CCBRadio::onCompletionCBTxRemoveInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                  SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxRemoveInterruptSrc);
    if (completionError(status) != 0) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxRemoveInterruptSrc] : error \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(result, root)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxRemoveInterruptSrc] : error parsing \n");
        return;
    }
    std::string action, source;
    if (!readAction(root, action, source)) {
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxRemoveInterruptSrc] : failure \n");
        return;
    }
    if (source != "cbTX")
        return;
    if (action == "removed") {
        mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxRemoveInterruptSrc] : CBR_TX_INT_NOT_REQUESTED");
    } else if (action == "not removed") {
        mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_NOT_REQUESTED, relaxed);
        scope.sendFormattedMessage("\n[CBR onCompletionCBTxRemoveInterruptSrc] : TX_NOT_REMOVED");
    }
}

void CCBRadio::onCompletionSetDeviceState(const SVCIPC_tCallbackStatus* status, const char* result, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionSetDeviceState);
    if (completionError(status) != 0) {
        scope.sendFormattedMessage("\n[CBR onCompletionSetDeviceState] : error \n");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(result, root)) {
        scope.sendFormattedMessage("\n[CBR onCompletionSetDeviceState] : error parsing \n");
        return;
    }
    std::string micD, micP;
    if (CBRadioJson::readString(root, "MIC_D", micD) && CBRadioJson::readString(root, "MIC_P", micP))
        scope.sendFormattedMessage("\n[CBR onCompletionSetDeviceState] : success ==> MIC_D=%s MIC_P=%s\n", micD.c_str(),
                                   micP.c_str());
    else
        scope.sendFormattedMessage("\n[CBR onCompletionSetDeviceState] : failure \n");
}

void CCBRadio::oninterruptSrcStateSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_oninterruptSrcStateSignal);
    if (std::strcmp(orEmpty(sigName), "interruptSrc") != 0) {
        scope.sendFormattedMessage("[CBR oninterruptSrcStateSignal] : error");
        return;
    }
    Json::Value root;
    if (!CBRadioJson::parseObject(data, root)) {
        scope.sendFormattedMessage("[CBR oninterruptSrcStateSignal] : parse error");
        return;
    }
    const std::string action = CBRadioJson::stringOr(root, "action");
    const std::string source = CBRadioJson::stringOr(root, "source");
    CCBRadio* radio = mpCBRadio;
    if (source == "cbTX") {
        if (action == "added") {
            mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_REQUEST_SUCCESS, relaxed);
            scope.sendFormattedMessage("[CBR oninterruptSrcStateSignal] : CBR_TX_INT_REQUEST_SUCCESS");
        } else if (action == "removed") {
            mCBRTxAudioSrcIntrStatus.store(CBR_TX_INT_NOT_REQUESTED, relaxed);
            scope.sendFormattedMessage("[CBR oninterruptSrcStateSignal] : CBR_TX_INT_NOT_REQUESTED");
        }
        if (radio != nullptr)
            radio->sendCBRRxTxStatusSignal();
    } else if (source == "cbRX") {
        if (action == "added") {
            mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_REQUEST_SUCCESS, relaxed);
            scope.sendFormattedMessage("[CBR oninterruptSrcStateSignal] : CBR_RX_INT_REQUEST_SUCCESS");
        } else if (action == "removed") {
            mCBRRxAudioSrcIntrStatus.store(CBR_RX_INT_NOT_REQUESTED, relaxed);
            scope.sendFormattedMessage("[CBR oninterruptSrcStateSignal] : CBR_RX_INT_NOT_REQUESTED");
        }
        if (radio != nullptr)
            radio->sendCBRRxTxStatusSignal();
    }
}

void CCBRadio::onNotifyAudioManagerAvailability(const char* busName, const char* oldOwner, const char* newOwner,
                                                SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onNotifyAudioManagerAvailability);
    CCBRadio* radio = mpCBRadio;
    if (radio == nullptr || !radio->mServiceRegistered.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBR onNotifyAudioManagerAvailability] : Service Not initialized!!!\n");
        return;
    }
    const char* name = orEmpty(busName);
    const char* previous = orEmpty(oldOwner);
    const char* next = orEmpty(newOwner);
    scope.sendFormattedMessage("\n[CBR] [onOwnerChange] newName : %s oldOwner : %s newOwner : %s\n", name, previous,
                               next);
    if (std::strcmp(name, AUDIO_MANAGER_SERVICE) != 0)
        return;
    // The request states are left as they are when the manager goes or comes.
    if (previous[0] == '\0' && next[0] != '\0') {
        mAudioManagerServiceAvailStatus.store(true, relaxed);
        scope.sendFormattedMessage("\n[CBR onNotifyAudioManagerAvailability] : Service Available \n");
    } else if (previous[0] != '\0' && next[0] == '\0') {
        mAudioManagerServiceAvailStatus.store(false, relaxed);
        scope.sendFormattedMessage("\n[CBR onNotifyAudioManagerAvailability] : Service Not Available \n");
    }
}
