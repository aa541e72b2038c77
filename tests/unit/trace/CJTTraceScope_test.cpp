#include "CJTTraceScope.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeManager.h"
#include "TraceTestSupport.h"

using tracetest::Recorder;
using Lines = std::vector<std::string>;

using tracetest::withoutTimes;

TEST(CJTTraceScope, NothingIsTracedBeforeTheHelperExists)
{
    CJTTraceHelper::destroy();
    CJTTraceScopeDef def("Scope_Early", "f", 0xFF, 0x0F);
    CJTTraceScope scope(def);
    EXPECT_FALSE(scope.isTraceFlagSet(64));
    scope.sendFormattedMessage("%d", 1);  // must not create the helper
    EXPECT_EQ(nullptr, CJTTraceHelper::getHelperPtr());
    CJTTraceHelper::getInstancePtr();
    EXPECT_TRUE(scope.isTraceFlagSet(64));
}

TEST(CJTTraceScope, FilterMediaAndSilentModeGateEveryMessage)
{
    Recorder recorder;
    CJTTraceScopeDef def("Scope_Gate", "f");  // filter 0 until configured
    CJTTraceScope scope(def);
    scope.sendMessage("filtered");
    def.setFilter(64);
    def.setMedia(0);
    EXPECT_FALSE(scope.isTraceFlagSet(64));
    scope.sendMessage("no media");
    def.setMedia(Recorder::MEDIA);
    scope.sendError("wrong kind");
    scope.sendMessage("wanted");
    CJTTraceScopeManager::getInstance().setSilent(true);
    EXPECT_FALSE(scope.isTraceFlagSet(64));
    scope.sendFormattedMessage("silent %d", 1);
    CJTTraceScopeManager::getInstance().setSilent(false);
    EXPECT_EQ(Lines{"64 wanted"}, recorder.take());

    // The entry bit switches both the entry and the exit record (of a temporary scope here).
    def.setFilter(4);
    CJTTraceScope{def};
    EXPECT_EQ((Lines{"4 Scope_Gate_f", "8 Scope_Gate_f"}), recorder.take());
    EXPECT_EQ(&def, Recorder::sLastDef);
    def.setFilter(8);
    CJTTraceScope{def};
    EXPECT_TRUE(recorder.take().empty());
}

TEST(CJTTraceScope, KindsOfPlainFormattedAndUnconditionalMessages)
{
    Recorder recorder;
    CJTTraceScopeDef def("Scope_Kinds", "f", 2 | 32 | 64, Recorder::MEDIA);
    CJTTraceScope scope(def);
    scope.sendMessage("m");
    scope.sendError("e");
    scope.sendWarning("w");
    scope.sendFormattedMessage("%s-%d", "fm", 1);
    scope.sendFormattedError("fe %02x", 10);
    scope.sendFormattedWarning("fw");
    EXPECT_EQ((Lines{"64 m", "2 e", "32 w", "64 fm-1", "2 fe 0a", "32 fw"}), recorder.take());

    // Formatted texts are cut to the 400-byte buffer.
    scope.sendFormattedMessage("%s", std::string(1000, 'x').c_str());
    EXPECT_EQ(Lines{"64 " + std::string(399, 'x')}, recorder.take());

    // Unconditional sends ignore filter and silent mode but not the media mask.
    def.setFilter(0);
    CJTTraceScopeManager::getInstance().setSilent(true);
    scope.sendMessageUnconditionally("um %d", 1);
    scope.sendErrorUnconditionally("ue");
    scope.sendWarningUnconditionally("uw");
    CJTTraceScopeManager::getInstance().setSilent(false);
    def.setMedia(0);
    scope.sendMessageUnconditionally("no media");
    EXPECT_EQ((Lines{"64 um 1", "2 ue", "32 uw"}), recorder.take());
}

TEST(CJTTraceScope, HexArrayLines)
{
    Recorder recorder;
    CJTTraceScopeDef def("Scope_Hex", "dump", 64, Recorder::MEDIA);
    CJTTraceScope scope(def);
    uint8_t data[25];
    for (int i = 0; i < 25; ++i)
        data[i] = static_cast<uint8_t>(i * 11);
    scope.sendHexArray(data, 25);
    scope.sendHexArray(data + 3, 1);
    scope.sendHexArray(data, 0);
    scope.sendHexArray(nullptr, 5);
    EXPECT_EQ((Lines{"64 HexArray: len = 25", "64 00 0B 16 21 2C 37 42 4D 58 63", "64 6E 79 84 8F 9A A5 B0 BB C6 D1",
                     "64 DC E7 F2 FD 08", "64 HexArray: len = 1", "64 21"}),
              recorder.take());
    def.setFilter(2);
    scope.sendHexArray(data, 5);
    EXPECT_TRUE(recorder.take().empty());
}

TEST(CJTTraceScope, ConsoleLinesOfManyThreadsNeverInterleave)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScopeDef def("Scope_Threads", "f", 64, 8);
    const int threads = 4;
    const int lines = 200;
    ::testing::internal::CaptureStdout();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&def, t] {
            CJTTraceScope scope(def);
            for (int i = 0; i < lines; ++i)
                scope.sendFormattedMessage("thread %d line %d 0123456789012345678901234567890123456789", t, i);
        });
    for (std::thread& w : workers)
        w.join();
    std::vector<int> next(threads, 0);
    for (const std::string& line : withoutTimes(::testing::internal::GetCapturedStdout())) {
        // Each thread's lines arrive whole and in its own order.
        int t = -1, n = -1;
        ASSERT_EQ(2, std::sscanf(line.c_str(), "[MSG] (%*u.%*u): thread %d line %d", &t, &n)) << line;
        EXPECT_EQ(line.substr(line.find("): ")), "): thread " + std::to_string(t) + " line " + std::to_string(n) +
                                                     " 0123456789012345678901234567890123456789");
        EXPECT_EQ(next.at(t)++, n) << line;
    }
    EXPECT_EQ(std::vector<int>(threads, lines), next);
}
