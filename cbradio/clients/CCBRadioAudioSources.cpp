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

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_setCBRxAudioSource("CBRadio_CCBRadio",
                                                                                  "setCBRxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_setCBTxAudioSource("CBRadio_CCBRadio",
                                                                                  "setCBTxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBRxAudioSource("CBRadio_CCBRadio",
                                                                                     "removeCBRxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBTxAudioSource("CBRadio_CCBRadio",
                                                                                     "removeCBTxAudioSource");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_setMicStatus("CBRadio_CCBRadio", "setMicStatus");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxAddInterruptSrc(
    "CBRadio_CCBRadio", "onCompletionCBRxAddInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxAddInterruptSrc(
    "CBRadio_CCBRadio", "onCompletionCBTxAddInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxRemoveInterruptSrc(
    "CBRadio_CCBRadio", "onCompletionCBRxRemoveInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxRemoveInterruptSrc(
    "CBRadio_CCBRadio", "onCompletionCBTxRemoveInterruptSrc");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionSetDeviceState("CBRadio_CCBRadio",
                                                                                          "onCompletionSetDeviceState");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_oninterruptSrcStateSignal("CBRadio_CCBRadio",
                                                                                         "oninterruptSrcStateSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onNotifyAudioManagerAvailability(
    "CBRadio_CCBRadio", "onNotifyAudioManagerAvailability");

std::atomic<unsigned char> CCBRadio::mCBRRxAudioSrcIntrStatus(CBR_RX_INT_NOT_REQUESTED);
std::atomic<unsigned char> CCBRadio::mCBRTxAudioSrcIntrStatus(CBR_TX_INT_NOT_REQUESTED);

using namespace CBRadioBusNames;

