// Shared helpers of the trace unit tests: a recording output handler, capture of a standard
// descriptor through a pipe, temporary files and an in-memory persistence.
#ifndef TRACETESTSUPPORT_H
#define TRACETESTSUPPORT_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CJTByteStream.h"
#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "IJTTracePersistence.h"

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
        std::lock_guard<std::mutex> guard(lock());
        records().clear();
        CJTTraceHelper::getInstance().setHandler(MEDIA, &Recorder::handle, "Recorder");
    }
    ~Recorder() { CJTTraceHelper::getInstance().setHandler(MEDIA, &CJTTraceHelper::sendToKernelTrace, "Kernel Trace"); }

    std::vector<Record> take()
    {
        std::lock_guard<std::mutex> guard(lock());
        std::vector<Record> out;
        out.swap(records());
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

// Redirects a descriptor (1 or 2) into a pipe until finish() or destruction; a reader thread
// drains the pipe so writers never block on a full pipe.
class FdCapture
{
public:
    explicit FdCapture(int fd) : mFd(fd)
    {
        fflush(nullptr);
        if (pipe(mPipe) != 0)
            abort();
        mSaved = dup(fd);
        dup2(mPipe[1], fd);
        close(mPipe[1]);
        mReader = std::thread([this] {
            char buffer[4096];
            ssize_t n;
            while ((n = read(mPipe[0], buffer, sizeof(buffer))) > 0)
                mText.append(buffer, static_cast<size_t>(n));
        });
    }
    ~FdCapture() { finish(); }

    std::string finish()
    {
        if (mSaved >= 0) {
            fflush(nullptr);
            dup2(mSaved, mFd);  // drops the last write end of the pipe: the reader sees its end
            close(mSaved);
            mSaved = -1;
            mReader.join();
            close(mPipe[0]);
        }
        return mText;
    }

private:
    int mFd;
    int mPipe[2];
    int mSaved;
    std::thread mReader;
    std::string mText;
};

// A file in the system's temporary folder, removed again on destruction.
class TempFile
{
public:
    explicit TempFile(const std::string& contents)
    {
        char name[] = "/tmp/unit_trace_XXXXXX";
        int fd = mkstemp(name);
        if (fd < 0)
            abort();
        mPath = name;
        if (write(fd, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()))
            abort();
        close(fd);
    }
    ~TempFile() { unlink(mPath.c_str()); }
    const char* path() const { return mPath.c_str(); }

private:
    std::string mPath;
};

// Keeps one block per name in memory.
class MemoryPersistence : public IJTTracePersistence
{
public:
    void load(const char* name, CJTByteStream& data) override
    {
        if (mHasBlock && mName == name)
            data.doWrite(mBlock.data(), static_cast<uint32_t>(mBlock.size()));
    }
    void store(const char* name, CJTByteStream& data) override
    {
        mName = name;
        mHasBlock = true;
        mBlock.assign(data.getData(), data.getData() + data.getSize());
    }
    void kill(const char* name) override
    {
        ++mKills;
        if (mName == name)
            mHasBlock = false;
    }
    bool isKillRequired() const override { return mKillRequired; }

    void setBlock(const char* name, std::vector<uint8_t> block)
    {
        mName = name;
        mBlock = std::move(block);
        mHasBlock = true;
    }

    std::string mName;
    std::vector<uint8_t> mBlock;
    bool mHasBlock = false;
    bool mKillRequired = false;
    int mKills = 0;
};
}

#endif
