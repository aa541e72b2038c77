#include "JTAssert.h"

#include "JTBacktrace.h"
#include "JTError.h"
#include "JTSyslog.h"

#include <atomic>
#include <cstdio>

namespace
{
std::atomic<unsigned int> sExpected{0};
std::atomic<unsigned int> sOccured{0};

const char* fileName(const char* file)
{
    return file != nullptr ? file : "unknown";
}
}

void CJTAsserter::setExpectedAssertions(unsigned int count)
{
    sExpected.store(count, std::memory_order_relaxed);
}

unsigned int CJTAsserter::getExpectedAssertions()
{
    return sExpected.load(std::memory_order_relaxed);
}

void CJTAsserter::setOccuredAssertions(unsigned int count)
{
    sOccured.store(count, std::memory_order_relaxed);
}

unsigned int CJTAsserter::getOccuredAssertions()
{
    return sOccured.load(std::memory_order_relaxed);
}

bool CJTAsserter::logAssertion()
{
    unsigned int before = sOccured.fetch_add(1, std::memory_order_relaxed);
    return before < sExpected.load(std::memory_order_relaxed);
}

extern "C" void doAssert(unsigned int line, const char* file, const char* text)
{
    if (CJTAsserter::logAssertion())
        return;
    file = fileName(file);
    char message[512];
    if (text != nullptr) {
        JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "%s:%u: ASSERTION \"%s\" failed", file, line, text);
        std::fprintf(stderr, "\n%s:%u: ASSERTION \"%s\" failed\n", file, line, text);
        std::snprintf(message, sizeof(message), "ASSERTION \"%s\" failed in %s %d", text, file, static_cast<int>(line));
        JTBacktrace::doBacktrace(message, JTBacktrace::DEFAULT_DIRECTORY, "ass");
        JTError::criticalError(0, "%s:%d: ASSERTION \"%s\" failed", file, static_cast<int>(line), text);
    }
    JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "%s:%u: ASSERTION failed", file, line);
    std::fprintf(stderr, "\n%s:%u: ASSERTION failed\n", file, line);
    std::snprintf(message, sizeof(message), "ASSERTION failed in %s %d", file, static_cast<int>(line));
    JTBacktrace::doBacktrace(message, JTBacktrace::DEFAULT_DIRECTORY, "ass");
    JTError::criticalError(0, "%s:%d: ASSERTION failed", file, static_cast<int>(line));
}

extern "C" void doFatalError(unsigned int line, const char* file, const char* text)
{
    file = fileName(file);
    if (text != nullptr) {
        JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "%s:%u: FATAL ERROR \"%s\" occured", file, line, text);
        std::fprintf(stderr, "\n%s:%u: FATAL ERROR \"%s\" occured\n", file, line, text);
        JTError::criticalError(0, "%s:%d: FATAL ERROR \"%s\" occured", file, static_cast<int>(line), text);
    }
    JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "%s:%u: FATAL ERROR occured", file, line);
    std::fprintf(stderr, "\n%s:%u: FATAL ERROR occured\n", file, line);
    JTError::criticalError(0, "%s:%d: FATAL ERROR occured", file, static_cast<int>(line));
}

extern "C" void doCheapAssert(unsigned int line, const char* file)
{
    doAssert(line, file, nullptr);
}

extern "C" void doCheapFatalError(unsigned int line, const char* file)
{
    doFatalError(line, file, nullptr);
}
