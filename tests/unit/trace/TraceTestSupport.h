// Shared helpers of the trace unit tests: a recording output handler, a system log mirror and the
// settings of a scope as text.
#ifndef TRACETESTSUPPORT_H
#define TRACETESTSUPPORT_H

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "JTSyslog.h"

namespace tracetest
{
// Lines added by a handler on any thread, taken as a whole.
class LineLog
{
public:
    void add(std::string line)
    {
        std::lock_guard<std::mutex> guard(mLock);
        mLines.push_back(std::move(line));
    }
    std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> guard(mLock);
        return std::exchange(mLines, {});
    }

private:
    std::mutex mLock;
    std::vector<std::string> mLines;
};

// Takes over media bit 2 (the kernel trace slot) and keeps what the helper hands out there as
// "<kind> <text>" lines, and the definition of the last one.
class Recorder
{
public:
    static constexpr uint8_t MEDIA = 2;

    Recorder()
    {
        sLog.take();
        CJTTraceHelper::getInstance().setHandler(MEDIA, &Recorder::handle, "Recorder");
    }
    ~Recorder() { CJTTraceHelper::getInstance().setHandler(MEDIA, &CJTTraceHelper::sendToKernelTrace, "Kernel Trace"); }
    std::vector<std::string> take() { return sLog.take(); }

    static inline const CJTTraceScopeDef* sLastDef = nullptr;

private:
    static void handle(const CJTTraceHelper::tTraceMessageInfo& info)
    {
        sLastDef = info.scopeDef;
        sLog.add(std::to_string(info.kind) + " " + info.text);
    }
    static inline LineLog sLog;
};

// Mirrors the system log as "<severity> <line>" lines while it lives.
class SyslogLines
{
public:
    SyslogLines()
    {
        sLog.take();
        JTSyslog::setMirror([](unsigned int severity, const char* line) { sLog.add(std::to_string(severity) + " " + line); });
    }
    ~SyslogLines() { JTSyslog::setMirror(nullptr); }
    std::vector<std::string> take() { return sLog.take(); }

private:
    static inline LineLog sLog;
};

// A scope's filter, media and kernel event as a settings line gives them: "7f 01 0".
inline std::string settings(const CJTTraceScopeDef& def)
{
    char text[16];
    std::snprintf(text, sizeof text, "%02x %02x %x", def.getFilter(), def.getMedia(), def.getKernelEvent());
    return text;
}
}

#endif
