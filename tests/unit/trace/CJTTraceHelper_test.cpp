#include "CJTTraceHelper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CJTTraceScope.h"
#include "CJTTraceScopeManager.h"
#include "JTAssert.h"
#include "JTOperatingSystem.h"
#include "TraceTestSupport.h"

using tracetest::withoutTimes;

namespace
{
std::vector<std::string> gCalls;
std::vector<CJTTraceHelper::tTraceMessageInfo> gInfos;

template <int SLOT>
void slotHandler(const CJTTraceHelper::tTraceMessageInfo& info)
{
    gCalls.push_back("slot" + std::to_string(SLOT) + ":" + info.text);
    gInfos.push_back(info);
}

// Installs recording handlers in all four slots and puts the built-in ones back afterwards.
struct AllSlots : ::testing::Test
{
    void SetUp() override
    {
        gCalls.clear();
        gInfos.clear();
        helper().setHandler(1, slotHandler<1>, "one");
        helper().setHandler(2, slotHandler<2>, "two");
        helper().setHandler(4, slotHandler<4>, "four");
        helper().setHandler(8, slotHandler<8>, "eight");
    }
    void TearDown() override
    {
        helper().setHandler(1, CJTTraceHelper::sendToTraceClient, "Trace Client");
        helper().setHandler(2, CJTTraceHelper::sendToKernelTrace, "Kernel Trace");
        helper().setHandler(4, CJTTraceHelper::sendToSlog, "Slog");
        helper().setHandler(8, CJTTraceHelper::sendToConsole, "Console");
    }
    static CJTTraceHelper& helper() { return CJTTraceHelper::getInstance(); }
};
}

TEST_F(AllSlots, HandlersRunInMediaBitOrderWithTheMessageInformation)
{
    CJTTraceScopeDef def("Helper_Order", "f", 64, 0x0F);
    uint32_t before = JTOperatingSystem::currentTimeMs();
    helper().sendTraceMsg(64, "all", def);
    def.setMedia(0x05);
    helper().sendTraceMsg(2, "some", def);
    def.setMedia(0xF0);  // bits above 8 select nothing
    helper().sendTraceMsg(2, "none", def);
    EXPECT_EQ((std::vector<std::string>{"slot1:all", "slot2:all", "slot4:all", "slot8:all", "slot1:some",
                                        "slot4:some"}),
              gCalls);
    const CJTTraceHelper::tTraceMessageInfo& info = gInfos.back();
    EXPECT_EQ(2, info.kind);
    EXPECT_EQ(static_cast<uint32_t>(getpid()), info.processId);
    EXPECT_EQ(JTOperatingSystem::getCurrentTID(), info.threadId);
    EXPECT_EQ(&def, info.scopeDef);
    EXPECT_LE(info.timeMs - before, 1000u);

    // A message without a scope goes to the trace client through a short-lived definition.
    gCalls.clear();
    uint16_t count = CJTTraceScopeManager::getInstance().getNumberOfScopes();
    helper().sendTraceMsg(32, "loose");
    EXPECT_EQ(std::vector<std::string>{"slot1:loose"}, gCalls);
    EXPECT_EQ(count, CJTTraceScopeManager::getInstance().getNumberOfScopes());
}

TEST_F(AllSlots, SetHandlerAcceptsOnlySingleMediaBits)
{
    CJTTraceHelper& h = helper();
    h.setHandler(8, nullptr, "ignored");
    EXPECT_STREQ("eight", h.getHandlerName(3));
    EXPECT_EQ(nullptr, h.getHandlerName(4));
    h.setHandler(3, CJTTraceHelper::sendToNirvana, "three");
    h.setHandler(7, CJTTraceHelper::sendToNirvana, "seven");
    unsigned occurred = CJTAsserter::getOccuredAssertions();
    CJTAsserter::setExpectedAssertions(occurred + 2);
    h.setHandler(0, CJTTraceHelper::sendToNirvana, "zero");
    h.setHandler(9, CJTTraceHelper::sendToNirvana, "nine");
    EXPECT_EQ(occurred + 2, CJTAsserter::getOccuredAssertions());
    CJTAsserter::setExpectedAssertions(0);
    CJTAsserter::setOccuredAssertions(0);
    for (unsigned slot = 0; slot < 4; ++slot)
        EXPECT_NE(reinterpret_cast<void*>(CJTTraceHelper::sendToNirvana), reinterpret_cast<void*>(h.getHandler(slot)));
}

// The console and system log handlers write "[prefix]@ms (pid.tid): text" lines. On the console
// errors and warnings go to standard error, all else to standard output, each line whole (see the
// scope test for many threads); in the system log errors have severity 3, warnings 4, all else 5.
TEST(CJTTraceHelper, ConsoleStreamAndSystemLogSeverityFollowTheKind)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScopeDef def("Helper_Out", "f", 0xFF, 4 | 8);
    tracetest::SyslogLines syslog;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    {
        CJTTraceScope scope(def);
        scope.sendFormattedMessage("hello %d", 42);
        scope.sendError("broken");
        scope.sendWarning("careful");
        scope.sendMessage("50% done");
    }
    const std::string err = ::testing::internal::GetCapturedStderr();
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string ids = " (" + std::to_string(getpid()) + "." + std::to_string(gettid()) + "): ";
    auto line = [&](const char* prefix, const char* text) { return "[" + std::string(prefix) + "]" + ids + text; };
    EXPECT_EQ((std::vector<std::string>{line("-->", "Helper_Out_f"), line("MSG", "hello 42"), line("MSG", "50% done"),
                                        line("<--", "Helper_Out_f")}),
              withoutTimes(out));
    EXPECT_EQ((std::vector<std::string>{line("ERR", "broken"), line("WRN", "careful")}), withoutTimes(err));
    std::vector<std::string> logged;
    for (const std::string& text : syslog.take())
        if (text.find("]@") != std::string::npos)
            logged.push_back(withoutTimes(text + "\n").at(0));
    const std::string pid = " pid " + std::to_string(getpid()) + ": ";
    EXPECT_EQ((std::vector<std::string>{"5" + pid + line("-->", "Helper_Out_f"), "5" + pid + line("MSG", "hello 42"),
                                        "3" + pid + line("ERR", "broken"), "4" + pid + line("WRN", "careful"),
                                        "5" + pid + line("MSG", "50% done"), "5" + pid + line("<--", "Helper_Out_f")}),
              logged);
}
