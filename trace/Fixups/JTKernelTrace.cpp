#include "JTKernelTrace.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr int kUnknown = -2;
constexpr int kAbsent = -1;

std::atomic<int> sMarker{kUnknown};

int openMarker()
{
    static const char* const kPaths[] = {"/sys/kernel/tracing/trace_marker", "/sys/kernel/debug/tracing/trace_marker"};
    for (const char* path : kPaths) {
        int fd = ::open(path, O_WRONLY | O_CLOEXEC);
        if (fd >= 0)
            return fd;
    }
    return kAbsent;
}

int marker()
{
    int fd = sMarker.load(std::memory_order_acquire);
    if (fd != kUnknown)
        return fd;
    const int savedErrno = errno;
    int opened = openMarker();
    errno = savedErrno;
    if (!sMarker.compare_exchange_strong(fd, opened, std::memory_order_acq_rel)) {
        if (opened >= 0)
            ::close(opened);  // another thread was first; keep its descriptor
        return fd;
    }
    return opened;
}

bool writeLine(const char* line, size_t length)
{
    int fd = marker();
    if (fd < 0)
        return true;  // no instrumentation in this kernel
    const int savedErrno = errno;
    ssize_t written;
    do {
        written = ::write(fd, line, length);
    } while (written < 0 && errno == EINTR);
    errno = savedErrno;
    return written == static_cast<ssize_t>(length);
}

size_t clamp(int length, size_t size)
{
    if (length < 0)
        return 0;
    return static_cast<size_t>(length) < size ? static_cast<size_t>(length) : size - 1;
}
}

bool JTKernelTrace::addStringUserEvent(unsigned int event, const char* text)
{
    if (text == nullptr)
        return false;
    char line[1024];
    size_t length = clamp(std::snprintf(line, sizeof(line), "JT event %u: %s\n", event, text), sizeof(line));
    if (length > 0 && line[length - 1] != '\n')
        line[length - 1] = '\n';
    return writeLine(line, length);
}

bool JTKernelTrace::addSimpleUserEvent(unsigned int event, int a, int b)
{
    char line[64];
    size_t length = clamp(std::snprintf(line, sizeof(line), "JT event %u: %d %d\n", event, a, b), sizeof(line));
    return writeLine(line, length);
}

bool JTKernelTrace::addComplexUserEvent(unsigned int event, const void* data, unsigned int length)
{
    if (data == nullptr || length == 0)
        return false;
    static const char kHex[] = "0123456789ABCDEF";
    char line[1024];
    size_t used = clamp(std::snprintf(line, sizeof(line), "JT event %u: ", event), sizeof(line));
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (unsigned int i = 0; i < length && used + 3 < sizeof(line); ++i) {
        line[used++] = kHex[bytes[i] >> 4];
        line[used++] = kHex[bytes[i] & 0x0F];
    }
    line[used++] = '\n';
    return writeLine(line, used);
}
