#include "V850Command.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace
{
const int DEFAULT_CARRIER_MS = 2000;
const int DEFAULT_CONNECT_MS = 10000;
const int DEFAULT_EXPECT_MS = 10000;

bool toNumber(const std::string& word, long min, long max, long& value)
{
    if (word.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    long parsed = std::strtol(word.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || parsed < min || parsed > max)
        return false;
    value = parsed;
    return true;
}

bool toHexByte(const std::string& word, uint8_t& value)
{
    std::string digits = word;
    if (digits.size() > 2 && (digits.compare(0, 2, "0x") == 0 || digits.compare(0, 2, "0X") == 0))
        digits = digits.substr(2);
    if (digits.empty() || digits.size() > 2)
        return false;
    char* end = nullptr;
    long parsed = std::strtol(digits.c_str(), &end, 16);
    if (*end != '\0')
        return false;
    value = static_cast<uint8_t>(parsed);
    return true;
}

bool toHexBytes(const std::vector<std::string>& words, size_t first, V850Frame& bytes)
{
    for (size_t i = first; i < words.size(); ++i) {
        uint8_t b;
        if (!toHexByte(words[i], b))
            return false;
        bytes.push_back(b);
    }
    return true;
}

bool onOff(const std::string& word, uint8_t& value)
{
    if (word == "on" || word == "1") {
        value = 1;
        return true;
    }
    if (word == "off" || word == "0") {
        value = 0;
        return true;
    }
    return false;
}

V850Command error(const std::string& reason)
{
    V850Command c;
    c.kind = V850Command::ERROR;
    c.text = reason;
    return c;
}

V850Command send(std::initializer_list<V850Frame> frames)
{
    V850Command c;
    c.kind = V850Command::SEND;
    for (const V850Frame& f : frames)
        c.steps.push_back(V850Step{f, 0});
    return c;
}

V850Command wait(V850Command::Kind kind, long ms)
{
    V850Command c;
    c.kind = kind;
    c.number = static_cast<int>(ms);
    return c;
}

V850Frame malformed(long variant)
{
    switch (variant) {
    case 2:
        return V850Frame{0x0F, 0x01, 0x02};  // connection state out of range
    case 3:
        return V850Frame{0x0C, 0x02, 0x01, 0x08};  // weather channel 8
    case 4:
        return V850Frame{0x09, 0x02, 0x10, 0x20};  // sensitivity with two bytes
    case 5:
        return V850Frame{0x02};  // header cut short
    default:
        return V850Frame{0x02, 0x01, 0x05};  // channel select without result code
    }
}

V850Command kindOnly(V850Command::Kind kind)
{
    V850Command c;
    c.kind = kind;
    return c;
}

V850Command setting(const std::string& confirmation)
{
    V850Command c = kindOnly(V850Command::SETTING);
    c.text = confirmation;
    return c;
}

// A report whose one byte is given as a number 0..255.
template <typename MakeFrame>
V850Command byteReport(const std::string& arg, const char* usage, MakeFrame make)
{
    long n = 0;
    return toNumber(arg, 0, 255, n) ? send({make(static_cast<uint8_t>(n))}) : error(usage);
}

typedef std::vector<std::string> Words;

V850Command sleepFor(const Words&, const std::string& arg, V850Model&)
{
    double seconds = std::strtod(arg.c_str(), nullptr);
    if (arg.empty() || seconds < 0 || seconds > 3600)
        return error("sleep needs seconds");
    return wait(V850Command::WAIT, static_cast<long>(seconds * 1000));
}

V850Command waitConnect(const Words&, const std::string& arg, V850Model&)
{
    long n = DEFAULT_CONNECT_MS;
    if (!arg.empty() && !toNumber(arg, 0, 3600000, n))
        return error("waitconnect [ms]");
    return wait(V850Command::WAIT_CONNECT, n);
}

V850Command expectFrame(const Words& w, const std::string&, V850Model&)
{
    V850Command c = wait(V850Command::EXPECT, DEFAULT_EXPECT_MS);
    if (w.size() < 2 || !toHexBytes(w, 1, c.pattern))
        return error("expect needs hex bytes");
    return c;
}

V850Command hardware(const Words&, const std::string& arg, V850Model& m)
{
    if (arg == "lost" || arg == "back")
        return send({m.hardwareConnection(arg == "back" ? 1 : 0)});
    return byteReport(arg, "hw lost|back|N", [&](uint8_t n) { return m.hardwareConnection(n); });
}

V850Command weatherAlertOnOff(const Words&, const std::string& arg, V850Model& m)
{
    uint8_t b = 0;
    if (onOff(arg, b))
        return send({m.weatherAlertOnOff(b)});
    return byteReport(arg, "wa on|off|N", [&](uint8_t n) { return m.weatherAlertOnOff(n); });
}

V850Command weatherAlert(const Words& w, const std::string& arg, V850Model&)
{
    long channel = 0, status = 1;
    if (!toNumber(arg, 0, 255, channel) || (w.size() > 2 && !toNumber(w[2], 0, 255, status)))
        return error("alert CHANNEL [STATUS]");
    return send({V850Model::weatherAlert(static_cast<uint8_t>(status), static_cast<uint8_t>(channel))});
}

V850Command txRx(const Words& w, const std::string& arg, V850Model& m)
{
    uint8_t b = 0;
    if (!onOff(arg, b))
        return error(w[0] + " on|off");
    return send({w[0] == "rx" ? m.txRxStatus(0, b) : m.txRxStatus(b, 0)});
}

V850Command carrier(const Words&, const std::string& arg, V850Model& m)
{
    long ms = DEFAULT_CARRIER_MS;
    if (!arg.empty() && !toNumber(arg, 0, 3600000, ms))
        return error("carrier [ms]");
    V850Command c = send({m.txRxStatus(0, 1)});
    c.steps[0].waitMs = static_cast<int>(ms);
    c.steps.push_back(V850Step{m.txRxStatus(0, 0), 0});
    return c;
}

V850Command refuse(const Words&, const std::string& arg, V850Model& m)
{
    uint8_t code = V850Model::REFUSED;
    if (!arg.empty() && !toHexByte(arg, code))
        return error("refuse [hex code]");
    m.refuseNext(code);
    return setting("next answer refused with code " + V850Model::toHex(&code, 1));
}

V850Command malformedFrame(const Words&, const std::string& arg, V850Model&)
{
    long n = 1;
    if (!arg.empty() && !toNumber(arg, 1, 5, n))
        return error("malformed [1..5]");
    return send({malformed(n)});
}

V850Command rawFrame(const Words& w, const std::string&, V850Model&)
{
    V850Frame frame;
    if (w.size() < 2 || !toHexBytes(w, 1, frame))
        return error("raw needs hex bytes");
    return send({frame});
}

V850Command frameWithLength(const Words& w, const std::string&, V850Model&)
{
    V850Frame frame(2);
    if (w.size() < 2 || !toHexByte(w[1], frame[0]) || !toHexBytes(w, 2, frame))
        return error("frame ID [PAYLOAD...] in hex");
    frame[1] = static_cast<uint8_t>(frame.size() - 2);
    return send({frame});
}

V850Command hardwareVersion(const Words&, const std::string& arg, V850Model& m)
{
    if (arg.size() != 2)
        return error("hwver needs two characters");
    m.setHardwareVersion(static_cast<uint8_t>(arg[0]), static_cast<uint8_t>(arg[1]));
    return setting("hardware version " + arg);
}

V850Command softwareVersion(const Words&, const std::string& arg, V850Model& m)
{
    if (arg.empty() || arg.size() > 10)
        return error("swver needs 1..10 characters");
    m.setSoftwareVersion(arg);
    return setting("software version " + arg);
}

// Every command: its name and what it makes of the words that follow.
struct Entry
{
    const char* name;
    V850Command (*parse)(const Words& w, const std::string& arg, V850Model& m);
};
const Entry kCommands[] = {
    {"help", [](const Words&, const std::string&, V850Model&) { return kindOnly(V850Command::HELP); }},
    {"?", [](const Words&, const std::string&, V850Model&) { return kindOnly(V850Command::HELP); }},
    {"status", [](const Words&, const std::string&, V850Model&) { return kindOnly(V850Command::STATUS); }},
    {"quit", [](const Words&, const std::string&, V850Model&) { return kindOnly(V850Command::QUIT); }},
    {"exit", [](const Words&, const std::string&, V850Model&) { return kindOnly(V850Command::QUIT); }},
    {"disconnect", [](const Words&, const std::string&, V850Model&) { return kindOnly(V850Command::DISCONNECT); }},
    {"wait",
     [](const Words&, const std::string& arg, V850Model&) {
         long n = 0;
         return toNumber(arg, 0, 3600000, n) ? wait(V850Command::WAIT, n) : error("wait needs milliseconds");
     }},
    {"sleep", sleepFor},
    {"waitconnect", waitConnect},
    {"expect", expectFrame},
    {"scan-interval",
     [](const Words&, const std::string& arg, V850Model&) {
         long n = 0;
         return toNumber(arg, 10, 60000, n) ? wait(V850Command::SCAN_INTERVAL, n)
                                            : error("scan-interval needs 10..60000 ms");
     }},
    {"on", [](const Words&, const std::string&, V850Model& m) { return send({m.radioState(1)}); }},
    {"off", [](const Words&, const std::string&, V850Model& m) { return send({m.radioState(0)}); }},
    {"channel",
     [](const Words&, const std::string& arg, V850Model& m) {
         return byteReport(arg, "channel needs 0..255", [&](uint8_t n) { return m.channelSelect(n); });
     }},
    {"squelch",
     [](const Words&, const std::string& arg, V850Model& m) {
         return byteReport(arg, "squelch needs 0..255", [&](uint8_t n) { return m.squelchLevel(n); });
     }},
    {"sens", [](const Words&, const std::string& arg,
                V850Model&) { return byteReport(arg, "sens needs 0..255", V850Model::receptionSensitivity); }},
    {"hw", hardware},
    {"wa", weatherAlertOnOff},
    {"alert", weatherAlert},
    {"rx", txRx},
    {"tx", txRx},
    {"carrier", carrier},
    {"refuse", refuse},
    {"malformed", malformedFrame},
    {"raw", rawFrame},
    {"frame", frameWithLength},
    {"hwver", hardwareVersion},
    {"swver", softwareVersion},
};
}

V850Command V850Command::parse(const std::string& line, V850Model& model)
{
    std::vector<std::string> w;
    std::istringstream in(line);
    for (std::string word; in >> word;) {
        if (word[0] == '#')
            break;
        w.push_back(word);
    }
    if (w.empty())
        return V850Command();
    const std::string arg = w.size() > 1 ? w[1] : std::string();
    for (const Entry& e : kCommands)
        if (w[0] == e.name)
            return e.parse(w, arg, model);
    return error("unknown command '" + w[0] + "' (try help)");
}

const char* V850Command::helpText()
{
    return "Reports sent to the head unit (numbers decimal or 0x.., bytes in hex):\n"
           "  on | off               radio state            01 02 s A0\n"
           "  channel N              channel select         02 02 N A0\n"
           "  squelch N              squelch level          03 02 N A0\n"
           "  sens N                 reception sensitivity  09 01 N\n"
           "  hw lost | hw back | hw N   hardware connection  0F 01 x\n"
           "  wa on|off|N            weather alert on/off   0B 01 x\n"
           "  alert CH [STATUS]      weather alert          0C 02 STATUS CH (status 1)\n"
           "  rx on|off, tx on|off   Tx/Rx status           0A 02 tx rx\n"
           "  carrier [MS]           Rx on, MS later idle (2000)\n"
           "  malformed [1..5]       a bad frame (1 short channel select, 2 hw status 2,\n"
           "                         3 weather channel 8, 4 long sensitivity, 5 one byte)\n"
           "  raw HEX...             any bytes as one frame\n"
           "  frame ID [HEX...]      id, computed length, payload\n"
           "Behaviour:\n"
           "  refuse [CODE]          next answer to 01/02/03 carries CODE (A1)\n"
           "  hwver XY | swver TEXT  versions answered to 07 / 08\n"
           "  scan-interval MS       pause between scan steps (500)\n"
           "  disconnect             drop the head unit's connection\n"
           "Control:\n"
           "  wait MS | sleep SEC    pause\n"
           "  waitconnect [MS]       wait for the head unit to connect (10000)\n"
           "  expect HEX...          wait for a frame from the head unit starting so (10 s)\n"
           "  status | help | quit\n";
}
