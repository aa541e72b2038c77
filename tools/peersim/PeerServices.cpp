#include "PeerServices.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <sstream>

namespace
{
const char* const kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
const char* const kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

std::string compact(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

bool parseJson(const std::string& text, Json::Value& value)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string why;
    return reader->parse(text.data(), text.data() + text.size(), &value, &why);
}

Json::Value number(long n)
{
    return Json::Value(static_cast<Json::Int64>(n));
}

PeerAnswer reply(const Json::Value& value)
{
    PeerAnswer a;
    a.kind = PeerAnswer::REPLY;
    a.text = compact(value);
    return a;
}

PeerAnswer failure(const char* name, const std::string& message)
{
    PeerAnswer a;
    a.kind = PeerAnswer::ERROR;
    a.errorName = name;
    a.errorMessage = message;
    return a;
}

Json::Value codeAndDescription(long code, const std::string& description)
{
    Json::Value v(Json::objectValue);
    v["code"] = number(code);
    v["description"] = description;
    return v;
}

PeerSignal signal(Peer peer, const char* name, const Json::Value& payload)
{
    return PeerSignal{peer, name, compact(payload)};
}

PeerSignal oneMember(Peer peer, const char* name, const char* member, const Json::Value& value)
{
    Json::Value payload(Json::objectValue);
    payload[member] = value;
    return signal(peer, name, payload);
}

bool hasMethod(Peer peer, const std::string& m)
{
    switch (peer) {
    case Peer::AudioManager:
        return m == "addInterruptSrc" || m == "removeInterruptSrc" || m == "getProperties" || m == "setDeviceState";
    case Peer::PersistentKeyValue:
        return m == "read" || m == "write";
    case Peer::TextToSpeechService:
        return m == "ttsReadout";
    case Peer::DiagnosticService:
        return m == "reqGetDiagInspectionModeStatus";
    case Peer::ModeManager:
        return m == "getProperties";
    case Peer::MERIDOOnOff:
        return m == "getPowerMode";
    case Peer::CAN_HMI:
        return false;
    }
    return false;
}

// The "props" list of a getProperties call; false when there is none.
bool properties(const Json::Value& args, std::vector<std::string>& names)
{
    if (!args.isObject() || !args["props"].isArray())
        return false;
    for (const Json::Value& p : args["props"])
        if (p.isString())
            names.push_back(p.asString());
    return true;
}

const char* modeWord(AnswerMode mode)
{
    switch (mode) {
    case AnswerMode::NORMAL:
        return "normal";
    case AnswerMode::FAIL:
        return "error reply";
    case AnswerMode::MALFORMED:
        return "malformed reply";
    case AnswerMode::SILENT:
        return "no answer";
    }
    return "?";
}

// A setting for every method of a peer replaces the peer's per-method ones.
template <typename Map>
void clearPeer(Map& map, Peer peer)
{
    for (auto it = map.begin(); it != map.end();)
        it = it->first.first == peer ? map.erase(it) : std::next(it);
}

template <typename Map, typename Value>
bool lookup(const Map& map, Peer peer, const std::string& method, Value& value)
{
    auto it = map.find(std::make_pair(peer, method));
    if (it == map.end())
        it = map.find(std::make_pair(peer, std::string()));
    if (it == map.end())
        return false;
    value = it->second;
    return true;
}
}

PeerServices::PeerServices(const std::string& keyValuePath) : mStore(keyValuePath)
{
    mDelays[MethodKey(Peer::TextToSpeechService, "ttsReadout")] = 1500;
}

bool PeerServices::loadStore(std::string& error)
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mStore.load(error);
}

PeerAnswer PeerServices::onCall(Peer peer, const std::string& method, const std::string& params)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!hasMethod(peer, method))
        return failure(kUnknownMethod, std::string(peerName(peer)) + " has no method '" + method + "'");
    AnswerMode mode = AnswerMode::NORMAL;
    lookup(mModes, peer, method, mode);
    std::string modeText;
    lookup(mModeTexts, peer, method, modeText);
    PeerAnswer answer;
    if (mode == AnswerMode::FAIL) {
        size_t cut = modeText.find('\n');
        answer.kind = PeerAnswer::ERROR;
        answer.errorName = modeText.substr(0, cut);
        answer.errorMessage = cut == std::string::npos ? std::string() : modeText.substr(cut + 1);
        if (answer.errorMessage.empty())
            answer.errorMessage = std::string(peerName(peer)) + " failed " + method;
    } else if (mode == AnswerMode::NORMAL || mode == AnswerMode::MALFORMED) {
        answer = perform(peer, method, params);
        if (mode == AnswerMode::MALFORMED && answer.kind == PeerAnswer::REPLY)
            answer.text = modeText;
    }
    lookup(mDelays, peer, method, answer.delayMs);
    return answer;
}

