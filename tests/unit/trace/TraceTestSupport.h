// Shared helpers of the trace unit tests: a recording output handler, a system log mirror and
// temporary files.
#ifndef TRACETESTSUPPORT_H
#define TRACETESTSUPPORT_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "JTSyslog.h"

namespace tracetest
{
// Takes over media bit 2 (the kernel trace slot) and keeps what the helper hands out there as
// "<kind> <text>" lines, and the definition of the last one.
class Recorder
{
public:
    static constexpr uint8_t MEDIA = 2;

    Recorder()
    {
        take();
        CJTTraceHelper::getInstance().setHandler(MEDIA, &Recorder::handle, "Recorder");
    }
    ~Recorder() { CJTTraceHelper::getInstance().setHandler(MEDIA, &CJTTraceHelper::sendToKernelTrace, "Kernel Trace"); }

    static std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> guard(sLock);
        return std::exchange(sLines, {});
    }
    static inline const CJTTraceScopeDef* sLastDef = nullptr;

private:
    static void handle(const CJTTraceHelper::tTraceMessageInfo& info)
    {
        std::lock_guard<std::mutex> guard(sLock);
        sLines.push_back(std::to_string(info.kind) + " " + info.text);
        sLastDef = info.scopeDef;
    }
    static inline std::mutex sLock;
    static inline std::vector<std::string> sLines;
};

// Mirrors the system log as "<severity> <line>" lines while it lives.
class SyslogLines
{
public:
    SyslogLines()
    {
        take();
        JTSyslog::setMirror(&SyslogLines::mirror);
    }
    ~SyslogLines() { JTSyslog::setMirror(nullptr); }

    static std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> guard(sLock);
        return std::exchange(sLines, {});
    }

private:
    static void mirror(unsigned int severity, const char* line)
    {
        std::lock_guard<std::mutex> guard(sLock);
        sLines.push_back(std::to_string(severity) + " " + line);
    }
    static inline std::mutex sLock;
    static inline std::vector<std::string> sLines;
};

// A scope's filter, media and kernel event as a settings line gives them: "7f 01 0".
inline std::string settings(const CJTTraceScopeDef& def)
{
    char text[16];
    std::snprintf(text, sizeof text, "%02x %02x %x", def.getFilter(), def.getMedia(), def.getKernelEvent());
    return text;
}

// A file in the system's temporary folder, removed again on destruction.
class TempFile
{
public:
    explicit TempFile(const std::string& contents)
    {
        char name[] = "/tmp/unit_trace_XXXXXX";
        int fd = mkstemp(name);
        if (fd < 0 || write(fd, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()))
            abort();
        close(fd);
        mPath = name;
    }
    ~TempFile() { unlink(mPath.c_str()); }
    const char* path() const { return mPath.c_str(); }

private:
    std::string mPath;
};
}

#endif
