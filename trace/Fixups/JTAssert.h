// JTAssert: assertions and fatal errors of the trace framework.
//
// doAssert reports a broken assumption and ends the process: it logs
// "<file>:<line>: ASSERTION \"<text>\" failed" (or "<file>:<line>: ASSERTION failed" without a
// text) at severity 2, prints the same framed by newlines to standard error, writes a backtrace
// file to /dev/shm under CBRADIO_ROOT (extension "ass") and ends through JTError::criticalError,
// which exits with status 1 under the default handler.
// Planned assertions: a test that provokes assertions on purpose announces how many with
// CJTAsserter::setExpectedAssertions(n); the first n assertions are then only counted and doAssert
// returns to its caller. The next one ends the process as usual.
//
// doFatalError logs "<file>:<line>: FATAL ERROR \"<text>\" occured" (the short form without a
// text) the same way and always ends the process; it is never planned.
// The "Cheap" variants are the same calls without a text.
//
// Thread safety: callable from any thread; the counters are atomic.
#ifndef JTASSERT_H
#define JTASSERT_H

extern "C" {
void doAssert(unsigned int line, const char* file, const char* text);
void doFatalError(unsigned int line, const char* file, const char* text) __attribute__((noreturn));
void doCheapAssert(unsigned int line, const char* file);
void doCheapFatalError(unsigned int line, const char* file) __attribute__((noreturn));
}

class CJTAsserter
{
public:
    static void setExpectedAssertions(unsigned int count);
    static unsigned int getExpectedAssertions();
    static void setOccuredAssertions(unsigned int count);
    static unsigned int getOccuredAssertions();

    // Counts one assertion. Returns true when it was one of the expected ones, so the caller
    // returns quietly; false when it must end the process.
    static bool logAssertion();
};

#define JT_ASSERT_MSG(cond, text)                 \
    do {                                          \
        if (!(cond))                              \
            doAssert(__LINE__, __FILE__, (text)); \
    } while (0)

#endif
