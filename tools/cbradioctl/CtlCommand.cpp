#include "CtlCommand.h"
#include "CtlJson.h"

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <map>
#include <sstream>

namespace cbradioctl
{

namespace
{
const char* const kGeneralHelp =
    "usage: cbradioctl [options] <command> [arguments]\n"
    "\n"
    "Operates the CB radio service on the session bus.\n"
    "\n"
    "commands:\n"
    "  on | off                      switch the radio on or off\n"
    "  seek up|down                  seek the next channel\n"
    "  scan start|stop               start or stop scanning\n"
    "  squelch up|down               change the squelch level\n"
    "  presets list                  list the six presets\n"
    "  presets store <preset> <ch>   store channel <ch> (1-40) as preset <preset> (1-6)\n"
    "  presets select <preset>       tune to a preset\n"
    "  presets clear                 clear all presets (the service sends no result)\n"
    "  tx | rx                       switch to transmit or back to receive\n"
    "  weather on|off                switch weather alerts on or off\n"
    "  hw-version | sw-version       read the module's versions\n"
    "  props <name>                  ask for a property and print the signal carrying it\n"
    "  call <method> [json]          call any method with a JSON argument text\n"
    "  watch [signal...]             print the service's signals as they arrive\n"
    "\n"
    "options:\n"
    "  --timeout=S     seconds to wait for a reply (default 5) or, for watch, in total\n"
    "  --count=N       watch: stop after N signals\n"
    "  --name=NAME     bus name of the service (default com.quorin.service.CBRadioService)\n"
    "  --path=PATH     object path (default /com/quorin/service/CBRadioService)\n"
    "  -h, --help      this text; '<command> --help' explains a command\n"
    "\n"
    "exit codes: 0 ok, 1 the service answered failure, 2 usage, 3 service not on the bus,\n"
    "            4 time-out, 5 other bus error\n"
    "\n"
    "The bus address comes from DBUS_SESSION_BUS_ADDRESS or, when that is unset, from\n"
    "$CBRADIO_ROOT/tmp/envars.sh.\n";

const std::map<std::string, std::string> kCommandHelp = {
    {"on", "usage: cbradioctl on\nSwitches the radio on (reqCBRStateChange {\"CBRState\":1}).\n"},
    {"off", "usage: cbradioctl off\nSwitches the radio off (reqCBRStateChange {\"CBRState\":0}).\n"},
    {"seek", "usage: cbradioctl seek up|down\nSeeks the next channel up or down "
             "(reqCBRStartSeek {\"seekDirection\":1|0}).\n"},
    {"scan", "usage: cbradioctl scan start|stop\nStarts or stops the channel scan "
             "(reqCBRStartScan / reqCBRStopScan).\n"},
    {"squelch", "usage: cbradioctl squelch up|down\nRaises or lowers the squelch level "
                "(reqCBRAdjustSquelchLevel {\"squelchChg\":1|0}).\n"},
    {"presets", "usage: cbradioctl presets list\n"
                "       cbradioctl presets store <preset 1-6> <channel 1-40>\n"
                "       cbradioctl presets select <preset 1-6>\n"
                "       cbradioctl presets clear\n"
                "list prints {\"CBRadioPresetList\":[...]} (reqCBRGetPresetList); store keeps a "
                "channel in a preset\n(reqCBRStorePreset {\"channelNumber\":c,\"presetNo\":p}); "
                "select tunes to it (reqCBRSelectPreset\n{\"PresetNo\":p}); clear empties all six "
                "(reqCBRClearPreset; the service\nanswers it with no result, which counts as done).\n"},
    {"tx", "usage: cbradioctl tx\nSwitches from receive to transmit (reqCBRChangeRxToTx). An "
           "empty reply (exit 1)\nmeans the radio is off.\n"},
    {"rx", "usage: cbradioctl rx\nSwitches from transmit back to receive (reqCBRChangeTxToRx). "
           "An empty reply\n(exit 1) means the radio is off or not transmitting.\n"},
    {"weather", "usage: cbradioctl weather on|off\nSwitches weather alerts on or off "
                "(reqCBRWeatherAlertOnOff {\"CBRWAState\":1|0}).\n"},
    {"hw-version", "usage: cbradioctl hw-version\nPrints the hardware version "
                   "(reqCBRHWVersion).\n"},
    {"sw-version", "usage: cbradioctl sw-version\nPrints the software version "
                   "(reqCBRSWVersion).\n"},
    {"props", "usage: cbradioctl props <name>\nAsks the service to publish a property "
              "(getProperties {\"props\":name}) and prints\nthe payload of the signal that "
              "carries it. Names: CBRadioStatus, CBRChannelNumber,\nCBRSquelchLevel, "
              "CBRReceptionSensitivityStatus, CBRHWConnectionStatus,\n"
              "CBRWeatherAlertOnOffStatus.\n"},
    {"call", "usage: cbradioctl call <method> [json]\nCalls <method> with the JSON text "
             "(none: an empty argument) and prints the reply.\n"},
    {"watch", "usage: cbradioctl [--count=N] [--timeout=S] watch [signal...]\nPrints each "
              "signal of the service as \"HH:MM:SS.mmm <signal> <json>\", all of them\nwhen "
              "none is named. Ends after N signals (exit 0; exit 4 if the time-out comes "
              "first)\nor after S seconds (exit 0), otherwise runs until interrupted.\n"},
};

Command usage(const std::string& message)
{
    Command c;
    c.kind = Command::Kind::Usage;
    c.text = "cbradioctl: " + message + "\nTry 'cbradioctl --help'.\n";
    return c;
}

Command call(const std::string& method, const std::string& params = "")
{
    Command c;
    c.kind = Command::Kind::Call;
    c.method = method;
    c.params = params;
    return c;
}

bool parseLong(const std::string& text, long low, long high, long& out)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    long v = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high)
        return false;
    out = v;
    return true;
}

