// Shared helpers of the trace unit tests: a recording output handler, a system log mirror and the
// settings of a scope as text.
#ifndef TRACETESTSUPPORT_H
#define TRACETESTSUPPORT_H

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "JTSyslog.h"

namespace tracetest
{
// Takes over media bit 2 (the kernel trace slot) and keeps what the helper hands out there as
// "<kind> <text>" lines, and the definition of the last one. These tests trace from one thread.
class Recorder
{
public:
    static constexpr uint8_t MEDIA = 2;

    Recorder()
    {
        sLines.clear();
        CJTTraceHelper::getInstance().setHandler(MEDIA, &Recorder::handle, "Recorder");
    }
    ~Recorder() { CJTTraceHelper::getInstance().setHandler(MEDIA, &CJTTraceHelper::sendToKernelTrace, "Kernel Trace"); }
    std::vector<std::string> take() { return std::exchange(sLines, {}); }

    static inline const CJTTraceScopeDef* sLastDef = nullptr;

private:
    static void handle(const CJTTraceHelper::tTraceMessageInfo& info)
    {
        sLastDef = info.scopeDef;
        sLines.push_back(std::to_string(info.kind) + " " + info.text);
    }
    static inline std::vector<std::string> sLines;
};

// Mirrors the system log as "<severity> <line>" lines while it lives.
class SyslogLines
{
public:
    SyslogLines()
    {
        sLines.clear();
        JTSyslog::setMirror(
            [](unsigned int severity, const char* line) { sLines.push_back(std::to_string(severity) + " " + line); });
    }
    ~SyslogLines() { JTSyslog::setMirror(nullptr); }
    std::vector<std::string> take() { return std::exchange(sLines, {}); }

private:
    static inline std::vector<std::string> sLines;
};

// Lines of text with the time of each trace line taken out ("[MSG]@123 (4.5): x" becomes
// "[MSG] (4.5): x"); a line without digits after "]@" keeps its "@" and so matches nothing expected.
inline std::vector<std::string> withoutTimes(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = text.find('\n', start);
        std::string line = text.substr(start, end - start) + (end == std::string::npos ? "<no newline>" : "");
        const size_t at = line.find("]@");
        const size_t digits = at == std::string::npos ? at : line.find_first_not_of("0123456789", at + 2);
        if (at != std::string::npos && digits > at + 2)
            line.erase(at + 1, digits - at - 1);
        lines.push_back(line);
        if (end == std::string::npos)
            break;
    }
    return lines;
}

// A scope's filter, media and kernel event as a settings line gives them: "7f 01 0".
inline std::string settings(const CJTTraceScopeDef& def)
{
    char text[16];
    std::snprintf(text, sizeof text, "%02x %02x %x", def.getFilter(), def.getMedia(), def.getKernelEvent());
    return text;
}
}

#endif