PeerAnswer PeerServices::perform(Peer peer, const std::string& method, const std::string& params)
{
    Json::Value args;
    const bool json = parseJson(params, args);
    switch (peer) {
    case Peer::AudioManager:
        if (!json || !args.isObject())
            return failure(kInvalidArgs, method + " needs a JSON object");
        return audioManager(method, args);
    case Peer::PersistentKeyValue:
        if (!json || !args.isObject())
            return failure(kInvalidArgs, method + " needs a JSON object");
        return keyValue(method, args);
    case Peer::TextToSpeechService: {
        if (!json || !args.isObject() || !args["data"].isString())
            return failure(kInvalidArgs, "ttsReadout needs {\"data\":text,...}");
        PeerAnswer a = reply(codeAndDescription(mTtsCode, mTtsDescription));
        if (mTtsCode == 0)
            a.speak = args["data"].asString();
        return a;
    }
    case Peer::DiagnosticService:
        return reply(codeAndDescription(mDiagCode, mDiagDescription));
    case Peer::ModeManager: {
        std::vector<std::string> names;
        if (!json || !properties(args, names))
            return failure(kInvalidArgs, "getProperties needs {\"props\":[...]}");
        Json::Value result(Json::objectValue);
        for (const std::string& n : names)
            if (n == "rearControllerState")
                result[n]["state"] = mRear;
        return reply(result);
    }
    case Peer::MERIDOOnOff: {
        Json::Value value(Json::objectValue);
        value["value"] = number(mPowerMode);
        PeerAnswer a = reply(value);
        a.signals.push_back(signal(Peer::MERIDOOnOff, "powerMode", value));
        return a;
    }
    case Peer::CAN_HMI:
        break;
    }
    return failure(kUnknownMethod, method);
}

PeerAnswer PeerServices::audioManager(const std::string& method, const Json::Value& args)
{
    if (method == "addInterruptSrc" || method == "removeInterruptSrc") {
        if (!args["source"].isString())
            return failure(kInvalidArgs, method + " needs {\"source\":text}");
        const std::string source = args["source"].asString();
        const bool add = method == "addInterruptSrc";
        const bool refused = add ? mRefuseAdd : mRefuseRemove;
        Json::Value result(Json::objectValue);
        result["action"] = refused ? (add ? "not added" : "not removed") : (add ? "added" : "removed");
        result["source"] = source;
        PeerAnswer a = reply(result);
        if (!refused) {
            if (add)
                mHeldSources.insert(source);
            else
                mHeldSources.erase(source);
            if (mInterruptSignal)
                a.signals.push_back(signal(Peer::AudioManager, "interruptSrc", result));
        }
        return a;
    }
    if (method == "getProperties") {
        std::vector<std::string> names;
        if (!properties(args, names))
            return failure(kInvalidArgs, "getProperties needs {\"props\":[...]}");
        Json::Value result(Json::objectValue);
        for (const std::string& n : names) {
            if (n == "voxDetectedState") {
                result[n]["state"] = number(mVox);
            } else if (n == "audioRoutingStatus") {
                result[n]["source"] = mRoutingSource;
                result[n]["headset_d"] = mHeadsetD;
                result[n]["headset_p"] = mHeadsetP;
            }
        }
        return reply(result);
    }
    // setDeviceState
    if (!args["device"].isString() || args["device"].asString() != "MIC" || !args["state"].isString())
        return failure(kInvalidArgs, "setDeviceState needs {\"device\":\"MIC\",\"state\":text}");
    (args["user"].isString() && args["user"].asString() == "driver" ? mMicD : mMicP) = args["state"].asString();
    Json::Value result(Json::objectValue);
    result["MIC_D"] = mMicD;
    result["MIC_P"] = mMicP;
    return reply(result);
}

PeerAnswer PeerServices::keyValue(const std::string& method, const Json::Value& args)
{
    if (method == "read") {
        if (!args["key"].isString())
            return failure(kInvalidArgs, "read needs {\"key\":text}");
        Json::Value result(Json::objectValue);
        if (!mStore.get(args["key"].asString(), result["res"]))
            result["res"] = Json::Value(Json::arrayValue);
        return reply(result);
    }
    std::string error;
    for (const std::string& key : args.getMemberNames())
        if (!mStore.set(key, args[key], error))
            return reply(codeAndDescription(1, error));
    return reply(codeAndDescription(0, "success"));
}

