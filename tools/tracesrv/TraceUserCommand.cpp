#include "TraceUserCommand.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

using namespace TraceProtocol;

namespace TraceUserCommand
{
namespace
{
using Await = TraceSession::Await;

Action error(const std::string& why)
{
    Action a;
    a.kind = Action::ERROR;
    a.text = why;
    return a;
}

Action action(Action::Kind kind)
{
    Action a;
    a.kind = kind;
    return a;
}

// Sets the reason and gives false, for the helpers that return a verdict.
bool refuse(std::string& why, const std::string& reason)
{
    why = reason;
    return false;
}

Action send(uint8_t code, uint32_t param, Await await = Await::NOTHING)
{
    Action a;
    a.kind = Action::SEND;
    a.commands.push_back(buildCommand(code, param));
    a.await = await;
    return a;
}

bool parseNumber(const std::string& s, long long lo, long long hi, long long& out)
{
    if (s.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 0);
    if (errno || *end || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

struct Named
{
    const char* name;
    uint8_t bits;
};
const Named kKinds[] = {{"err", 2},  {"enter", 4},  {"leave", 8}, {"wrn", 32},
                        {"msg", 64}, {"all", 0xFF}, {"none", 0},  {"off", 0}};
const Named kMedia[] = {{"server", 1}, {"kernel", 2}, {"slog", 4}, {"console", 8},
                        {"all", 0x0F}, {"none", 0},   {"off", 0}};

// A mask: a number (0x.. for hex) or names joined by '+', e.g. "err+wrn+msg".
bool parseMask(const std::string& s, const Named* table, size_t n, uint8_t& out)
{
    long long v;
    if (parseNumber(s, 0, 255, v)) {
        out = static_cast<uint8_t>(v);
        return true;
    }
    out = 0;
    size_t start = 0;
    while (start <= s.size()) {
        size_t plus = s.find('+', start);
        std::string word = s.substr(start, plus == std::string::npos ? std::string::npos : plus - start);
        bool found = false;
        for (size_t i = 0; i < n && !found; ++i)
            if (word == table[i].name) {
                out |= table[i].bits;
                found = true;
            }
        if (!found)
            return false;
        if (plus == std::string::npos)
            break;
        start = plus + 1;
    }
    return true;
}

struct Range
{
    uint32_t first, last;
};

// Contiguous runs of the scopes whose full name begins with prefix ("*" or "" for all).
std::vector<Range> rangesByName(const TraceSession& s, const std::string& prefix)
{
    std::vector<Range> out;
    bool all = prefix.empty() || prefix == "*";
    for (const auto& scope : s.scopes()) {
        if (!all && scope.second.compare(0, prefix.size(), prefix) != 0)
            continue;
        if (!out.empty() && out.back().last + 1 == scope.first)
            out.back().last = scope.first;
        else
            out.push_back({scope.first, scope.first});
    }
    return out;
}

// filter / media over a target: one command per single scope, range commands (at most 255
// scopes each) for runs.
Action setScopes(const std::vector<std::string>& w, TraceSession* s, bool media)
{
    if (w.size() != 3)
        return error(std::string("usage: ") + w[0] + " <index|first-last|name-prefix|*> <value>");
    uint8_t value;
    bool okMask = media ? parseMask(w[2], kMedia, sizeof kMedia / sizeof kMedia[0], value)
                        : parseMask(w[2], kKinds, sizeof kKinds / sizeof kKinds[0], value);
    if (!okMask)
        return error("bad value '" + w[2] + "'");
    std::vector<Range> ranges;
    long long a, b;
    size_t dash = w[1].find('-', 1);
    if (parseNumber(w[1], 0, 0xFFFF, a))
        ranges.push_back({static_cast<uint32_t>(a), static_cast<uint32_t>(a)});
    else if (dash != std::string::npos && parseNumber(w[1].substr(0, dash), 0, 0xFFFF, a) &&
             parseNumber(w[1].substr(dash + 1), 0, 0xFFFF, b)) {
        if (b < a)
            return error("empty range '" + w[1] + "'");
        ranges.push_back({static_cast<uint32_t>(a), static_cast<uint32_t>(b)});
    } else {
        if (!s->scopesKnown())
            return action(Action::NEEDS_SCOPES);
        ranges = rangesByName(*s, w[1]);
        if (ranges.empty())
            return error("no scope matches '" + w[1] + "'");
    }
    Action act;
    act.kind = Action::SEND;
    for (const Range& r : ranges) {
        if (r.first == r.last) {
            act.commands.push_back(buildCommand(media ? Cmd::SET_MEDIA : Cmd::SET_FILTER,
                                                scopeParam(static_cast<uint16_t>(r.first), value)));
            continue;
        }
        for (uint32_t first = r.first; first <= r.last; first += 255) {
            uint32_t n = r.last - first + 1 > 255 ? 255 : r.last - first + 1;
            act.commands.push_back(
                buildCommand(media ? Cmd::SET_MEDIA_RANGE : Cmd::SET_FILTER_RANGE,
                             rangeParam(static_cast<uint16_t>(first), static_cast<uint8_t>(n), value)));
        }
    }
    return act;
}

Bytes hexBytes(const std::string& s, bool& ok)
{
    Bytes out;
    ok = s.size() % 2 == 0;
    for (size_t i = 0; ok && i < s.size(); i += 2) {
        char pair[3] = {s[i], s[i + 1], 0};
        char* end = nullptr;
        long v = std::strtol(pair, &end, 16);
        ok = *end == 0 && std::strchr("0123456789abcdefABCDEF", pair[0]) &&
             std::strchr("0123456789abcdefABCDEF", pair[1]);
        out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

// One argument of the given parameter type into the call data; false with the reason.
bool addArgument(CallData& d, size_t i, uint8_t type, const std::string& arg, std::string& why)
{
    uint8_t p = static_cast<uint8_t>(i);
    long long v;
    bool ok = true;
    switch (type) {
    case TYPE_INT:
        if (!parseNumber(arg, INT32_MIN, UINT32_MAX, v))
            return refuse(why, "not an integer: '" + arg + "'");
        d.addInt(p, 0, static_cast<int32_t>(v));
        return true;
    case TYPE_STRING: {
        Bytes b(arg.begin(), arg.end());
        b.push_back(0);
        d.addBytes(p, 0, b);
        return true;
    }
    case TYPE_ARRAY: {
        Bytes b = arg.compare(0, 2, "0x") == 0 ? hexBytes(arg.substr(2), ok) : Bytes(arg.begin(), arg.end());
        if (!ok)
            return refuse(why, "not hex bytes: '" + arg + "'");
        d.addBytes(p, 0, b);
        return true;
    }
    default:
        return refuse(why, "parameter " + std::to_string(i) + " has a type the console cannot send");
    }
}

// The call data for the arguments w[2...]. A callback without declared parameters takes one
// integer, sent both as the default argument and as parameter 0.
bool callData(const TraceSession::Callback& cb, uint16_t index, uint16_t callId, const std::vector<std::string>& w,
              Bytes& data, std::string& why)
{
    size_t nargs = w.size() - 2;
    if (cb.paramTypes.empty()) {
        long long v = 0;
        if (nargs > 1)
            return refuse(why, "callback '" + cb.name + "' takes one integer");
        if (nargs == 1 && !parseNumber(w[2], INT32_MIN, UINT32_MAX, v))
            return refuse(why, "not an integer: '" + w[2] + "'");
        CallData d(index, callId, static_cast<int32_t>(v));
        d.addInt(0, 0, static_cast<int32_t>(v));
        data = d.bytes();
        return true;
    }
    if (nargs > cb.paramTypes.size())
        return refuse(why, "callback '" + cb.name + "' takes " + std::to_string(cb.paramTypes.size()) + " arguments");
    CallData d(index, callId, 0);
    for (size_t i = 0; i < nargs; ++i)
        if (!addArgument(d, i, cb.paramTypes[i], w[2 + i], why))
            return false;
    data = d.bytes();
    return true;
}

Action call(const std::vector<std::string>& w, TraceSession* s)
{
    if (w.size() < 2)
        return error("usage: call <index|name> [arguments...]");
    if (!s->callbacksKnown())
        return action(Action::NEEDS_CALLBACKS);
    const auto& cbs = s->callbacks();
    long long idx = -1;
    if (!parseNumber(w[1], 0, 0xFFFF, idx))
        for (size_t i = 0; i < cbs.size() && idx < 0; ++i)
            if (cbs[i].name == w[1])
                idx = static_cast<long long>(i);
    if (idx < 0 || static_cast<size_t>(idx) >= cbs.size())
        return error("no callback '" + w[1] + "'");
    Action act;
    act.callbackIndex = static_cast<uint16_t>(idx);
    act.callId = s->nextCallId();
    Bytes data;
    std::string why;
    if (!callData(cbs[act.callbackIndex], act.callbackIndex, act.callId, w, data, why))
        return error(why);
    act.kind = Action::SEND;
    act.commands.push_back(buildCommand(Cmd::CALL_CALLBACK, 0, data));
    act.await = Await::CALL;
    return act;
}

using Words = std::vector<std::string>;

// The console's commands. Those that need no process run without one; for the others a
// missing process means waiting for one.
struct Command
{
    const char* name;
    bool needsProcess;
    Action (*run)(const Words& w, TraceSession* s);
};
const Command kCommands[] = {
    {"help", false, [](const Words&, TraceSession*) { return action(Action::HELP); }},
    {"?", false, [](const Words&, TraceSession*) { return action(Action::HELP); }},
    {"quit", false, [](const Words&, TraceSession*) { return action(Action::QUIT); }},
    {"exit", false, [](const Words&, TraceSession*) { return action(Action::QUIT); }},
    {"processes", false, [](const Words&, TraceSession*) { return action(Action::PROCESSES); }},
    {"use", false,
     [](const Words& w, TraceSession*) {
         if (w.size() != 2)
             return error("usage: use <process>");
         Action a = action(Action::USE);
         a.text = w[1];
         return a;
     }},
    {"wait", false,
     [](const Words& w, TraceSession*) {
         long long ms;
         if (w.size() != 2 || !parseNumber(w[1], 0, 3600000, ms))
             return error("usage: wait <milliseconds>");
         Action a = action(Action::WAIT);
         a.waitMs = static_cast<unsigned>(ms);
         return a;
     }},
    {"info", true, [](const Words&, TraceSession*) { return send(Cmd::PROCESS_INFO, 0, Await::INFO); }},
    {"scopes", true, [](const Words&, TraceSession*) { return send(Cmd::LIST_SCOPES, 0, Await::SCOPES); }},
    {"filter", true, [](const Words& w, TraceSession* s) { return setScopes(w, s, false); }},
    {"media", true, [](const Words& w, TraceSession* s) { return setScopes(w, s, true); }},
    {"silent", true,
     [](const Words& w, TraceSession*) {
         if (w.size() != 2 || (w[1] != "on" && w[1] != "off"))
             return error("usage: silent on|off");
         return send(Cmd::SILENT, w[1] == "on" ? 1 : 0);
     }},
    {"store", true, [](const Words&, TraceSession*) { return send(Cmd::PERSISTENCE, 1); }},
    {"kill", true, [](const Words&, TraceSession*) { return send(Cmd::PERSISTENCE, 0); }},
    {"reload", true, [](const Words&, TraceSession*) { return send(Cmd::RELOAD_PERSISTENCE, 0); }},
    {"callbacks", true, [](const Words&, TraceSession*) { return send(Cmd::LIST_CALLBACKS, 0, Await::CALLBACKS); }},
    {"count", true, [](const Words&, TraceSession*) { return send(Cmd::CALLBACK_COUNT, 0, Await::CALLBACK_COUNT); }},
    {"call", true, call},
    {"handlers", true, [](const Words&, TraceSession*) { return send(Cmd::LIST_HANDLERS, 0, Await::HANDLERS); }},
    {"raw", true,
     [](const Words& w, TraceSession*) {
         long long code, param = 0;
         if (w.size() < 2 || w.size() > 3 || !parseNumber(w[1], 0, 255, code) ||
             (w.size() == 3 && !parseNumber(w[2], 0, UINT32_MAX, param)))
             return error("usage: raw <code> [parameter]");
         return send(static_cast<uint8_t>(code), static_cast<uint32_t>(param));
     }},
};
}

std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> words;
    std::string cur;
    bool inWord = false, quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            cur += line[++i];
            inWord = true;
        } else if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (inWord)
                words.push_back(cur);
            cur.clear();
            inWord = false;
        } else {
            cur += c;
            inWord = true;
        }
    }
    if (inWord)
        words.push_back(cur);
    return words;
}

Action translate(const std::string& line, TraceSession* s)
{
    std::vector<std::string> w = split(line);
    if (w.empty() || w[0][0] == '#')
        return Action();
    const Command* command = nullptr;
    for (const Command& c : kCommands)
        if (w[0] == c.name)
            command = &c;
    if (command && !command->needsProcess)
        return command->run(w, s);
    if (!s)
        return action(Action::NEEDS_PROCESS);
    if (!command)
        return error("unknown command '" + w[0] + "' (try help)");
    return command->run(w, s);
}

const char* helpText()
{
    return "commands:\n"
           "  info                         process information\n"
           "  scopes                       list the scopes (learns their names)\n"
           "  filter <scopes> <kinds>      set the filter; kinds: number or err+enter+leave+wrn+msg, all, none\n"
           "  media <scopes> <media>       set the media; media: number or server+kernel+slog+console, all, none\n"
           "                               <scopes>: index, first-last, name prefix, or * for all\n"
           "  silent on|off                silent mode\n"
           "  store | kill | reload        store, delete or reload the persistent settings\n"
           "  callbacks                    list the callbacks\n"
           "  count                        number of callbacks\n"
           "  call <index|name> [args...]  call a callback (\"quoted text\" for strings, 0x.. for byte arrays)\n"
           "  handlers                     list the output handlers\n"
           "  raw <code> [parameter]       send any command\n"
           "  processes | use <name>       list the traced processes, pick the one commands go to\n"
           "  wait <ms>                    pause a script\n"
           "  help | quit\n";
}
}
