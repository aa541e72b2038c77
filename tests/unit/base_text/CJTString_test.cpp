#include "CJTByteStream.h"
#include "CJTString.h"
#include "JTAssert.h"
#include "JTSyslog.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
// What the strings wrote to the system log, as "<severity> <line>"; they log on the caller's
// thread, and these tests log from one thread only.
std::vector<std::string> gLog;
struct SyslogCapture
{
    SyslogCapture()
    {
        gLog.clear();
        JTSyslog::setMirror(
            [](unsigned int severity, const char* line) { gLog.push_back(std::to_string(severity) + " " + line); });
    }
    ~SyslogCapture() { JTSyslog::setMirror(nullptr); }
};
const std::vector<std::string> kBadOnce = {"2 pid " + std::to_string(getpid()) +
                                           ": The character sequence contains a wrong coded UTF-8 sequence !"};

std::vector<uint32_t> codePoints(const CJTString& s)
{
    std::vector<uint32_t> out;
    for (CJTString::const_iterator it = s.begin(); it != s.end(); ++it)
        out.push_back(*it);
    return out;
}
}

// Text that is not valid UTF-8 keeps its valid beginning and logs once; the continuation test is
// lenient on purpose (any byte with the top bit), and a zero byte ends the text quietly.
TEST(CJTStringUtf8, KeepsTheValidBeginningAndCountsCharacters)
{
    struct Case
    {
        std::string bytes;
        std::string kept;
        uint32_t chars;
        bool bad;
    };
    const Case cases[] = {
        {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 4, false},
        {"\xF8\x80\x80\x80\x80", "\xF8\x80\x80\x80\x80", 1, false},            // five bytes
        {"\xFD\xBF\xBF\xBF\xBF\xBFz", "\xFD\xBF\xBF\xBF\xBF\xBFz", 2, false},  // six bytes
        {"\xC3\xC3\xF8\xFF\xFF\xFF\xFF", "\xC3\xC3\xF8\xFF\xFF\xFF\xFF", 2, false},
        {std::string("ab\0cd", 5), "ab", 2, false},
        {"ab\xC3(", "ab", 2, true},     // lead byte followed by a byte without the top bit
        {"ab\xE2\x82", "ab", 2, true},  // cut off at the end
        {"x\x80y", "x", 1, true},       // continuation byte where a lead byte belongs
        {"xy\xFEz", "xy", 2, true},     // never a lead byte
        {"\xFF", "", 0, true},
        {"\xC3\xA9\xC3", "\xC3\xA9", 1, true},
    };
    for (const Case& c : cases) {
        SyslogCapture log;
        CJTString s(c.bytes.data(), static_cast<uint32_t>(c.bytes.size()));
        EXPECT_EQ(c.kept, s.c_str()) << c.bytes;
        EXPECT_EQ(c.kept.size(), s.getByteCount()) << c.bytes;
        EXPECT_EQ(c.chars, s.getCharCount()) << c.bytes;
        EXPECT_EQ(c.bad ? kBadOnce : std::vector<std::string>{}, gLog) << c.bytes;
    }
    EXPECT_EQ((std::vector<uint32_t>{0x61, 0xE9, 0x20AC, 0x1F600}), codePoints(CJTString(cases[0].bytes.c_str())));
    EXPECT_EQ(0x200000u, *CJTString("\xF8\x88\x80\x80\x80").begin());
    EXPECT_EQ(0x7FFFFFFFu, *CJTString(cases[2].bytes.c_str()).begin());

    // Every other way in checks the text as well.
    const std::vector<CJTString (*)()> ways = {
        [] { return CJTString("ok").append("\xC3("); },
        [] { return CJTString::strprintf("%s-%c", "o", '\xE9'); },
        [] { return CJTString() = "ok\x80"; },
        [] {
            const uint32_t ucs4[] = {'o', 'k', 0x80000000u, 'x', 0};
            return CJTString(ucs4);
        },
    };
    for (auto way : ways) {
        SyslogCapture log;
        CJTString s = way();
        EXPECT_EQ(2u, s.getCharCount()) << s.c_str();
        EXPECT_EQ(kBadOnce, gLog) << s.c_str();
    }
}