namespace
{
const unsigned int AUDIO_TIMEOUT_MS = 1000;
const int DRIVER = 1;
const int MIC_ON = 1;
const std::memory_order relaxed = std::memory_order_relaxed;

// The two sources differ only in their name, state byte, callbacks and the words of their
// trace lines, which the two sides grew apart and which are kept letter for letter.
// A null text means nothing is traced there.
struct AudioSource
{
    const char* name;
    std::atomic<unsigned char>& state;
    SVCIPC_tResultCallback onAdded;
    SVCIPC_tResultCallback onRemoved;
    // set...AudioSource
    const char* addInspection;
    const char* addAlreadyRequested;
    const char* addUnavailable;
    const char* addRequested;
    const char* addInvokeFailed;  // followed by the error code
    const char* addWithdrawn;
    // remove...AudioSource
    const char* removeInspection;
    const char* removeNotHeld;
    const char* removeUnavailable;
    const char* removeRequested;
    const char* removeInvokeFailed;  // followed by the error code
    // onCompletion...AddInterruptSrc
    const char* addedError;
    const char* addedParseError;
    const char* addedNotMember;
    const char* addedYes;
    const char* addedNo;
    // onCompletion...RemoveInterruptSrc
    const char* removedError;
    const char* removedParseError;
    const char* removedNotMember;
    const char* removedYes;
    const char* removedNo;
    // oninterruptSrcStateSignal
    const char* signalAdded;
    const char* signalRemoved;
};

const AudioSource RX = {
    "cbRX",
    CCBRadio::mCBRRxAudioSrcIntrStatus,
    &CCBRadio::onCompletionCBRxAddInterruptSrc,
    &CCBRadio::onCompletionCBRxRemoveInterruptSrc,
    "\n[CBR setCBRxAudioSource] : inspection mode\n",
    "\n[CBR setCBRxAudioSource] : CBRx already Requested\n",
    "\n[CBR setCBRxAudioSource] : AudioManager Service Not available\n",
    "\n[CBR setCBRxAudioSource] : CBR_RX_INT_REQUESTED\n",
    "[CBR setCBRxAudioSource] Failed to invoke on AudioManager service for addInterruptSrc: ",
    "\n[CBR setCBRxAudioSource] : CBR_RX_INT_NOT_REQUESTED\n",
    "\n[CBR removeCBRxAudioSource] Inspection mode\n",
    "[CBR removeCBRxAudioSource] already Requested\n",
    "[CBR removeCBRxAudioSource] AudioManager service Not Available\n",
    "\n[CBR removeCBRxAudioSource] Requested\n",
    "[CBR removeCBRxAudioSource] Failed to invoke on AudioManager service for removeInterruptSrc: ",
    "\n[CBR onCompletionCBRxAddInterruptSrc] : CBR_RX_INT_REQUEST_FAILURE \n",
    "\n[CBR onCompletionCBRxAddInterruptSrc] : error parsing \n",
    "\n[CBR onCompletionCBRxAddInterruptSrc] : Not a member \n",
    "\n[CBR onCompletionCBRxAddInterruptSrc]  : CBR_RX_INT_REQUEST_SUCCESS \n",
    "\n[CBR onCompletionCBRxAddInterruptSrc]  : CBR_RX_INT_NOT_REQUESTED \n",
    "\n[CB onCompletionCBRxRemoveInterruptSrc] : error \n",
    "\n[CBR onCompletionCBRxRemoveInterruptSrc] : error parsing \n",
    "\n[CBR onCompletionCBRxRemoveInterruptSrc] : failure \n",
    "\n[CBR onCompletionCBRxRemoveInterruptSrc]  : CBR_RX_INT_NOT_REQUESTED",
    "\n[CBR onCompletionCBRxRemoveInterruptSrc] : RX_NOT_REMOVED",
    "[CBR oninterruptSrcStateSignal] : CBR_RX_INT_REQUEST_SUCCESS",
    "[CBR oninterruptSrcStateSignal] : CBR_RX_INT_NOT_REQUESTED",
};

const AudioSource TX = {
    "cbTX",
    CCBRadio::mCBRTxAudioSrcIntrStatus,
    &CCBRadio::onCompletionCBTxAddInterruptSrc,
    &CCBRadio::onCompletionCBTxRemoveInterruptSrc,
    // The transmit side reports inspection mode with the receive side's words.
    "\n[CBR setCBRxAudioSource] : inspection mode\n",
    "[CBR setCBTxAudioSource] : CBTx already Requested\n",
    "[CBR setCBTxAudioSource] : AudioManager service Not Available\n",
    "[CBR setCBTxAudioSource] : CBR_TX_INT_REQUESTED\n",
    "[CBR setCBTxAudioSource] Failed to invoke on AudioManager service for addInterruptSrc: ",
    "[CBR setCBTxAudioSource] : CBR_TX_INT_NOT_REQUESTED\n",
    "\n[CBR removeCBTxAudioSource] Inspection mode\n",
    nullptr,  // nothing held, nothing to say: the V850 reports idle often
    "[CBR removeCBTxAudioSource] : AudioManager service Not Available\n",
    "\n[CBR removeCBTxAudioSource] : Requested\n",
    "[CBR removeCBTxAudioSource] : Failed to invoke on AudioManager service for removeInterruptSrc: ",
    "\n[CBR onCompletionCBTxAddInterruptSrc] : CBR_TX_INT_REQUEST_FAILURE \n",
    "\n[CBR onCompletionCBTxAddInterruptSrc] : error parsing \n",
    "\n[CBR onCompletionCBTxAddInterruptSrc] : Not a member \n",
    "\n[CBR onCompletionCBTxAddInterruptSrc] : CBR_TX_INT_REQUEST_SUCCESS \n",
    "\n[CBR onCompletionCBTxAddInterruptSrc] : CBR_TX_INT_NOT_REQUESTED = 0 \n",  // the state's value
    "\n[CBR onCompletionCBTxRemoveInterruptSrc] : error \n",
    "\n[CBR onCompletionCBTxRemoveInterruptSrc] : error parsing \n",
    "\n[CBR onCompletionCBTxRemoveInterruptSrc] : failure \n",
    "\n[CBR onCompletionCBTxRemoveInterruptSrc] : CBR_TX_INT_NOT_REQUESTED",
    "\n[CBR onCompletionCBTxRemoveInterruptSrc] : TX_NOT_REMOVED",
    "[CBR oninterruptSrcStateSignal] : CBR_TX_INT_REQUEST_SUCCESS",
    "[CBR oninterruptSrcStateSignal] : CBR_TX_INT_NOT_REQUESTED",
};

// The state values are the same for both directions.
static_assert(int(CBR_RX_INT_NOT_REQUESTED) == int(CBR_TX_INT_NOT_REQUESTED) &&
                  int(CBR_RX_INT_REQUESTED) == int(CBR_TX_INT_REQUESTED) &&
                  int(CBR_RX_INT_REQUEST_SUCCESS) == int(CBR_TX_INT_REQUEST_SUCCESS),
              "one set of states serves both sources");
const unsigned char NOT_REQUESTED = CBR_RX_INT_NOT_REQUESTED;
const unsigned char REQUESTED = CBR_RX_INT_REQUESTED;
const unsigned char HELD = CBR_RX_INT_REQUEST_SUCCESS;

void trace(const CJTTraceScope& scope, const char* text)
{
    if (text != nullptr)
        scope.sendFormattedMessage("%s", text);
}

const char* orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

unsigned int errorCode(SVCIPC_tError status)
{
    return SVCIPC_GET_CODE(status);
}

std::string sourceParams(const char* source, bool exclusive)
{
    Json::Value params(Json::objectValue);
    if (exclusive)
        params["exclusive"] = true;
    params["source"] = source;
    return CBRadioJson::write(params);
}

SVCIPC_tError invokeAudioManager(SVCIPC_tConnection connection, const char* method, const std::string& params,
                                 SVCIPC_tResultCallback onResult)
{
    return SVCIPC_asyncInvoke(connection, AUDIO_MANAGER_SERVICE, AUDIO_MANAGER_OBJECT, method, params.c_str(), 0,
                              AUDIO_TIMEOUT_MS, onResult, CLIENT_TOKEN);
}

bool gatesClosed(const CJTTraceScope& scope, const char* inspection, bool skip, const char* skipText,
                 const char* unavailable)
{
    if (CCBRadio::mHuInspectionMode.load(relaxed) != 0) {
        trace(scope, inspection);
        return true;
    }
    if (skip) {
        trace(scope, skipText);
        return true;
    }
    if (!CCBRadio::mAudioManagerServiceAvailStatus.load(relaxed)) {
        trace(scope, unavailable);
        return true;
    }
    return false;
}

void addSource(const CJTTraceScope& scope, SVCIPC_tConnection connection, const AudioSource& src)
{
    if (gatesClosed(scope, src.addInspection, src.state.load(relaxed) != NOT_REQUESTED, src.addAlreadyRequested,
                    src.addUnavailable))
        return;
    const std::string params = sourceParams(src.name, true);
    src.state.store(REQUESTED, relaxed);
    trace(scope, src.addRequested);
    const SVCIPC_tError status = invokeAudioManager(connection, "addInterruptSrc", params, src.onAdded);
    if (status < 0) {
        scope.sendFormattedMessage("%s0x%0X\n", src.addInvokeFailed, errorCode(status));
        src.state.store(NOT_REQUESTED, relaxed);
        trace(scope, src.addWithdrawn);
    }
}

void removeSource(const CJTTraceScope& scope, SVCIPC_tConnection connection, const AudioSource& src)
{
    if (gatesClosed(scope, src.removeInspection, src.state.load(relaxed) == NOT_REQUESTED, src.removeNotHeld,
                    src.removeUnavailable))
        return;
    // The state stays as it is until the answer or the audio manager's signal arrives.
    const SVCIPC_tError status = invokeAudioManager(connection, "removeInterruptSrc", sourceParams(src.name, false),
                                                    src.onRemoved);
    if (status >= 0)
        trace(scope, src.removeRequested);
    else
        scope.sendFormattedMessage("%s0x%0X\n", src.removeInvokeFailed, errorCode(status));
}

// The answer to an add or a remove: "added" holds the source, "removed" and the refusals
// return it to "not requested"; answers about the other source are ignored.
void onAnswer(const CJTTraceScope& scope, const SVCIPC_tCallbackStatus* status, const char* result,
              const AudioSource& src, bool add)
{
    Json::Value root;
    if (!CBRadioJson::replyObject(scope, status, result, root, add ? src.addedError : src.removedError,
                                  add ? src.addedParseError : src.removedParseError))
        return;
    std::string action, source;
    if (!CBRadioJson::readString(root, "action", action) || !CBRadioJson::readString(root, "source", source)) {
        trace(scope, add ? src.addedNotMember : src.removedNotMember);
        return;
    }
    if (source != src.name)
        return;
    if (action == (add ? "added" : "removed")) {
        src.state.store(add ? HELD : NOT_REQUESTED, relaxed);
        trace(scope, add ? src.addedYes : src.removedYes);
    } else if (action == (add ? "not added" : "not removed")) {
        src.state.store(NOT_REQUESTED, relaxed);
        trace(scope, add ? src.addedNo : src.removedNo);
    }
}
}