std::string intArg(const char* key, long value)
{
    return jsonIntObject({{key, value}});
}

// "up"/"down", "on"/"off", "start"/"stop" as 1/0.
bool choice(const std::vector<std::string>& rest, const char* yes, const char* no, long& out)
{
    if (rest.size() != 1)
        return false;
    if (rest[0] == yes)
        out = 1;
    else if (rest[0] == no)
        out = 0;
    else
        return false;
    return true;
}

Command presets(const std::vector<std::string>& rest)
{
    const std::string sub = rest.empty() ? "" : rest[0];
    long preset = 0, channel = 0;
    if (sub == "list" && rest.size() == 1)
        return call("reqCBRGetPresetList");
    if (sub == "clear" && rest.size() == 1) {
        Command c = call("reqCBRClearPreset");
        c.resultless = true;
        return c;
    }
    if (sub == "select" && rest.size() == 2) {
        if (!parseLong(rest[1], 1, 6, preset))
            return usage("presets select: the preset is a number from 1 to 6");
        return call("reqCBRSelectPreset", intArg("PresetNo", preset));
    }
    if (sub == "store" && rest.size() == 3) {
        if (!parseLong(rest[1], 1, 6, preset))
            return usage("presets store: the preset is a number from 1 to 6");
        if (!parseLong(rest[2], 1, 40, channel))
            return usage("presets store: the channel is a number from 1 to 40");
        return call("reqCBRStorePreset", jsonIntObject({{"channelNumber", channel}, {"presetNo", preset}}));
    }
    return usage("presets: expected list, store <preset> <channel>, select <preset> or clear");
}

Command byName(const std::string& name, const std::vector<std::string>& rest)
{
    long v = 0;
    if (name == "on" || name == "off") {
        if (!rest.empty())
            return usage(name + ": takes no arguments");
        return call("reqCBRStateChange", intArg("CBRState", name == "on" ? 1 : 0));
    }
    if (name == "seek")
        return choice(rest, "up", "down", v) ? call("reqCBRStartSeek", intArg("seekDirection", v))
                                             : usage("seek: expected up or down");
    if (name == "scan")
        return choice(rest, "start", "stop", v) ? call(v ? "reqCBRStartScan" : "reqCBRStopScan")
                                                : usage("scan: expected start or stop");
    if (name == "squelch")
        return choice(rest, "up", "down", v) ? call("reqCBRAdjustSquelchLevel", intArg("squelchChg", v))
                                             : usage("squelch: expected up or down");
    if (name == "weather")
        return choice(rest, "on", "off", v) ? call("reqCBRWeatherAlertOnOff", intArg("CBRWAState", v))
                                            : usage("weather: expected on or off");
    if (name == "presets")
        return presets(rest);
    if (name == "tx" || name == "rx" || name == "hw-version" || name == "sw-version") {
        if (!rest.empty())
            return usage(name + ": takes no arguments");
        static const std::map<std::string, std::string> methods = {{"tx", "reqCBRChangeRxToTx"},
                                                                   {"rx", "reqCBRChangeTxToRx"},
                                                                   {"hw-version", "reqCBRHWVersion"},
                                                                   {"sw-version", "reqCBRSWVersion"}};
        return call(methods.at(name));
    }
    if (name == "props") {
        if (rest.size() != 1 || rest[0].empty())
            return usage("props: expected one property name");
        Command c = call("getProperties", jsonStringObject("props", rest[0]));
        c.kind = Command::Kind::Props;
        // The query name and the signal name differ for this one property.
        c.signals.push_back(rest[0] == "CBRReceptionSensitivityStatus" ? "CBRReceptionSensitivity" : rest[0]);
        return c;
    }
    if (name == "call") {
        if (rest.empty() || rest.size() > 2)
            return usage("call: expected <method> [json]");
        return call(rest[0], rest.size() == 2 ? rest[1] : "");
    }
    if (name == "watch") {
        Command c;
        c.kind = Command::Kind::Watch;
        c.signals = rest;
        return c;
    }
    return usage("unknown command '" + name + "'");
}