TEST(CJTStringUtf8, WideFormsEncodeEveryRange)
{
    const uint16_t ucs2[] = {0x41, 0xE9, 0x20AC, 0};
    EXPECT_STREQ("A\xC3\xA9\xE2\x82\xAC", CJTString(ucs2).c_str());
    EXPECT_STREQ("A\xC3\xA9", CJTString(ucs2, 2).c_str());
    EXPECT_STREQ("x\xE2\x82\xAC", CJTString(L"x\u20AC").c_str());

    const uint32_t ucs4[] = {0x7F,     0x80,     0x7FF,     0x800,     0xFFFF,     0x10000,
                             0x1FFFFF, 0x200000, 0x3FFFFFF, 0x4000000, 0x7FFFFFFF, 0};
    CJTString all(ucs4);
    EXPECT_EQ(1u + 2 + 2 + 3 + 3 + 4 + 4 + 5 + 5 + 6 + 6, all.getByteCount());
    EXPECT_EQ(std::vector<uint32_t>(ucs4, ucs4 + 11), codePoints(all));
}

TEST(CJTStringSharing, CopiesShareUntilOneChangesAndEmptyOnesUseTheStaticBlock)
{
    const std::vector<void (*)(CJTString&)> changes = {
        [](CJTString& s) { s.append("!"); },          [](CJTString& s) { s.insert(1, "-"); },
        [](CJTString& s) { s.remove(0, 1); },         [](CJTString& s) { s.replace(0, 2, "J"); },
        [](CJTString& s) { s.replaceAll("l", "L"); }, [](CJTString& s) { s.truncate(2); },
        [](CJTString& s) { s.appendChar(0x20AC); },   [](CJTString& s) { s.reserve(100); },
    };
    for (auto change : changes) {
        CJTString original("hello");
        CJTString copy(original);
        EXPECT_EQ(2u, original.getRefCount());
        change(copy);
        EXPECT_STREQ("hello", original.c_str());
        EXPECT_EQ(5u, original.getCharCount());
        EXPECT_EQ(1u, original.getRefCount());
    }
    CJTString a, b(""), c("x", 0), copy(a);
    EXPECT_TRUE(a.c_str() == CJTString::nullData.text && b.c_str() == a.c_str() && c.c_str() == a.c_str());
    EXPECT_EQ(0u, CJTString::nullData.refCount.load());
    copy.append("y");
    EXPECT_EQ('\0', CJTString::nullData.text[0]);
}

