// JTError: the ways the trace framework ends a process, and its reports of system errors.
//
// criticalError logs its printf-formatted text at severity 1 (critical), calls the installed error
// handler with its context and, should the handler return, aborts. The default handler is the exit
// handler: it installs the abort handler (so a critical error raised while exiting aborts), logs
// "terminating process using exit(EXIT_FAILURE)" at severity 5 and exits with status 1. The abort
// handler logs "terminating process using abort()" at severity 5 and aborts.
// setErrorHandler(null, ...) selects the exit handler again.
//
// fatalError logs "<text> - aborting process" at severity 1 and aborts; fatalOSError logs
// "<text> (operating system error <n>, <system text or "unknown">) - aborting process" and aborts.
// Neither calls the handler. reportOSError logs "<text> (operating system error <n>, <system text>)"
// at the given severity and returns. Without an error argument the current errno is used.
//
// Thread safety: any thread. The handler and its context are swapped as one pair under a lock.
#ifndef JTERROR_H
#define JTERROR_H

class JTError
{
public:
    typedef void (*tErrorHandler)(void* context);

    static void setErrorHandler(tErrorHandler handler, void* context);
    static tErrorHandler getErrorHandler();

    static void criticalError(unsigned int module, const char* format, ...)
        __attribute__((format(printf, 2, 3), noreturn));

    static void fatalError(unsigned int module, const char* text) __attribute__((noreturn));
    static void fatalOSError(unsigned int module, const char* text) __attribute__((noreturn));
    static void fatalOSError(unsigned int module, int error, const char* text) __attribute__((noreturn));

    static void reportOSError(unsigned int module, unsigned int severity, const char* text);
    static void reportOSError(unsigned int module, unsigned int severity, int error, const char* text);

    // The two built-in handlers; the context is not used.
    static void exitHandler(void* context);
    static void abortHandler(void* context);
};

#endif
