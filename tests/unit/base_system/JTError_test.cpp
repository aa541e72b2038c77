#include "JTError.h"
#include "JTSyslog.h"
#include "TempRoot.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{
std::vector<std::pair<unsigned int, std::string>> gLines;
void collect(unsigned int severity, const char* line)
{
    gLines.emplace_back(severity, line);
}

void exitWithContext(void* context)
{
    std::fprintf(stderr, "handler got %s\n", static_cast<const char*>(context));
    std::exit(7);
}
void returningHandler(void*) {}
void criticalAtExit()
{
    JTError::criticalError(0, "again");
}
// In a death-test child: also show the system log lines on stderr.
void mirrorSyslog()
{
    setenv("CBRADIO_SYSLOG_STDERR", "1", 1);
}
}

TEST(JTError, ReportOSErrorLogsAtTheGivenSeverityAndReturns)
{
    gLines.clear();
    JTSyslog::setMirror(&collect);
    JTError::reportOSError(3, JTSyslog::SEV_WARNING, ENOENT, "open /dev/x");
    errno = EACCES;
    JTError::reportOSError(3, JTSyslog::SEV_NOTICE, "write");
    JTError::reportOSError(3, JTSyslog::SEV_ERROR, 4321, "odd");
    JTSyslog::setMirror(nullptr);
    const std::string pid = "pid " + std::to_string(getpid()) + ": ";
    EXPECT_EQ(gLines, (std::vector<std::pair<unsigned int, std::string>>{
                          {3, pid + "open /dev/x (operating system error 2, No such file or directory)"},
                          {4, pid + "write (operating system error 13, Permission denied)"},
                          {2, pid + "odd (operating system error 4321, unknown)"}}));
}

TEST(JTErrorDeathTest, HandlerGetsItsContextAndNullRestoresTheExitHandler)
{
    static char context[] = "ctx-17";
    JTError::setErrorHandler(&exitWithContext, context);
    EXPECT_EXIT(JTError::criticalError(0, "boom %d", 1), ::testing::ExitedWithCode(7), "handler got ctx-17");
    JTError::setErrorHandler(nullptr, context);
    EXPECT_EQ(JTError::getErrorHandler(), &JTError::exitHandler);
    EXPECT_EXIT((mirrorSyslog(), JTError::criticalError(0, "boom %d", 2)), ::testing::ExitedWithCode(1),
                "pid [0-9]+: boom 2\npid [0-9]+: terminating process using exit\\(EXIT_FAILURE\\)\n");
}

// A handler that returns, a critical error while exiting and fatal errors all abort; fatal errors
// skip the handler.
TEST(JTErrorDeathTest, EverythingElseAborts)
{
    JTError::setErrorHandler(&returningHandler, nullptr);
    EXPECT_EXIT(JTError::criticalError(0, "x"), ::testing::KilledBySignal(SIGABRT), "");
    JTError::setErrorHandler(nullptr, nullptr);
    EXPECT_EXIT((mirrorSyslog(), std::atexit(&criticalAtExit), JTError::criticalError(0, "first")),
                ::testing::KilledBySignal(SIGABRT),
                "exit\\(EXIT_FAILURE\\)\npid [0-9]+: again\npid [0-9]+: terminating process using abort\\(\\)\n");

    JTError::setErrorHandler(&exitWithContext, nullptr);
    EXPECT_EXIT((mirrorSyslog(), JTError::fatalError(0, "broken")), ::testing::KilledBySignal(SIGABRT),
                "pid [0-9]+: broken - aborting process\n");
    EXPECT_EXIT((mirrorSyslog(), JTError::fatalOSError(0, EIO, "read")), ::testing::KilledBySignal(SIGABRT),
                "pid [0-9]+: read \\(operating system error 5, Input/output error\\) - aborting process\n");
    JTError::setErrorHandler(nullptr, nullptr);
}