void CCBRadio::setCBRxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_setCBRxAudioSource);
    addSource(scope, mConnection, RX);
}

void CCBRadio::setCBTxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_setCBTxAudioSource);
    addSource(scope, mConnection, TX);
}

void CCBRadio::removeCBRxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBRxAudioSource);
    removeSource(scope, mConnection, RX);
}

void CCBRadio::removeCBTxAudioSource()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_removeCBTxAudioSource);
    removeSource(scope, mConnection, TX);
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
    onAnswer(scope, status, result, RX, true);
}

void CCBRadio::onCompletionCBTxAddInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                               SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxAddInterruptSrc);
    onAnswer(scope, status, result, TX, true);
}

void CCBRadio::onCompletionCBRxRemoveInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                  SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBRxRemoveInterruptSrc);
    onAnswer(scope, status, result, RX, false);
}

void CCBRadio::onCompletionCBTxRemoveInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                  SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionCBTxRemoveInterruptSrc);
    onAnswer(scope, status, result, TX, false);
}

void CCBRadio::onCompletionSetDeviceState(const SVCIPC_tCallbackStatus* status, const char* result, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionSetDeviceState);
    Json::Value root;
    if (!CBRadioJson::replyObject(scope, status, result, root, "\n[CBR onCompletionSetDeviceState] : error \n",
                                  "\n[CBR onCompletionSetDeviceState] : error parsing \n"))
        return;
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
    Json::Value root;
    if (!CBRadioJson::signalObject(scope, sigName, "interruptSrc", data, root,
                                   "[CBR oninterruptSrcStateSignal] : error",
                                   "[CBR oninterruptSrcStateSignal] : parse error"))
        return;
    const std::string action = CBRadioJson::stringOr(root, "action");
    const std::string source = CBRadioJson::stringOr(root, "source");
    const AudioSource* src = source == TX.name ? &TX : source == RX.name ? &RX : nullptr;
    if (src == nullptr)
        return;
    if (action == "added") {
        src->state.store(HELD, relaxed);
        trace(scope, src->signalAdded);
    } else if (action == "removed") {
        src->state.store(NOT_REQUESTED, relaxed);
        trace(scope, src->signalRemoved);
    }
    CCBRadio* radio = mpCBRadio;
    if (radio != nullptr)
        radio->sendCBRRxTxStatusSignal();
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
