#include "V850Command.h"

#include <algorithm>
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
        if (word == "on" || word == "1") { value = 1; return true; }
        if (word == "off" || word == "0") { value = 0; return true; }
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
        case 2: return V850Frame{0x0F, 0x01, 0x02};        // connection state out of range
        case 3: return V850Frame{0x0C, 0x02, 0x01, 0x08};  // weather channel 8
        case 4: return V850Frame{0x09, 0x02, 0x10, 0x20};  // sensitivity with two bytes
        case 5: return V850Frame{0x02};                    // header cut short
        default: return V850Frame{0x02, 0x01, 0x05};       // channel select without result code
        }
    }
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
    const std::string& cmd = w[0];
    const std::string arg = w.size() > 1 ? w[1] : std::string();
    long n = 0;
    uint8_t b = 0;

    if (cmd == "help" || cmd == "?")
        { V850Command c; c.kind = HELP; return c; }
    if (cmd == "status")
        { V850Command c; c.kind = STATUS; return c; }
    if (cmd == "quit" || cmd == "exit")
        { V850Command c; c.kind = QUIT; return c; }
    if (cmd == "disconnect")
        { V850Command c; c.kind = DISCONNECT; return c; }
    if (cmd == "wait")
        return toNumber(arg, 0, 3600000, n) ? wait(WAIT, n) : error("wait needs milliseconds");
    if (cmd == "sleep") {
        double seconds = std::strtod(arg.c_str(), nullptr);
        if (arg.empty() || seconds < 0 || seconds > 3600)
            return error("sleep needs seconds");
        return wait(WAIT, static_cast<long>(seconds * 1000));
    }
    if (cmd == "waitconnect") {
        if (arg.empty())
            return wait(WAIT_CONNECT, DEFAULT_CONNECT_MS);
        return toNumber(arg, 0, 3600000, n) ? wait(WAIT_CONNECT, n) : error("waitconnect [ms]");
    }
    if (cmd == "expect") {
        V850Command c = wait(EXPECT, DEFAULT_EXPECT_MS);
        if (w.size() < 2 || !toHexBytes(w, 1, c.pattern))
            return error("expect needs hex bytes");
        return c;
    }
    if (cmd == "scan-interval") {
        if (!toNumber(arg, 10, 60000, n))
            return error("scan-interval needs 10..60000 ms");
        return wait(SCAN_INTERVAL, n);
    }
    if (cmd == "on" || cmd == "off")
        return send({model.radioState(cmd == "on" ? 1 : 0)});
    if (cmd == "channel")
        return toNumber(arg, 0, 255, n) ? send({model.channelSelect(static_cast<uint8_t>(n))})
                                        : error("channel needs 0..255");
    if (cmd == "squelch")
        return toNumber(arg, 0, 255, n) ? send({model.squelchLevel(static_cast<uint8_t>(n))})
                                        : error("squelch needs 0..255");
    if (cmd == "sens")
        return toNumber(arg, 0, 255, n) ? send({V850Model::receptionSensitivity(static_cast<uint8_t>(n))})
                                        : error("sens needs 0..255");
    if (cmd == "hw") {
        if (arg == "lost") return send({model.hardwareConnection(0)});
        if (arg == "back") return send({model.hardwareConnection(1)});
        return toNumber(arg, 0, 255, n) ? send({model.hardwareConnection(static_cast<uint8_t>(n))})
                                        : error("hw lost|back|N");
    }
    if (cmd == "wa") {
        if (onOff(arg, b)) return send({model.weatherAlertOnOff(b)});
        return toNumber(arg, 0, 255, n) ? send({model.weatherAlertOnOff(static_cast<uint8_t>(n))})
                                        : error("wa on|off|N");
    }
    if (cmd == "alert") {
        long status = 1;
        if (!toNumber(arg, 0, 255, n) || (w.size() > 2 && !toNumber(w[2], 0, 255, status)))
            return error("alert CHANNEL [STATUS]");
        return send({V850Model::weatherAlert(static_cast<uint8_t>(status), static_cast<uint8_t>(n))});
    }
    if (cmd == "rx" || cmd == "tx") {
        if (!onOff(arg, b))
            return error(cmd + " on|off");
        return send({cmd == "rx" ? model.txRxStatus(0, b) : model.txRxStatus(b, 0)});
    }
    if (cmd == "carrier") {
        long ms = DEFAULT_CARRIER_MS;
        if (!arg.empty() && !toNumber(arg, 0, 3600000, ms))
            return error("carrier [ms]");
        V850Command c = send({model.txRxStatus(0, 1)});
        c.steps[0].waitMs = static_cast<int>(ms);
        c.steps.push_back(V850Step{model.txRxStatus(0, 0), 0});
        return c;
    }
    if (cmd == "refuse") {
        b = V850Model::REFUSED;
        if (!arg.empty() && !toHexByte(arg, b))
            return error("refuse [hex code]");
        model.refuseNext(b);
        V850Command c;
        c.kind = SETTING;
        c.text = "next answer refused with code " + V850Model::toHex(&b, 1);
        return c;
    }
    if (cmd == "malformed") {
        if (!arg.empty() && !toNumber(arg, 1, 5, n))
            return error("malformed [1..5]");
        return send({malformed(arg.empty() ? 1 : n)});
    }
    if (cmd == "raw") {
        V850Frame frame;
        if (w.size() < 2 || !toHexBytes(w, 1, frame))
            return error("raw needs hex bytes");
        return send({frame});
    }
    if (cmd == "frame") {
        V850Frame payload;
        uint8_t id;
        if (w.size() < 2 || !toHexByte(w[1], id) || !toHexBytes(w, 2, payload))
            return error("frame ID [PAYLOAD...] in hex");
        V850Frame frame(payload.size() + 2);
        frame[0] = id;
        frame[1] = static_cast<uint8_t>(payload.size());
        std::copy(payload.begin(), payload.end(), frame.begin() + 2);
        return send({frame});
    }
    if (cmd == "hwver") {
        if (arg.size() != 2)
            return error("hwver needs two characters");
        model.setHardwareVersion(static_cast<uint8_t>(arg[0]), static_cast<uint8_t>(arg[1]));
        V850Command c;
        c.kind = SETTING;
        c.text = "hardware version " + arg;
        return c;
    }
    if (cmd == "swver") {
        if (arg.empty() || arg.size() > 10)
            return error("swver needs 1..10 characters");
        model.setSoftwareVersion(arg);
        V850Command c;
        c.kind = SETTING;
        c.text = "software version " + arg;
        return c;
    }
    return error("unknown command '" + cmd + "' (try help)");
}

const char* V850Command::helpText()
{
    return
        "Reports sent to the head unit (numbers decimal or 0x.., bytes in hex):\n"
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
