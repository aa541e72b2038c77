#include "CJTTraceScope.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "CJTTraceHelper.h"
#include "CJTTraceScopeManager.h"
#include "TraceTestSupport.h"

using tracetest::Record;
using tracetest::Recorder;

namespace
{
// True if line is "[<prefix>]@<ms> (<pidTid>): <text>"; an empty pidTid accepts any "<n>.<n>".
bool isConsoleLine(const std::string& line, const std::string& prefix, const std::string& pidTid, const std::string& text)
{
    std::string head = "[" + prefix + "]@";
    if (line.compare(0, head.size(), head) != 0)
        return false;
    size_t pos = head.size();
    size_t digits = line.find_first_not_of("0123456789", pos);
    if (digits == pos || digits == std::string::npos || line.compare(digits, 2, " (") != 0)
        return false;
    pos = digits + 2;
    size_t close = line.find("): ", pos);
    if (close == std::string::npos)
        return false;
    std::string ids = line.substr(pos, close - pos);
    if (pidTid.empty() ? ids.find_first_not_of("0123456789.") != std::string::npos || ids.find('.') == std::string::npos
                       : ids != pidTid)
        return false;
    return line.substr(close + 3) == text;
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start) + "<no newline>");
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::vector<std::string> texts(const std::vector<Record>& records)
{
    std::vector<std::string> out;
    for (const Record& r : records)
        out.push_back(r.text);
    return out;
}
}

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
    EXPECT_FALSE(scope.isTraceFlagSet(64));

    def.setFilter(64);
    def.setMedia(0);
    EXPECT_FALSE(scope.isTraceFlagSet(64));
    scope.sendMessage("no media");

    def.setMedia(Recorder::MEDIA);
    EXPECT_TRUE(scope.isTraceFlagSet(64));
    EXPECT_FALSE(scope.isTraceFlagSet(2));
    scope.sendError("wrong kind");
    scope.sendMessage("wanted");

    CJTTraceScopeManager::getInstance().setSilent(true);
    EXPECT_FALSE(scope.isTraceFlagSet(64));
    scope.sendFormattedMessage("silent %d", 1);
    CJTTraceScopeManager::getInstance().setSilent(false);

    EXPECT_EQ(std::vector<std::string>{"wanted"}, texts(recorder.take()));
}

TEST(CJTTraceScope, EntryBitSwitchesBothEntryAndExit)
{
    Recorder recorder;
    CJTTraceScopeDef def("Scope_Entry", "run", 4, Recorder::MEDIA);
    { CJTTraceScope scope(def); }
    std::vector<Record> records = recorder.take();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ(4, records[0].kind);
    EXPECT_EQ("Scope_Entry_run", records[0].text);
    EXPECT_EQ(8, records[1].kind);
    EXPECT_EQ("Scope_Entry_run", records[1].text);
    EXPECT_EQ(&def, records[1].def);

    def.setFilter(8);
    { CJTTraceScope scope(def); }
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
    std::vector<Record> r = recorder.take();
    ASSERT_EQ(6u, r.size());
    EXPECT_EQ((std::vector<std::string>{"m", "e", "w", "fm-1", "fe 0a", "fw"}), texts(r));
    EXPECT_EQ((std::vector<int>{64, 2, 32, 64, 2, 32}),
              (std::vector<int>{r[0].kind, r[1].kind, r[2].kind, r[3].kind, r[4].kind, r[5].kind}));

    // Formatted texts are cut to the 400-byte buffer.
    std::string longText(1000, 'x');
    scope.sendFormattedMessage("%s", longText.c_str());
    EXPECT_EQ(399u, recorder.take().at(0).text.size());

    // Unconditional sends ignore filter and silent mode but not the media mask.
    def.setFilter(0);
    CJTTraceScopeManager::getInstance().setSilent(true);
    scope.sendMessageUnconditionally("um %d", 1);
    scope.sendErrorUnconditionally("ue");
    scope.sendWarningUnconditionally("uw");
    CJTTraceScopeManager::getInstance().setSilent(false);
    def.setMedia(0);
    scope.sendMessageUnconditionally("no media");
    r = recorder.take();
    EXPECT_EQ((std::vector<std::string>{"um 1", "ue", "uw"}), texts(r));
    ASSERT_EQ(3u, r.size());
    EXPECT_EQ(2, r[1].kind);
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
    EXPECT_EQ((std::vector<std::string>{"HexArray: len = 25", "00 0B 16 21 2C 37 42 4D 58 63",
                                        "6E 79 84 8F 9A A5 B0 BB C6 D1", "DC E7 F2 FD 08"}),
              texts(recorder.take()));

    scope.sendHexArray(data, 10);
    EXPECT_EQ(2u, recorder.take().size());
    scope.sendHexArray(data + 3, 1);
    EXPECT_EQ((std::vector<std::string>{"HexArray: len = 1", "21"}), texts(recorder.take()));

    scope.sendHexArray(data, 0);
    scope.sendHexArray(nullptr, 5);
    def.setFilter(2);
    scope.sendHexArray(data, 5);
    EXPECT_TRUE(recorder.take().empty());
}

TEST(CJTTraceScope, ConsoleLinesGoWholeToTheRightStream)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScopeDef def("Scope_Console", "f", 2 | 32 | 64, 8);
    CJTTraceScope scope(def);
    std::string pidTid = std::to_string(getpid()) + "." + std::to_string(gettid());

    tracetest::FdCapture err(2);
    tracetest::FdCapture out(1);
    scope.sendFormattedMessage("hello %d", 42);
    scope.sendError("broken");
    scope.sendWarning("careful");
    scope.sendMessage("50% done");
    std::vector<std::string> outLines = splitLines(out.finish());
    std::vector<std::string> errLines = splitLines(err.finish());

    ASSERT_EQ(2u, outLines.size());
    EXPECT_TRUE(isConsoleLine(outLines[0], "MSG", pidTid, "hello 42")) << outLines[0];
    EXPECT_TRUE(isConsoleLine(outLines[1], "MSG", pidTid, "50% done")) << outLines[1];
    ASSERT_EQ(2u, errLines.size());
    EXPECT_TRUE(isConsoleLine(errLines[0], "ERR", pidTid, "broken")) << errLines[0];
    EXPECT_TRUE(isConsoleLine(errLines[1], "WRN", pidTid, "careful")) << errLines[1];
}

TEST(CJTTraceScope, ConsoleLinesOfManyThreadsNeverInterleave)
{
    CJTTraceHelper::getInstancePtr();
    CJTTraceScopeDef def("Scope_Threads", "f", 64, 8);
    const int threads = 4;
    const int lines = 200;
    tracetest::FdCapture out(1);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&def, t] {
            CJTTraceScope scope(def);
            for (int i = 0; i < lines; ++i)
                scope.sendFormattedMessage("thread %d line %d %s", t, i, "0123456789012345678901234567890123456789");
        });
    for (std::thread& w : workers)
        w.join();
    std::vector<std::string> all = splitLines(out.finish());
    ASSERT_EQ(static_cast<size_t>(threads * lines), all.size());
    std::vector<int> next(threads, 0);
    for (const std::string& line : all) {
        size_t at = line.find(": thread ");
        ASSERT_NE(std::string::npos, at) << line;
        int t = line[at + 9] - '0';
        ASSERT_TRUE(t >= 0 && t < threads) << line;
        // Each thread's lines arrive whole and in its own order.
        std::string text = "thread " + std::to_string(t) + " line " + std::to_string(next[t]++) +
                           " 0123456789012345678901234567890123456789";
        EXPECT_TRUE(isConsoleLine(line, "MSG", "", text)) << line;
    }
}
