#include "JTSyslog.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

namespace
{
std::atomic<JTSyslog::tMirror> sMirror{nullptr};

int priorityOf(unsigned int severity)
{
    switch (severity) {
    case JTSyslog::SEV_CRITICAL:
        return LOG_CRIT;
    case JTSyslog::SEV_ERROR:
        return LOG_ERR;
    case JTSyslog::SEV_WARNING:
        return LOG_WARNING;
    case JTSyslog::SEV_NOTICE:
        return LOG_NOTICE;
    default:
        return LOG_INFO;
    }
}

bool mirrorToStderr()
{
    const char* value = std::getenv("CBRADIO_SYSLOG_STDERR");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

// One write(2) per line, so lines of several threads do not interleave.
void writeLineToStderr(const char* line)
{
    char buffer[1025];
    size_t length = std::strlen(line);
    if (length > sizeof(buffer) - 1)
        length = sizeof(buffer) - 1;
    std::memcpy(buffer, line, length);
    buffer[length] = '\n';
    ssize_t rc;
    do {
        rc = ::write(STDERR_FILENO, buffer, length + 1);
    } while (rc < 0 && errno == EINTR);
}
}

void JTSyslog::logMsg(unsigned int module, unsigned int severity, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vlogMsg(module, severity, format, args);
    va_end(args);
}

void JTSyslog::vlogMsg(unsigned int /*module*/, unsigned int severity, const char* format, va_list args)
{
    const int savedErrno = errno;  // callers log errno-based reports and may look at errno after
    char line[1024];
    int prefix = std::snprintf(line, sizeof(line), "pid %d: ", static_cast<int>(::getpid()));
    int body = std::vsnprintf(line + prefix, sizeof(line) - static_cast<size_t>(prefix),
                              format != nullptr ? format : "", args);
    if (body < 0) {
        std::fprintf(stderr, "pid: %d: cannot write to syslog: %s\n", static_cast<int>(::getpid()),
                     std::strerror(errno != 0 ? errno : EINVAL));
        errno = savedErrno;
        return;
    }
    ::syslog(priorityOf(severity), "%s", line);

    tMirror mirror = sMirror.load(std::memory_order_acquire);
    if (mirror != nullptr)
        mirror(severity, line);
    if (mirrorToStderr())
        writeLineToStderr(line);
    errno = savedErrno;
}

void JTSyslog::setMirror(tMirror fn)
{
    sMirror.store(fn, std::memory_order_release);
}