PeerOutcome PeerServices::apply(const PeerCommand& c)
{
    typedef void (PeerServices::*Handler)(const PeerCommand&, PeerOutcome&);
    static const struct
    {
        PeerCommand::Kind kind;
        Handler handle;
    } kHandlers[] = {
        {PeerCommand::EMIT, &PeerServices::emit},
        {PeerCommand::ANSWER, &PeerServices::setAnswerMode},
        {PeerCommand::DELAY, &PeerServices::setDelay},
        {PeerCommand::ROUTING, &PeerServices::setRouting},
        {PeerCommand::INTERRUPT, &PeerServices::interrupt},
        {PeerCommand::REFUSE, &PeerServices::setRefusals},
        {PeerCommand::ACCEPT, &PeerServices::setRefusals},
        {PeerCommand::INTERRUPT_SIGNAL, &PeerServices::setInterruptSignal},
        {PeerCommand::TTS_RESULT, &PeerServices::setReply},
        {PeerCommand::DIAG_REPLY, &PeerServices::setReply},
        {PeerCommand::REAR, &PeerServices::setRear},
        {PeerCommand::KV_SET, &PeerServices::keyValueCommand},
        {PeerCommand::KV_GET, &PeerServices::keyValueCommand},
        {PeerCommand::KV_DEL, &PeerServices::keyValueCommand},
        {PeerCommand::KV_LIST, &PeerServices::keyValueCommand},
    };
    // Commands that set one number of a peer's state and announce it in a one-member signal.
    static const struct
    {
        PeerCommand::Kind kind;
        long PeerServices::*state;
        Peer peer;
        const char* signal;
        const char* member;
    } kStateSignals[] = {
        {PeerCommand::VOX, &PeerServices::mVox, Peer::AudioManager, "voxDetectedState", "state"},
        {PeerCommand::TTS_AVAILABLE, &PeerServices::mTtsAvailable, Peer::TextToSpeechService, "ttsAvailable", "state"},
        {PeerCommand::DIAG, &PeerServices::mDiagStatus, Peer::DiagnosticService, "diagInspectionModeStatus", "status"},
        {PeerCommand::POWER, &PeerServices::mPowerMode, Peer::MERIDOOnOff, "powerMode", "value"},
        {PeerCommand::RIDER, &PeerServices::mRider, Peer::CAN_HMI, "function_sw_9", "Value"},
        {PeerCommand::PASSENGER, &PeerServices::mPassenger, Peer::CAN_HMI, "function_sw_15", "Value"},
    };

    std::lock_guard<std::mutex> lock(mMutex);
    PeerOutcome out;
    for (const auto& h : kHandlers)
        if (h.kind == c.kind) {
            (this->*h.handle)(c, out);
            return out;
        }
    for (const auto& s : kStateSignals)
        if (s.kind == c.kind) {
            this->*s.state = c.number;
            out.signals.push_back(oneMember(s.peer, s.signal, s.member, number(c.number)));
            return out;
        }
    out.ok = false;
    out.message = "not a service command";
    return out;
}

void PeerServices::emit(const PeerCommand& c, PeerOutcome& out)
{
    out.signals.push_back(PeerSignal{c.peers.at(0), c.name, c.text});
}

void PeerServices::setAnswerMode(const PeerCommand& c, PeerOutcome& out)
{
    for (Peer p : c.peers) {
        if (c.method.empty()) {
            clearPeer(mModes, p);
            clearPeer(mModeTexts, p);
        }
        MethodKey key(p, c.method);
        mModes[key] = c.mode;
        mModeTexts[key] = c.mode == AnswerMode::FAIL ? c.name + "\n" + c.text : c.text;
    }
    out.message = answerSettings();
}

void PeerServices::setDelay(const PeerCommand& c, PeerOutcome& out)
{
    for (Peer p : c.peers) {
        if (c.method.empty())
            clearPeer(mDelays, p);
        mDelays[MethodKey(p, c.method)] = c.number;
    }
    out.message = answerSettings();
}

void PeerServices::setRouting(const PeerCommand& c, PeerOutcome& out)
{
    mHeadsetD = c.headsetD;
    mHeadsetP = c.headsetP;
    mRoutingSource = c.source;
    Json::Value routing(Json::objectValue);
    routing["source"] = c.source;
    routing["headset_d"] = c.headsetD;
    routing["headset_p"] = c.headsetP;
    out.signals.push_back(oneMember(Peer::AudioManager, "audioRoutingStatus", "audioRoutingStatus", routing));
}

void PeerServices::interrupt(const PeerCommand& c, PeerOutcome& out)
{
    if (c.name == "added")
        mHeldSources.insert(c.text);
    else if (c.name == "removed")
        mHeldSources.erase(c.text);
    Json::Value payload(Json::objectValue);
    payload["action"] = c.name;
    payload["source"] = c.text;
    out.signals.push_back(signal(Peer::AudioManager, "interruptSrc", payload));
}

