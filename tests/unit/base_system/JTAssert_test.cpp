#include "JTAssert.h"
#include "ChildProcess.h"
#include "TempRoot.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace
{
// In a death-test child: also show the system log lines on stderr.
void mirrorSyslog()
{
    setenv("CBRADIO_SYSLOG_STDERR", "1", 1);
}
}

TEST(JTAssertDeathTest, PlannedAssertionsReturnUntilThePlanIsUsedUpFatalErrorsIgnoreIt)
{
    TempRoot root;
    CJTAsserter::setExpectedAssertions(5);
    EXPECT_EXIT(doFatalError(9, "c.cpp", "disk gone"), ::testing::ExitedWithCode(1),
                "\nc.cpp:9: FATAL ERROR \"disk gone\" occured\n");
    EXPECT_TRUE(root.list("/dev/shm").empty()) << "fatal errors write no backtrace";

    CJTAsserter::setOccuredAssertions(0);
    CJTAsserter::setExpectedAssertions(1);
    JT_ASSERT_MSG(1 + 1 == 3, "first");
    JT_ASSERT_MSG(true, "passes");
    EXPECT_EQ(CJTAsserter::getOccuredAssertions(), 1u) << "a passing assertion is not counted";
    EXPECT_EXIT(JT_ASSERT_MSG(false, "second"), ::testing::ExitedWithCode(1),
                "/JTAssert_test.cpp:[0-9]+: ASSERTION \"second\" failed\n");
    CJTAsserter::setExpectedAssertions(0);
    CJTAsserter::setOccuredAssertions(0);
}

TEST(JTAssertDeathTest, FailedAssertionLogsReportsAndLeavesABacktrace)
{
    TempRoot root;
    EXPECT_EXIT((mirrorSyslog(), doAssert(42, "unit.cpp", "x > 0")), ::testing::ExitedWithCode(1),
                "pid [0-9]+: unit.cpp:42: ASSERTION \"x > 0\" failed\n"
                "\nunit.cpp:42: ASSERTION \"x > 0\" failed\n"
                "pid [0-9]+: unit.cpp:42: ASSERTION \"x > 0\" failed\n"
                "pid [0-9]+: terminating process using exit\\(EXIT_FAILURE\\)\n");
    std::vector<std::string> files = root.list("/dev/shm");
    ASSERT_EQ(files.size(), 1u);
    std::string text = readFile(root.path() + "/dev/shm/" + files[0]);
    EXPECT_EQ(text.rfind("\n[backtrace] INFO - ASSERTION \"x > 0\" failed in unit.cpp 42\n", 0), 0u) << text;
}

TEST(JTAssertDeathTest, CheapFormsUseTheShortTexts)
{
    TempRoot root;
    EXPECT_EXIT((mirrorSyslog(), doCheapAssert(7, "a.cpp")), ::testing::ExitedWithCode(1),
                "\na.cpp:7: ASSERTION failed\npid [0-9]+: a.cpp:7: ASSERTION failed\n");
    EXPECT_EXIT((mirrorSyslog(), doCheapFatalError(8, "b.cpp")), ::testing::ExitedWithCode(1),
                "\nb.cpp:8: FATAL ERROR occured\npid [0-9]+: b.cpp:8: FATAL ERROR occured\n");
}