// The general help, or the help of the command named first.
Command helpFor(const std::vector<std::string>& words)
{
    Command c;
    c.kind = Command::Kind::Help;
    if (words.empty()) {
        c.text = kGeneralHelp;
        return c;
    }
    auto it = kCommandHelp.find(words[0]);
    if (it == kCommandHelp.end())
        return usage("unknown command '" + words[0] + "'");
    c.text = it->second;
    return c;
}

// Splits "--key=value" or "--key value"; returns false when `arg` is not that option.
bool option(const std::vector<std::string>& args, size_t& i, const std::string& key, std::string& value)
{
    const std::string& arg = args[i];
    if (arg == key) {
        if (i + 1 >= args.size())
            return false;
        value = args[++i];
        return true;
    }
    if (arg.compare(0, key.size() + 1, key + "=") == 0) {
        value = arg.substr(key.size() + 1);
        return true;
    }
    return false;
}
}  // namespace

const std::vector<std::string>& serviceSignals()
{
    static const std::vector<std::string> all(std::begin(CBRadioBusNames::SERVICE_SIGNALS),
                                              std::end(CBRadioBusNames::SERVICE_SIGNALS));
    return all;
}

Command parseCommandLine(const std::vector<std::string>& args)
{
    std::vector<std::string> words;
    bool help = false;
    double timeout = -1;
    long count = 0;
    std::string name = kServiceName, path = kServicePath;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string value;
        const std::string& arg = args[i];
        if (arg == "-h" || arg == "--help") {
            help = true;
        } else if (option(args, i, "--timeout", value)) {
            char* end = nullptr;
            timeout = strtod(value.c_str(), &end);
            if (value.empty() || *end != '\0' || !(timeout > 0) || timeout > 86400)
                return usage("--timeout: expected a number of seconds above 0");
        } else if (option(args, i, "--count", value)) {
            if (!parseLong(value, 1, 1000000000L, count))
                return usage("--count: expected a positive number");
        } else if (option(args, i, "--name", value)) {
            name = value;
        } else if (option(args, i, "--path", value)) {
            path = value;
        } else if (arg.size() > 1 && arg[0] == '-' && arg[1] == '-' && words.empty()) {
            return usage("unknown option '" + arg + "'");
        } else if (arg == "--") {
            words.insert(words.end(), args.begin() + static_cast<long>(i) + 1, args.end());
            break;
        } else {
            words.push_back(arg);
        }
    }

    if (help)
        return helpFor(words);
    if (words.empty())
        return usage("no command given");

    Command c = byName(words[0], std::vector<std::string>(words.begin() + 1, words.end()));
    if (c.kind == Command::Kind::Usage)
        return c;
    if (count > 0 && c.kind != Command::Kind::Watch)
        return usage("--count only applies to watch");
    if (c.kind == Command::Kind::Watch) {
        for (const std::string& s : c.signals)
            if (s.empty() || s.find_first_of("./ ") != std::string::npos)
                return usage("watch: '" + s + "' is not a signal name");
    }
    c.timeoutS = timeout;
    c.count = count;
    c.busName = name;
    c.objPath = path;
    return c;
}

int exitCodeForReply(const std::string& reply)
{
    if (reply.find_first_not_of(" \t\r\n") == std::string::npos)
        return EXIT_FAILURE_REPLY;
    return replyCode(reply) == ReplyCode::Other ? EXIT_FAILURE_REPLY : EXIT_OK;
}

}  // namespace cbradioctl
