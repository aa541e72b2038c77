#include "JTStartupOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace
{
const char kMemtrace[] = "--memtrace=";

// Everything below lives in malloc'd memory: operator new would ask us for the trace level.
struct SModuleData
{
    JTStartupOptions::SOptions options;
    int argc;
    char** argv;
    char* commandLine;
};

SModuleData sData = {{1u, true}, 0, nullptr, nullptr};
pthread_once_t sOnce = PTHREAD_ONCE_INIT;
char sEmpty[1] = "";

char* readCmdline(size_t& length)
{
    length = 0;
    int fd;
    do {
        fd = ::open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return nullptr;
    size_t capacity = 4096;
    char* buffer = static_cast<char*>(std::malloc(capacity + 1));
    while (buffer != nullptr) {
        if (length == capacity) {
            capacity *= 2;
            char* bigger = static_cast<char*>(std::realloc(buffer, capacity + 1));
            if (bigger == nullptr) {
                std::free(buffer);
                buffer = nullptr;
                break;
            }
            buffer = bigger;
        }
        ssize_t got = ::read(fd, buffer + length, capacity - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        length += static_cast<size_t>(got);
    }
    ::close(fd);
    if (buffer != nullptr)
        buffer[length] = '\0';
    return buffer;
}

void readOnce()
{
    const int savedErrno = errno;
    size_t length = 0;
    char* raw = readCmdline(length);
    if (raw != nullptr && length > 0) {
        int count = 0;
        for (size_t i = 0; i < length; ++i)
            if (raw[i] == '\0')
                ++count;
        if (raw[length - 1] != '\0')
            ++count;  // last argument cut off without its terminator
        char** argv = static_cast<char**>(std::malloc(sizeof(char*) * (static_cast<size_t>(count) + 1)));
        if (argv != nullptr) {
            int index = 0;
            for (size_t pos = 0; pos < length && index < count; pos += std::strlen(raw + pos) + 1)
                argv[index++] = raw + pos;
            argv[index] = nullptr;
            sData.argc = index;
            sData.argv = argv;
            sData.options = JTStartupOptions::parse(index, argv);
            size_t needed = JTStartupOptions::joinArguments(index, argv, nullptr, 0);
            sData.commandLine = static_cast<char*>(std::malloc(needed + 1));
            if (sData.commandLine != nullptr)
                JTStartupOptions::joinArguments(index, argv, sData.commandLine, needed + 1);
        }
    }
    errno = savedErrno;
}

const SModuleData& data()
{
    pthread_once(&sOnce, readOnce);
    return sData;
}

// Reads the options before main(), so that they are in place before any thread starts.
struct TJTStartupCaller
{
    TJTStartupCaller() { (void)data(); }
};
TJTStartupCaller sStartupCaller;
}

JTStartupOptions::SOptions JTStartupOptions::parse(int argc, const char* const* argv)
{
    SOptions options = {1u, true};
    if (argv == nullptr)
        return options;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (arg == nullptr)
            continue;
        if (std::strcmp(arg, "--nobreak") == 0) {
            options.breakEnabled = false;
        } else if (std::strncmp(arg, kMemtrace, sizeof(kMemtrace) - 1) == 0) {
            unsigned int level = 0;
            // Levels above 1 are reserved; they leave the level as it was.
            if (std::sscanf(arg + sizeof(kMemtrace) - 1, "%u", &level) == 1 && level <= 1)
                options.memoryTraceLevel = level;
        }
    }
    return options;
}

size_t JTStartupOptions::joinArguments(int argc, const char* const* argv, char* out, size_t outSize)
{
    size_t total = 0;
    auto put = [&](const char* text, size_t length) {
        if (out != nullptr && outSize > 0 && total < outSize - 1) {
            size_t room = outSize - 1 - total;
            std::memcpy(out + total, text, length < room ? length : room);
        }
        total += length;
    };
    bool first = true;
    for (int i = 1; argv != nullptr && i < argc; ++i) {
        if (argv[i] == nullptr)
            continue;
        if (!first)
            put(" ", 1);
        put(argv[i], std::strlen(argv[i]));
        first = false;
    }
    if (out != nullptr && outSize > 0)
        out[total < outSize - 1 ? total : outSize - 1] = '\0';
    return total;
}

unsigned int JTStartupOptions::getMemoryTraceLevel()
{
    return data().options.memoryTraceLevel;
}

bool JTStartupOptions::isBreakEnabled()
{
    return data().options.breakEnabled;
}

const char* JTStartupOptions::getCommandLine()
{
    const char* line = data().commandLine;
    return line != nullptr ? line : sEmpty;
}

int JTStartupOptions::getArgc()
{
    return data().argc;
}

char** JTStartupOptions::getArgv()
{
    return data().argv;
}
