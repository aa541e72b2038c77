#include "PeerCommand.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <strings.h>

namespace
{
const char* const kBlanks = " \t\r\n";

// Walks a line word by word; rest() hands out the unread part as it stands.
class Cursor
{
public:
    explicit Cursor(const std::string& line) : mLine(line) {}

    // The next word, or "" at the end of the command (end of line or a word starting with '#').
    std::string word()
    {
        skipBlanks();
        if (mPos >= mLine.size() || mLine[mPos] == '#')
            return std::string();
        size_t end = mLine.find_first_of(kBlanks, mPos);
        if (end == std::string::npos)
            end = mLine.size();
        std::string w = mLine.substr(mPos, end - mPos);
        mPos = end;
        return w;
    }

    bool atEnd()
    {
        skipBlanks();
        return mPos >= mLine.size() || mLine[mPos] == '#';
    }

    // Everything not read yet, without the blanks around it; '#' is not a comment here.
    std::string rest()
    {
        skipBlanks();
        size_t end = mLine.find_last_not_of(kBlanks);
        if (mPos >= mLine.size() || end == std::string::npos || end < mPos)
            return std::string();
        std::string r = mLine.substr(mPos, end + 1 - mPos);
        mPos = mLine.size();
        return r;
    }

private:
    void skipBlanks()
    {
        size_t p = mLine.find_first_not_of(kBlanks, mPos);
        mPos = p == std::string::npos ? mLine.size() : p;
    }