TEST(CJTStringSharing, TextFromItsOwnBlockAndCopiesOnManyThreads)
{
    CJTString s("ab");
    s.append(s);
    EXPECT_STREQ("abab", s.c_str());
    s.insert(1, s);
    EXPECT_STREQ("aababbab", s.c_str());
    s.append(s.c_str() + 6);
    EXPECT_STREQ("aababbabab", s.c_str());
    s = s.c_str() + 4;
    EXPECT_STREQ("bbabab", s.c_str());

    const CJTString& shared = s;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared] {
            for (int i = 0; i < 2000; ++i) {
                CJTString mine(shared);
                mine.append("x");
                ASSERT_EQ(shared.getByteCount() + 1, mine.getByteCount());
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(1u, shared.getRefCount());
}

// Positions and counts are characters; the character count stays right through every edit.
TEST(CJTStringEditing, PositionsCountCharactersNotBytes)
{
    const CJTString s("\xC3\xA4\xC3\xB6\xC3\xBC");  // three two-byte letters
    const CJTString euro("a\xE2\x82\xAC"
                         "b");
    CJTString alpha("Alpha beta ALPHA"), four("aaaa"), overlap("aaa"), args("%2 of %1, %2");
    EXPECT_EQ(2u, alpha.replaceAll("alpha", "\xCE\xB1", true));
    EXPECT_EQ(4u, four.replaceAll("A", "", true));
    EXPECT_EQ(1u, overlap.replaceAll("aa", "b"));
    EXPECT_EQ(0u, overlap.replaceAll("", "x"));
    EXPECT_TRUE(args.replaceArg("x") && args.replaceArg("yy"));
    EXPECT_FALSE(args.replaceArg("z"));
    CJTString::const_iterator second = ++euro.begin();
    const std::pair<CJTString, const char*> cases[] = {
        {s.getMid(1, 1), "\xC3\xB6"},
        {s.getLeft(1), "\xC3\xA4"},
        {s.getRight(2), "\xC3\xB6\xC3\xBC"},
        {s.getMid(7), ""},
        {CJTString(s).insert(1, "-").remove(2, 1), "\xC3\xA4-\xC3\xBC"},
        {CJTString(s).replace(0, 2, "ab\xE2\x82\xAC"), "ab\xE2\x82\xAC\xC3\xBC"},
        {CJTString(s).remove(1).insert(99, "z"), "\xC3\xA4z"},
        {CJTString(euro).truncate(3), "a"},  // truncation never splits a character
        {CJTString(euro).truncate(4), "a\xE2\x82\xAC"},
        {CJTString(euro).truncate(++CJTString::const_iterator(second)), "a\xE2\x82\xAC"},
        {CJTString(euro).truncate(s.begin()), "a\xE2\x82\xAC"
                                              "b"},  // another string's iterator
        {alpha, "\xCE\xB1 beta \xCE\xB1"},
        {four, ""},
        {overlap, "ba"},
        {args, "yy of x, yy"},
    };
    for (const auto& c : cases) {
        EXPECT_STREQ(c.second, c.first.c_str());
        EXPECT_EQ(CJTString(c.second).getCharCount(), c.first.getCharCount()) << c.second;
    }
    EXPECT_EQ(s.c_str(), s.getRight(99).c_str());  // the whole string is shared, not copied
    EXPECT_EQ(2, s.findString("\xC3\xBC"));
    EXPECT_EQ(-1, s.findString("\xC3\xA4", 1));
    EXPECT_EQ(11, CJTString("Alpha beta ALPHA").findString("alpha", 1, true));
    EXPECT_EQ(-1, CJTString("Alpha beta ALPHA").findString("alpha", 1, false));
    EXPECT_EQ(-1, CJTString("Alpha").findString("alpha beta alpha and more"));

    CJTString longer = CJTString::strprintf("%0500d", 7);
    EXPECT_EQ(500u, longer.getByteCount());
    EXPECT_EQ('7', longer.c_str()[499]);
    CJTString sized(static_cast<uint32_t>(100));
    const char* block = sized.c_str();
    sized.append("abc");
    EXPECT_EQ(block, sized.c_str());  // fits: no new block
    sized.trim();
    EXPECT_EQ(3u, sized.getCapacity());
}

TEST(CJTStringStream, LengthPrefixedBytesAndShortOrBadInput)
{
    CJTByteStream stream;
    ASSERT_TRUE(CJTString("h\xC3\xA9").toDSIStream(stream));
    ASSERT_TRUE(CJTString().toDSIStream(stream));
    CJTString hex;
    stream.dump(hex);
    EXPECT_STREQ("0400000068C3A900"
                 "0100000000",
                 hex.c_str());
    CJTString first, second("old");
    EXPECT_TRUE(first.fromDSIStream(stream));
    EXPECT_TRUE(second.fromDSIStream(stream));
    EXPECT_STREQ("h\xC3\xA9", first.c_str());
    EXPECT_EQ(2u, first.getCharCount());
    EXPECT_TRUE(second.isEmpty());
    EXPECT_FALSE(second.fromDSIStream(stream));  // nothing left

    CJTByteStream cut;
    cut.writeUInt32(10);
    cut.doWrite("abc", 3);
    CJTString s("keep");
    EXPECT_FALSE(s.fromDSIStream(cut));
    EXPECT_TRUE(s.isEmpty());
    CJTByteStream huge;
    huge.writeUInt32(0xFFFFFFFFu);
    EXPECT_FALSE(s.fromDSIStream(huge));

    SyslogCapture log;
    CJTByteStream bad;
    bad.writeUInt32(4);
    bad.doWrite("a\xC3(", 4);
    EXPECT_TRUE(s.fromDSIStream(bad));
    EXPECT_STREQ("a", s.c_str());
    EXPECT_EQ(kBadOnce, gLog);
}

// Announced, the capacity assertions only count; unannounced, the first ends the process.
TEST(CJTStringAssertions, OversizedCapacityLeavesTheStringAloneWhenAnnouncedAndEndsTheProcessElse)
{
    CJTAsserter::setOccuredAssertions(0);
    CJTAsserter::setExpectedAssertions(2);
    CJTString s(0xFFFFFFF0u);
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(1u, CJTAsserter::getOccuredAssertions());
    CJTString kept("kept");
    kept.reserve(0xFFFFFFECu);  // capacity + 20 is 2^32: one too many
    EXPECT_STREQ("kept", kept.c_str());
    EXPECT_EQ(2u, CJTAsserter::getOccuredAssertions());
    CJTAsserter::setExpectedAssertions(0);
    CJTAsserter::setOccuredAssertions(0);

    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempRoot root;  // for the backtrace file of the dying child
    EXPECT_EXIT(CJTString(0xFFFFFFFFu), ::testing::ExitedWithCode(1), "CJTString::ctor: Capacity -1 not valid!");
}
