#include "JTError.h"

#include "JTSyslog.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace
{
struct SHandler
{
    JTError::tErrorHandler function;
    void* context;
};

// Constant-initialised, so critical errors during static initialisation find the exit handler.
std::mutex sHandlerLock;
SHandler sHandler = {&JTError::exitHandler, nullptr};

SHandler currentHandler()
{
    std::lock_guard<std::mutex> guard(sHandlerLock);
    return sHandler;
}

const char* systemText(int error)
{
    const char* text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown";
}
}

void JTError::setErrorHandler(tErrorHandler handler, void* context)
{
    std::lock_guard<std::mutex> guard(sHandlerLock);
    sHandler.function = handler != nullptr ? handler : &JTError::exitHandler;
    sHandler.context = handler != nullptr ? context : nullptr;
}

JTError::tErrorHandler JTError::getErrorHandler()
{
    return currentHandler().function;
}

void JTError::criticalError(unsigned int module, const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format != nullptr ? format : "", args);
    va_end(args);
    JTSyslog::logMsg(module, JTSyslog::SEV_CRITICAL, "%s", text);

    SHandler handler = currentHandler();
    handler.function(handler.context);
    std::abort();
}

void JTError::exitHandler(void*)
{
    // A critical error raised by an exit-time destructor must not exit a second time.
    setErrorHandler(&JTError::abortHandler, nullptr);
    JTSyslog::logMsg(0, JTSyslog::SEV_INFO, "terminating process using exit(EXIT_FAILURE)");
    std::exit(EXIT_FAILURE);
}

void JTError::abortHandler(void*)
{
    JTSyslog::logMsg(0, JTSyslog::SEV_INFO, "terminating process using abort()");
    std::abort();
}

void JTError::fatalError(unsigned int module, const char* text)
{
    JTSyslog::logMsg(module, JTSyslog::SEV_CRITICAL, "%s - aborting process", text != nullptr ? text : "");
    std::abort();
}

void JTError::fatalOSError(unsigned int module, const char* text)
{
    fatalOSError(module, errno, text);
}

void JTError::fatalOSError(unsigned int module, int error, const char* text)
{
    JTSyslog::logMsg(module, JTSyslog::SEV_CRITICAL, "%s (operating system error %d, %s) - aborting process",
                     text != nullptr ? text : "", error, systemText(error));
    std::abort();
}

void JTError::reportOSError(unsigned int module, unsigned int severity, const char* text)
{
    reportOSError(module, severity, errno, text);
}

void JTError::reportOSError(unsigned int module, unsigned int severity, int error, const char* text)
{
    JTSyslog::logMsg(module, severity, "%s (operating system error %d, %s)", text != nullptr ? text : "", error,
                     systemText(error));
}
