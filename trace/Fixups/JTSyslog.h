// JTSyslog: the framework's writer to the system logger.
//
// Every line is "pid <pid>: " followed by the printf-formatted text, cut to 1023 bytes, and goes to
// syslog(3) under the process's name as identity. Severities 1 to 5 map to LOG_CRIT, LOG_ERR,
// LOG_WARNING, LOG_NOTICE and LOG_INFO; any other value is logged as LOG_INFO. The module number is
// accepted for the callers' sake; the Linux logger has no field for it.
//
// Errors: syslog(3) reports none, so the only failure left is a line that cannot be formatted; then
// "pid: <pid>: cannot write to syslog: <reason>\n" goes to standard error and nothing is logged.
//
// Observation: a mirror function (none by default) receives every formatted line on the caller's
// thread, after it was logged; with CBRADIO_SYSLOG_STDERR=1 in the environment each line is also
// written to standard error followed by a newline. Both are meant for tests and bench runs.
//
// Thread safety: every function may be called from any thread, also before main() and from the
// allocator (no heap is used). setMirror is a plain atomic store; a mirror must stay callable
// until it has been replaced.
#ifndef JTSYSLOG_H
#define JTSYSLOG_H

#include <cstdarg>

class JTSyslog
{
public:
    enum { SEV_CRITICAL = 1, SEV_ERROR = 2, SEV_WARNING = 3, SEV_NOTICE = 4, SEV_INFO = 5 };

    static void logMsg(unsigned int module, unsigned int severity, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void vlogMsg(unsigned int module, unsigned int severity, const char* format, va_list args);

    typedef void (*tMirror)(unsigned int severity, const char* line);
    static void setMirror(tMirror fn);
};

#endif
