// CJTThreadCtrl: starting, naming, prioritising and joining the framework's threads.
//
// A thread runs one IRunnable: startThread creates a POSIX thread that calls runnable->run() and
// returns when run() returns. The runnable is not owned; it must outlive the thread.
//
// Linux notes, chosen so that a program behaves as on the head unit wherever it can:
// - Priorities are asked for with pthread_setschedprio. Under the default time-sharing policy the
//   kernel refuses any priority but 0; such a refusal is ignored and the thread runs unchanged.
// - The stack size is honoured, but never below PTHREAD_STACK_MIN; sanitizer builds reserve four
//   times the size asked for, since their instrumented frames are much larger.
// - Thread names are cut to the 15 characters Linux keeps ("CBRadioTraceThread" shows up as
//   "CBRadioTraceThr" in /proc/<pid>/task/<tid>/comm).
//
// Errors are returned (0 thread id, false, -1), never raised. Every function may be called from
// any thread.
#ifndef CJTTHREADCTRL_H
#define CJTTHREADCTRL_H

#include <pthread.h>
#include <cstddef>

class CJTThreadCtrl
{
public:
    // What a thread runs. run() is called once on the new thread.
    class IRunnable
    {
    public:
        virtual void run() = 0;
        virtual ~IRunnable() {}
    };

    enum { DEFAULTPRIORITY = 10, DEFAULTSTACKSIZE = 32768 };

    // Creates a thread running runnable->run() with the given stack size, then asks for the
    // priority (a refused priority is ignored). A detached thread cannot be joined. Returns the
    // thread id, 0 when the thread could not be created or runnable is null.
    static pthread_t startThread(IRunnable* runnable, bool detached, int priority = DEFAULTPRIORITY,
                                 size_t stackSize = DEFAULTSTACKSIZE);

    // The scheduling priority of a thread, -1 when it cannot be read.
    static int getPriority(pthread_t thread);

    // Asks for a scheduling priority; false when the scheduler refuses it (nothing changes then).
    static bool setPriority(pthread_t thread, int priority);

    // Names a thread (cut to 15 characters). False for a null name or an unknown thread.
    static bool setThreadName(pthread_t thread, const char* name);

    // Waits for a joinable thread to end: timeoutMs < 0 waits for ever. True when the thread has
    // ended and was reaped; false on time-out (the thread stays joinable) or for a bad thread.
    static bool join(pthread_t thread, int timeoutMs);

    // Ends the calling thread (it does not return).
    [[noreturn]] static void terminate();

    // Asks another thread to end at its next cancellation point; false if it is unknown.
    static bool terminate(pthread_t thread);
};

#endif