    const std::string& mLine;
    size_t mPos = 0;
};

PeerCommand error(const std::string& why)
{
    PeerCommand c;
    c.kind = PeerCommand::ERROR;
    c.text = why;
    return c;
}

bool same(const std::string& a, const char* b)
{
    return strcasecmp(a.c_str(), b) == 0;
}

// Decimal or 0x-hexadecimal, optionally signed, within 32 bits.
bool toNumber(const std::string& word, long& value)
{
    if (word.empty())
        return false;
    const char* begin = word.c_str();
    char* end = nullptr;
    errno = 0;
    long long v = std::strtoll(begin, &end, 0);
    if (errno != 0 || end == begin || *end != '\0' || v < -2147483648LL || v > 4294967295LL)
        return false;
    value = static_cast<long>(v);
    return true;
}

bool toMilliseconds(const std::string& word, long& ms)
{
    return toNumber(word, ms) && ms >= 0 && ms <= 24L * 3600 * 1000;
}

// A bus member name: letters, digits and '_', not starting with a digit, at most 255 long.
bool isMemberName(const std::string& name)
{
    if (name.empty() || name.size() > 255 || (name[0] >= '0' && name[0] <= '9'))
        return false;
    for (char ch : name)
        if (!((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_'))
            return false;
    return true;
}

// A bus error name: two or more member names joined by '.'.
bool isErrorName(const std::string& name)
{
    if (name.size() > 255)
        return false;
    size_t start = 0, parts = 0;
    for (;;) {
        size_t dot = name.find('.', start);
        if (!isMemberName(name.substr(start, dot == std::string::npos ? std::string::npos : dot - start)))
            return false;
        ++parts;
        if (dot == std::string::npos)
            return parts >= 2;
        start = dot + 1;
    }
}

// PEER or "all"/"*" into c.peers.
bool takePeers(Cursor& in, PeerCommand& c, bool allowAll, std::string& why)
{
    std::string w = in.word();
    if (w.empty()) {
        why = "missing service name";
        return false;
    }
    if (w == "*" || same(w, "all")) {
        if (!allowAll) {
            why = "name one service, not all";
            return false;
        }
        for (int i = 0; i < kPeerCount; ++i)
            c.peers.push_back(peerAt(i));
        return true;
    }
    Peer p;
    if (!findPeer(w, p)) {
        why = "unknown service '" + w + "'";
        return false;
    }
    c.peers.push_back(p);
    return true;
}

// An optional METHOD or '*' ("" = every method).
bool takeMethod(const std::string& w, PeerCommand& c, std::string& why)
{
    if (w.empty() || w == "*")
        return true;
    if (!isMemberName(w)) {
        why = "bad method name '" + w + "'";
        return false;
    }
    c.method = w;
    return true;
}

PeerCommand parseAnswer(Cursor& in, AnswerMode mode)
{
    PeerCommand c;
    c.kind = PeerCommand::ANSWER;
    c.mode = mode;
    std::string why;
    if (!takePeers(in, c, true, why) || !takeMethod(in.word(), c, why))
        return error(why);
    if (mode == AnswerMode::FAIL) {
        c.name = in.word();
        if (c.name.empty())
            c.name = "org.freedesktop.DBus.Error.Failed";
        else if (!isErrorName(c.name))
            return error("bad error name '" + c.name + "' (like org.example.Error.Name)");
        c.text = in.rest();
    } else if (mode == AnswerMode::MALFORMED) {
        c.text = in.rest();
        if (c.text.empty())
            c.text = "{\"broken\":";
    }
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand parseDelay(Cursor& in)
{
    PeerCommand c;
    c.kind = PeerCommand::DELAY;
    std::string why;
    if (!takePeers(in, c, true, why))
        return error(why);
    std::string a = in.word(), b = in.word();
    if (!b.empty() && !takeMethod(a, c, why))
        return error(why);
    if (!toMilliseconds(b.empty() ? a : b, c.number))
        return error("delay needs milliseconds (0 to 86400000)");
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand parseBusPresence(Cursor& in, PeerCommand::Kind kind)
{
    PeerCommand c;
    c.kind = kind;
    std::string why;
    if (!takePeers(in, c, true, why))
        return error(why);
    if (kind == PeerCommand::BOUNCE) {
        c.number = 1000;
        std::string w = in.word();
        if (!w.empty() && !toMilliseconds(w, c.number))
            return error("bounce pause must be milliseconds");
    }
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand parseEmit(Cursor& in)
{
    PeerCommand c;
    c.kind = PeerCommand::EMIT;
    std::string why;
    if (!takePeers(in, c, false, why))
        return error(why);
    c.name = in.word();
    if (!isMemberName(c.name))
        return error(c.name.empty() ? "missing signal name" : "bad signal name '" + c.name + "'");
    c.text = in.rest();
    return c;
}

// A command taking one number (with optional named values such as "press").
PeerCommand parseValue(Cursor& in, PeerCommand::Kind kind, const char* what, long pressValue = -1)
{
    PeerCommand c;
    c.kind = kind;
    std::string w = in.word();
    if (pressValue >= 0 && same(w, "press"))
        c.number = pressValue;
    else if (pressValue >= 0 && same(w, "release"))
        c.number = 0;
    else if (!toNumber(w, c.number))
        return error(std::string(what) + " needs a number" + (pressValue >= 0 ? ", press or release" : ""));
    if (!in.atEnd())
        return error("too many words");
    return c;
}

// CODE [DESCRIPTION...]; without a description, "success" for 0 and "failure" otherwise.
PeerCommand parseResult(Cursor& in, PeerCommand::Kind kind)
{
    PeerCommand c;
    c.kind = kind;
    if (!toNumber(in.word(), c.number))
        return error("needs a result code");
    c.text = in.rest();
    if (c.text.empty())
        c.text = c.number == 0 ? "success" : "failure";
    return c;
}

PeerCommand parseRouting(Cursor& in)
{
    PeerCommand c;
    c.kind = PeerCommand::ROUTING;
    c.headsetD = in.word();
    c.headsetP = in.word();
    c.source = in.word();
    if (c.headsetP.empty())
        return error("routing needs HEADSET_D HEADSET_P [SOURCE]");
    if (c.source.empty())
        c.source = "communication";
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand parseTwoWords(Cursor& in, PeerCommand::Kind kind, const char* usage)
{
    PeerCommand c;
    c.kind = kind;
    c.name = in.word();
    c.text = in.word();
    if (c.text.empty() || !in.atEnd())
        return error(usage);
    return c;
}

PeerCommand parseRefuse(Cursor& in, PeerCommand::Kind kind)
{
    PeerCommand c;
    c.kind = kind;
    c.name = in.word();
    if (c.name.empty())
        c.name = "both";
    if (!(c.name == "add" || c.name == "remove" || c.name == "both") || !in.atEnd())
        return error(std::string(kind == PeerCommand::REFUSE ? "refuse" : "accept") + " add|remove|both");
    return c;
}

PeerCommand parseOnOff(Cursor& in, PeerCommand::Kind kind, const char* usage)
{
    PeerCommand c;
    c.kind = kind;
    std::string w = in.word();
    if (same(w, "on") || w == "1")
        c.flag = true;
    else if (!(same(w, "off") || w == "0"))
        return error(usage);
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand parseKeyValue(Cursor& in)
{
    PeerCommand c;
    std::string op = in.word();
    if (op == "list") {
        c.kind = PeerCommand::KV_LIST;
    } else if (op == "set" || op == "get" || op == "del") {
        c.kind = op == "set" ? PeerCommand::KV_SET : op == "get" ? PeerCommand::KV_GET : PeerCommand::KV_DEL;
        c.name = in.word();
        if (c.name.empty())
            return error("kv " + op + " needs a key");
        if (c.kind == PeerCommand::KV_SET) {
            c.text = in.rest();
            if (c.text.empty())
                return error("kv set needs a JSON value");
            return c;
        }
    } else {
        return error("kv set KEY JSON | kv get KEY | kv del KEY | kv list");
    }
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand parseSleep(Cursor& in, bool seconds)
{
    PeerCommand c;
    c.kind = PeerCommand::SLEEP;
    std::string w = in.word();
    if (seconds) {
        char* end = nullptr;
        double s = w.empty() ? -1 : std::strtod(w.c_str(), &end);
        if (w.empty() || *end != '\0' || !std::isfinite(s) || s < 0 || s > 86400)
            return error("sleep needs seconds (0 to 86400, fractions allowed)");
        c.number = std::lround(s * 1000);
    } else if (!toMilliseconds(w, c.number)) {
        return error("wait needs milliseconds");
    }
    if (!in.atEnd())
        return error("too many words");
    return c;
}

PeerCommand simple(Cursor& in, PeerCommand::Kind kind)
{
    if (!in.atEnd())
        return error("too many words");
    PeerCommand c;
    c.kind = kind;
    return c;
}
}

PeerCommand PeerCommand::parse(const std::string& line)
{
    Cursor in(line);
    const std::string verb = in.word();
    if (verb.empty())
        return PeerCommand();
    if (verb == "help" || verb == "?")
        return simple(in, HELP);
    if (verb == "quit" || verb == "exit")
        return simple(in, QUIT);
    if (verb == "status")
        return simple(in, STATUS);
    if (verb == "sleep")
        return parseSleep(in, true);
    if (verb == "wait")
        return parseSleep(in, false);
    if (verb == "emit")
        return parseEmit(in);
    if (verb == "normal")
        return parseAnswer(in, AnswerMode::NORMAL);
    if (verb == "fail")
        return parseAnswer(in, AnswerMode::FAIL);
    if (verb == "malformed")
        return parseAnswer(in, AnswerMode::MALFORMED);
    if (verb == "silent")
        return parseAnswer(in, AnswerMode::SILENT);
    if (verb == "delay")
        return parseDelay(in);
    if (verb == "leave")
        return parseBusPresence(in, LEAVE);
    if (verb == "join")
        return parseBusPresence(in, JOIN);
    if (verb == "bounce")
        return parseBusPresence(in, BOUNCE);
    if (verb == "vox")
        return parseValue(in, VOX, "vox");
    if (verb == "routing")
        return parseRouting(in);
    if (verb == "interrupt")
        return parseTwoWords(in, INTERRUPT, "interrupt ACTION SOURCE (e.g. interrupt added cbRX)");
    if (verb == "refuse")
        return parseRefuse(in, REFUSE);
    if (verb == "accept")
        return parseRefuse(in, ACCEPT);
    if (verb == "interrupt-signal")
        return parseOnOff(in, INTERRUPT_SIGNAL, "interrupt-signal on|off");
    if (verb == "tts-available")
        return parseValue(in, TTS_AVAILABLE, "tts-available");
    if (verb == "tts-result")
        return parseResult(in, TTS_RESULT);
    if (verb == "diag")
        return parseValue(in, DIAG, "diag");
    if (verb == "diag-reply")
        return parseResult(in, DIAG_REPLY);
    if (verb == "rear") {
        PeerCommand c;
        c.kind = REAR;
        c.name = in.word();
        if (c.name.empty() || !in.atEnd())
            return error("rear ON|OFF");
        return c;
    }
    if (verb == "power")
        return parseValue(in, POWER, "power");
    if (verb == "rider")
        return parseValue(in, RIDER, "rider", 2);
    if (verb == "passenger")
        return parseValue(in, PASSENGER, "passenger", 1);
    if (verb == "kv")
        return parseKeyValue(in);
    return error("unknown command '" + verb + "' (try help)");
}

const char* PeerCommand::helpText()
{
    return "Services: AudioManager (audio), PersistentKeyValue (kv), TextToSpeechService (tts),\n"
           "  DiagnosticService (diag), ModeManager (mode), MERIDOOnOff (power), CAN_HMI (can);\n"
           "  SVC is a name or alias in any case, or all/* where allowed. METHOD '*' or left out: every method.\n"
           "Signals with the state they report (the state also answers later queries):\n"
           "  vox N                          AudioManager voxDetectedState {\"state\":N}\n"
           "  routing D P [SOURCE]           AudioManager audioRoutingStatus (D, P: checked|unchecked;\n"
           "                                 SOURCE defaults to communication)\n"
           "  interrupt ACTION SOURCE        AudioManager interruptSrc {\"action\":..,\"source\":..}\n"
           "  tts-available N                TextToSpeechService ttsAvailable {\"state\":N}\n"
           "  diag N                         DiagnosticService diagInspectionModeStatus {\"status\":N}\n"
           "  rear STATE                     ModeManager rearControllerState {\"state\":STATE}\n"
           "  power N                        MERIDOOnOff powerMode {\"value\":N}\n"
           "  rider press|release|N          CAN_HMI function_sw_9 {\"Value\":N} (press 2, release 0)\n"
           "  passenger press|release|N      CAN_HMI function_sw_15 {\"Value\":N} (press 1, release 0)\n"
           "  emit SVC SIGNAL [PAYLOAD]      any signal with any payload text, as typed\n"
           "Answers:\n"
           "  refuse add|remove|both         AudioManager answers \"not added\" / \"not removed\"\n"
           "  accept add|remove|both         back to \"added\" / \"removed\"\n"
           "  interrupt-signal on|off        follow add/remove answers with interruptSrc (on)\n"
           "  tts-result CODE [DESCRIPTION]  what ttsReadout answers (0 success)\n"
           "  diag-reply CODE [DESCRIPTION]  what reqGetDiagInspectionModeStatus answers (0 success)\n"
           "  delay SVC|all [METHOD] MS      answer after MS ms (ttsReadout: 1500 by default)\n"
           "  fail SVC|all [METHOD [ERROR [MESSAGE]]]  error reply (org.freedesktop.DBus.Error.Failed)\n"
           "  malformed SVC|all [METHOD [TEXT]]        reply with a text that is not JSON\n"
           "  silent SVC|all [METHOD]        never answer\n"
           "  normal SVC|all [METHOD]        answer normally again\n"
           "Bus presence:\n"
           "  leave SVC|all                  release the bus name\n"
           "  join SVC|all                   request it again\n"
           "  bounce SVC|all [MS]            leave, wait MS (1000), join\n"
           "Key-value store:\n"
           "  kv set KEY JSON | kv get KEY | kv del KEY | kv list\n"
           "Other:\n"
           "  status                         every service's state and answer settings\n"
           "  sleep SEC | wait MS            pause (scripts)\n"
           "  help | quit\n";
}
