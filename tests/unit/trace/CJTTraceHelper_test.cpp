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

TEST(CJTTraceHelper, SystemLogSeverityFollowsTheKind)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScopeDef def("Helper_Slog", "f", 0xFF, 4);
    tracetest::SyslogLines syslog;
    {
        CJTTraceScope scope(def);
        scope.sendError("e");
        scope.sendWarning("w");
        scope.sendMessage("m");
    }
    std::vector<std::string> lines;
    for (const std::string& line : syslog.take())
        if (line.find("]@") != std::string::npos)
            lines.push_back(withoutTimes(line + "\n").at(0));
    const std::string pid = "pid " + std::to_string(getpid()) + ": [";
    const std::string ids = "] (" + std::to_string(getpid()) + "." + std::to_string(gettid()) + "): ";
    EXPECT_EQ((std::vector<std::string>{"5 " + pid + "-->" + ids + "Helper_Slog_f", "3 " + pid + "ERR" + ids + "e",
                                        "4 " + pid + "WRN" + ids + "w", "5 " + pid + "MSG" + ids + "m",
                                        "5 " + pid + "<--" + ids + "Helper_Slog_f"}),
              lines);
}
