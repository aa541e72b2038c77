#include "JTBacktrace.h"

#include "JTOperatingSystem.h"
#include "JTRootPrefix.h"
#include "JTSafeFile.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr int kMaxFrames = 64;

void defaultInfos(char* info, size_t infoSize, char* name, size_t nameSize)
{
    std::snprintf(info, infoSize, "TID: %d PID: %d", static_cast<int>(JTOperatingSystem::getCurrentTID()),
                  static_cast<int>(JTOperatingSystem::getCurrentPID()));
    std::snprintf(name, nameSize, "PID%d", static_cast<int>(JTOperatingSystem::getCurrentPID()));
}

std::atomic<JTBacktrace::tInfoProvider> sProvider{&defaultInfos};

// backtrace(3) loads its unwinder on first use, which allocates; do that while memory is plenty.
struct SUnwinderLoader
{
    SUnwinderLoader()
    {
        void* frames[1];
        (void)backtrace(frames, 1);
    }
};
SUnwinderLoader sUnwinderLoader;

void writeAll(int fd, const char* text, size_t length)
{
    while (length > 0) {
        ssize_t written = ::write(fd, text, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        text += written;
        length -= static_cast<size_t>(written);
    }
}
}

void JTBacktrace::setInfos(tInfoProvider provider)
{
    sProvider.store(provider != nullptr ? provider : &defaultInfos, std::memory_order_release);
}

bool JTBacktrace::resolveDirectory(const char* directory, char* hostPath, size_t size)
{
    if (directory == nullptr || *directory == '\0')
        directory = DEFAULT_DIRECTORY;
    if (std::strcmp(directory, DEFAULT_DIRECTORY) == 0)
        directory = "/dev/shm";
    const std::string& prefix = JTRootPrefix::get();
    const char* root = directory[0] == '/' ? prefix.c_str() : "";
    int length = std::snprintf(hostPath, size, "%s%s", root, directory);
    return length >= 0 && static_cast<size_t>(length) < size;
}

bool JTBacktrace::doBacktrace(const char* message, const char* directory, const char* extension)
{
    const int savedErrno = errno;
    char info[256];
    char name[64];
    info[0] = name[0] = '\0';
    sProvider.load(std::memory_order_acquire)(info, sizeof(info), name, sizeof(name));

    char folder[400];
    char path[512];
    if (!resolveDirectory(directory, folder, sizeof(folder))) {
        std::fprintf(stderr, "Cannot open %s\n", directory);
        errno = savedErrno;
        return false;
    }
    std::snprintf(path, sizeof(path), "%s/%s.%s", folder, name, extension != nullptr ? extension : "");

    // The notes are written to a new file of our own beside the target, after what earlier notes
    // of this process left there, and renamed over the target: a link planted at either name is
    // never followed, and no file is made in a folder where others could swap it.
    char temporary[540];
    std::snprintf(temporary, sizeof(temporary), "%s.%d.tmp", path,
                  static_cast<int>(JTOperatingSystem::getCurrentTID()));
    int fd = JTSafeFile::makeFolder(folder) ? JTSafeFile::createExclusive(temporary, 0644) : -1;
    if (fd < 0) {
        std::fprintf(stderr, "Cannot open %s\n", path);
        errno = savedErrno;
        return false;
    }
    int earlier;
    do {
        earlier = ::open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    } while (earlier < 0 && errno == EINTR);
    if (earlier >= 0) {
        char block[1024];
        ssize_t got;
        while ((got = ::read(earlier, block, sizeof(block))) > 0 || (got < 0 && errno == EINTR))
            if (got > 0)
                writeAll(fd, block, static_cast<size_t>(got));
        ::close(earlier);
    }

    char text[1024];
    std::snprintf(text, sizeof(text), "\n[backtrace] INFO - %s\n", message != nullptr ? message : "");
    writeAll(fd, text, std::strlen(text));
    std::snprintf(text, sizeof(text), "\n%s\n", info);
    writeAll(fd, text, std::strlen(text));

    void* frames[kMaxFrames];
    int count = backtrace(frames, kMaxFrames);
    backtrace_symbols_fd(frames, count, fd);
    bool done = ::close(fd) == 0 && ::rename(temporary, path) == 0;
    if (!done) {
        ::unlink(temporary);
        std::fprintf(stderr, "Cannot open %s\n", path);
    }
    errno = savedErrno;
    return done;
}
