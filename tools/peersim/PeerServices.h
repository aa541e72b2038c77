// PeerServices: what the seven head-unit services answer and report, without the bus.
//
// onCall() decides the answer to one method call: a reply text, an error reply or nothing, after
// how long, followed by which signals. apply() carries out a user's command: it changes the state
// the peers report and returns the signals that announce it. The bus side (PeerBus) sends what
// these return; keeping them apart lets the behaviour be tested without a bus.
//
// Behaviour of each peer towards its client:
//   AudioManager: "addInterruptSrc" {"source":S,...} -> {"action":"added"|"not added","source":S},
//     "removeInterruptSrc" {"source":S} -> {"action":"removed"|"not removed","source":S}; an
//     accepted add or remove is followed by the signal "interruptSrc" {"action":..,"source":S}
//     (a refused one by nothing). Removing a source that is not held is answered "removed" as
//     well: the end state is the same. "getProperties" {"props":[..]} answers "voxDetectedState"
//     and "audioRoutingStatus"; "setDeviceState" {"device":"MIC","state":..,"user":"driver"}
//     switches MIC_D (with "user" "driver") or MIC_P (without) and answers both.
//   PersistentKeyValue: "read" {"key":K} -> {"res":<value>}, {"res":[]} for a key it does not
//     hold; "write" {K:<value>,...} stores every member and answers {"code":0,...}.
//   TextToSpeechService: "ttsReadout" {"data":text,..} -> {"code":0,"description":"success"}
//     (or the result set with tts-result) after 1500 ms unless another delay is set.
//   DiagnosticService: "reqGetDiagInspectionModeStatus" -> {"code":0,"description":"success"}.
//   ModeManager: "getProperties" {"props":["rearControllerState"]} ->
//     {"rearControllerState":{"state":..}}.
//   MERIDOOnOff: "getPowerMode" is answered by the signal "powerMode" {"value":n} (and by the
//     same object as a reply when the caller waits for one).
//   CAN_HMI: signals only.
// Start state: no VOX, routing "communication" with the rider's headset "checked" and the
// passenger's "unchecked", speech available, inspection status 0, rear controller "ON", power mode
// 3, both microphones "OFF", every add and remove accepted.
//
// Answer modes (per service, or per method of it; a method's own setting wins): NORMAL; FAIL does
// nothing and answers with an error; MALFORMED does the work but replies with a text that is not
// JSON; SILENT does nothing and never answers. A call of a method a peer does not have is answered
// with org.freedesktop.DBus.Error.UnknownMethod, one whose argument is not what the method needs
// with org.freedesktop.DBus.Error.InvalidArgs.
//
// Thread safety: every member function may be called from any thread.
#ifndef PEERSERVICES_H
#define PEERSERVICES_H

#include "KeyValueFile.h"
#include "PeerCommand.h"
#include "PeerNames.h"

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct PeerSignal
{
    Peer peer;
    std::string name;
    std::string payload;
};

struct PeerAnswer
{
    enum Kind { REPLY, ERROR, NONE };
    Kind kind = NONE;
    std::string text;       // REPLY
    std::string errorName;  // ERROR
    std::string errorMessage;
    long delayMs = 0;                 // before the answer and the signals
    std::vector<PeerSignal> signals;  // after the answer (also when there is none)
    std::string speak;                // a read-out text to be spoken
};

struct PeerOutcome
{
    bool ok = true;       // false: the command was refused; `message` says why
    std::string message;  // for the user; may be empty
    std::vector<PeerSignal> signals;
};

class PeerServices
{
public:
    explicit PeerServices(const std::string& keyValuePath);

    // Reads the key-value file; false (with the reason) when it had to start empty.
    bool loadStore(std::string& error);

    PeerAnswer onCall(Peer peer, const std::string& method, const std::string& params);

    // Handles the kinds EMIT, ANSWER, DELAY, VOX to KV_LIST and STATUS; other kinds are refused.
    PeerOutcome apply(const PeerCommand& command);

    std::string describe() const;

private:
    typedef std::pair<Peer, std::string> MethodKey;  // method "" = every method of the peer

    PeerAnswer perform(Peer peer, const std::string& method, const std::string& params);
    PeerAnswer audioManager(const std::string& method, const Json::Value& args);
    PeerAnswer keyValue(const std::string& method, const Json::Value& args);
    // The commands apply() hands on, one each.
    void emit(const PeerCommand& c, PeerOutcome& out);
    void setAnswerMode(const PeerCommand& c, PeerOutcome& out);
    void setDelay(const PeerCommand& c, PeerOutcome& out);
    void setRouting(const PeerCommand& c, PeerOutcome& out);
    void interrupt(const PeerCommand& c, PeerOutcome& out);
    void setRefusals(const PeerCommand& c, PeerOutcome& out);
    void setInterruptSignal(const PeerCommand& c, PeerOutcome& out);
    void setReply(const PeerCommand& c, PeerOutcome& out);
    void setRear(const PeerCommand& c, PeerOutcome& out);
    void keyValueCommand(const PeerCommand& c, PeerOutcome& out);
    std::string answerSettings() const;

    mutable std::mutex mMutex;
    KeyValueFile mStore;
    std::map<MethodKey, AnswerMode> mModes;
    std::map<MethodKey, std::string> mModeTexts;  // FAIL: name + '\n' + message; MALFORMED: text
    std::map<MethodKey, long> mDelays;

    long mVox = 0;
    std::string mHeadsetD = "checked";
    std::string mHeadsetP = "unchecked";
    std::string mRoutingSource = "communication";
    std::set<std::string> mHeldSources;
    bool mRefuseAdd = false;
    bool mRefuseRemove = false;
    bool mInterruptSignal = true;
    std::string mMicD = "OFF";
    std::string mMicP = "OFF";
    long mTtsAvailable = 1;
    long mTtsCode = 0;
    std::string mTtsDescription = "success";
    long mDiagStatus = 0;
    long mDiagCode = 0;
    std::string mDiagDescription = "success";
    std::string mRear = "ON";
    long mPowerMode = 3;
    long mRider = 0;
    long mPassenger = 0;
};

#endif
