// Shared helpers of the trace unit tests: a recording output handler, a system log mirror and
// temporary files.
#ifndef TRACETESTSUPPORT_H
#define TRACETESTSUPPORT_H

#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "JTSyslog.h"

namespace tracetest
{
struct Record
{
    uint8_t kind;
    std::string text;
    const CJTTraceScopeDef* def;
};

// Takes over media bit 2 (the kernel trace slot) so tests see exactly what the helper hands out.
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

    static std::vector<Record> take()
    {
        std::lock_guard<std::mutex> guard(lock());
        std::vector<Record> out;
        out.swap(records());
        return out;
    }
    static std::vector<std::string> texts()
    {
        std::vector<std::string> out;
        for (const Record& r : take())
            out.push_back(r.text);
        return out;
    }

private:
    static void handle(const CJTTraceHelper::tTraceMessageInfo& info)
    {
        std::lock_guard<std::mutex> guard(lock());
        records().push_back(Record{info.kind, info.text, info.scopeDef});
    }
    static std::mutex& lock()
    {
        static std::mutex m;
        return m;
    }
    static std::vector<Record>& records()
    {
        static std::vector<Record> r;
        return r;
    }
};

// Mirrors the system log (severity and line) while it lives.
class SyslogLines
{
public:
    SyslogLines()
    {
        take();
        JTSyslog::setMirror(&SyslogLines::mirror);
    }
    ~SyslogLines() { JTSyslog::setMirror(nullptr); }

    static std::vector<std::pair<unsigned, std::string>> take()
    {
        std::lock_guard<std::mutex> guard(lock());
        std::vector<std::pair<unsigned, std::string>> out;
        out.swap(lines());
        return out;
    }

private:
    static void mirror(unsigned int severity, const char* line)
    {
        std::lock_guard<std::mutex> guard(lock());
        lines().emplace_back(severity, line);
    }
    static std::mutex& lock()
    {
        static std::mutex m;
        return m;
    }
    static std::vector<std::pair<unsigned, std::string>>& lines()
    {
        static std::vector<std::pair<unsigned, std::string>> l;
        return l;
    }
};

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