void PeerServices::setRefusals(const PeerCommand& c, PeerOutcome& out)
{
    const bool refuse = c.kind == PeerCommand::REFUSE;
    if (c.name != "remove")
        mRefuseAdd = refuse;
    if (c.name != "add")
        mRefuseRemove = refuse;
    out.message = std::string("AudioManager: add ") + (mRefuseAdd ? "refused" : "accepted") + ", remove " +
                  (mRefuseRemove ? "refused" : "accepted");
}

void PeerServices::setInterruptSignal(const PeerCommand& c, PeerOutcome& out)
{
    mInterruptSignal = c.flag;
    out.message = std::string("AudioManager: interruptSrc after add/remove ") + (c.flag ? "on" : "off");
}

// The code and description a read-out or an inspection mode query is answered with.
void PeerServices::setReply(const PeerCommand& c, PeerOutcome& out)
{
    const bool tts = c.kind == PeerCommand::TTS_RESULT;
    (tts ? mTtsCode : mDiagCode) = c.number;
    (tts ? mTtsDescription : mDiagDescription) = c.text;
    out.message = std::string(tts ? "TextToSpeechService: ttsReadout answers "
                                  : "DiagnosticService: reqGetDiagInspectionModeStatus answers ") +
                  compact(codeAndDescription(c.number, c.text));
}

void PeerServices::setRear(const PeerCommand& c, PeerOutcome& out)
{
    mRear = c.name;
    out.signals.push_back(oneMember(Peer::ModeManager, "rearControllerState", "state", c.name));
}

void PeerServices::keyValueCommand(const PeerCommand& c, PeerOutcome& out)
{
    std::string error;
    Json::Value value;
    switch (c.kind) {
    case PeerCommand::KV_SET:
        if (!parseJson(c.text, value)) {
            out.ok = false;
            out.message = "kv set: the value is not JSON";
        } else if (!mStore.set(c.name, value, error)) {
            out.ok = false;
            out.message = error;
        } else {
            out.message = c.name + " = " + compact(value);
        }
        break;
    case PeerCommand::KV_GET:
        out.message = mStore.get(c.name, value) ? c.name + " = " + compact(value) : c.name + " is not stored";
        break;
    case PeerCommand::KV_DEL:
        out.ok = mStore.remove(c.name, error);
        out.message = out.ok ? c.name + " removed" : error;
        break;
    default: {
        std::ostringstream text;
        text << mStore.keys().size() << " keys in " << (mStore.path().empty() ? "memory" : mStore.path());
        for (const std::string& key : mStore.keys()) {
            mStore.get(key, value);
            text << "\n  " << key << " = " << compact(value);
        }
        out.message = text.str();
        break;
    }
    }
}

std::string PeerServices::answerSettings() const
{
    std::ostringstream text;
    text << "answers:";
    bool any = false;
    for (const auto& m : mModes) {
        if (m.second == AnswerMode::NORMAL && m.first.second.empty())
            continue;
        text << " " << peerName(m.first.first) << "." << (m.first.second.empty() ? "*" : m.first.second) << " "
             << modeWord(m.second) << ";";
        any = true;
    }
    for (const auto& d : mDelays) {
        if (d.second == 0 && d.first.second.empty())
            continue;
        text << " " << peerName(d.first.first) << "." << (d.first.second.empty() ? "*" : d.first.second) << " after "
             << d.second << " ms;";
        any = true;
    }
    if (!any)
        text << " all normal, no delays";
    return text.str();
}

std::string PeerServices::describe() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::ostringstream text;
    text << "AudioManager: vox " << mVox << ", routing " << mRoutingSource << " headset_d " << mHeadsetD
         << " headset_p " << mHeadsetP << ", held";
    if (mHeldSources.empty())
        text << " none";
    for (const std::string& s : mHeldSources)
        text << " " << s;
    text << ", add " << (mRefuseAdd ? "refused" : "accepted") << ", remove " << (mRefuseRemove ? "refused" : "accepted")
         << ", interruptSrc after add/remove " << (mInterruptSignal ? "on" : "off") << ", MIC_D " << mMicD << " MIC_P "
         << mMicP << "\n"
         << "PersistentKeyValue: " << mStore.keys().size() << " keys in "
         << (mStore.path().empty() ? "memory" : mStore.path()) << "\n"
         << "TextToSpeechService: available " << mTtsAvailable << ", answers "
         << compact(codeAndDescription(mTtsCode, mTtsDescription)) << "\n"
         << "DiagnosticService: status " << mDiagStatus << ", answers "
         << compact(codeAndDescription(mDiagCode, mDiagDescription)) << "\n"
         << "ModeManager: rear controller " << mRear << "\n"
         << "MERIDOOnOff: power mode " << mPowerMode << "\n"
         << "CAN_HMI: rider " << mRider << ", passenger " << mPassenger << "\n"
         << answerSettings();
    return text.str();
}
