#include "CJTByteStream.h"
#include "CJTString.h"
#include "JTAssert.h"
#include "JTRootPrefix.h"
#include "JTSyslog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace
{
    const char* const BAD_UTF8 = "The character sequence contains a wrong coded UTF-8 sequence !";

    // Collects what the string writes to the system log while it is alive.
    class SyslogCapture
    {
    public:
        SyslogCapture() { sLines.clear(); JTSyslog::setMirror(&record); }
        ~SyslogCapture() { JTSyslog::setMirror(nullptr); }
        const std::vector<std::pair<unsigned int, std::string>>& lines() const { return sLines; }
        // Exactly one line was logged: "pid <n>: " and the bad-sequence text, at severity 2.
        bool loggedBadSequenceOnce() const
        {
            const std::string tail = std::string(": ") + BAD_UTF8;
            return sLines.size() == 1 && sLines[0].first == JTSyslog::SEV_ERROR &&
                   sLines[0].second.compare(0, 4, "pid ") == 0 && sLines[0].second.size() > tail.size() &&
                   sLines[0].second.compare(sLines[0].second.size() - tail.size(), std::string::npos, tail) == 0;
        }

    private:
        // Strings log on the caller's thread, and these tests log from one thread only.
        static void record(unsigned int severity, const char* line) { sLines.emplace_back(severity, line); }
        static std::vector<std::pair<unsigned int, std::string>> sLines;
    };
    std::vector<std::pair<unsigned int, std::string>> SyslogCapture::sLines;

    std::vector<uint32_t> codePoints(const CJTString& s)
    {
        std::vector<uint32_t> out;
        for (CJTString::const_iterator it = s.begin(); it != s.end(); ++it)
            out.push_back(*it);
        return out;
    }

    class CJTStringAssertions : public ::testing::Test
    {
    protected:
        void SetUp() override
        {
            CJTAsserter::setExpectedAssertions(0);
            CJTAsserter::setOccuredAssertions(0);
        }
        void TearDown() override { SetUp(); }
    };
}

TEST(CJTStringUtf8, ValidTextIsKeptWholeAndCountedByCharacter)
{
    SyslogCapture log;
    CJTString s("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"); // a, e acute, euro sign, a four-byte emoji
    EXPECT_EQ(10u, s.getByteCount());
    EXPECT_EQ(4u, s.getCharCount());
    EXPECT_EQ((std::vector<uint32_t>{0x61, 0xE9, 0x20AC, 0x1F600}), codePoints(s));
    EXPECT_TRUE(log.lines().empty());
}

TEST(CJTStringUtf8, BadSequenceKeepsTheValidBeginningAndLogs)
{
    struct Case { const char* bytes; uint32_t length; const char* kept; };
    const Case cases[] = {
        {"ab\xC3(", 4, "ab"},             // lead byte followed by a byte without the top bit
        {"ab\xE2\x82", 4, "ab"},          // cut off at the end
        {"x\x80y", 3, "x"},               // continuation byte where a lead byte belongs
        {"xy\xFEz", 4, "xy"},             // never a lead byte
        {"\xFF", 1, ""},
        {"\xC3\xA9\xC3", 3, "\xC3\xA9"},  // one good character, then a cut-off one
    };
    for (const Case& c : cases) {
        SyslogCapture log;
        CJTString s(c.bytes, c.length);
        EXPECT_STREQ(c.kept, s.c_str()) << c.bytes;
        EXPECT_EQ(CJTString(c.kept).getCharCount(), s.getCharCount());
        EXPECT_TRUE(log.loggedBadSequenceOnce()) << c.bytes;
    }
}

TEST(CJTStringUtf8, EveryWayInChecksTheText)
{
    {
        SyslogCapture log;
        CJTString s("ok");
        s.append("\xC3(");
        EXPECT_STREQ("ok", s.c_str());
        EXPECT_TRUE(log.loggedBadSequenceOnce());
    }
    {
        SyslogCapture log;
        CJTString s = CJTString::strprintf("%s-%c", "v", '\xE9');
        EXPECT_STREQ("v-", s.c_str());
        EXPECT_EQ(2u, s.getCharCount());
        EXPECT_TRUE(log.loggedBadSequenceOnce());
    }
    {
        SyslogCapture log;
        CJTString s;
        s = "q\x80";
        EXPECT_STREQ("q", s.c_str());
        EXPECT_TRUE(log.loggedBadSequenceOnce());
    }
}

TEST(CJTStringUtf8, LenientContinuationAcceptsLongAndOddSequences)
{
    SyslogCapture log;
    CJTString five("\xF8\x80\x80\x80\x80");
    EXPECT_EQ(5u, five.getByteCount());
    EXPECT_EQ(1u, five.getCharCount());
    EXPECT_EQ(0x200000u, *CJTString("\xF8\x88\x80\x80\x80").begin());

    CJTString six("\xFD\xBF\xBF\xBF\xBF\xBFz");
    EXPECT_EQ(2u, six.getCharCount());
    EXPECT_EQ(0x7FFFFFFFu, *six.begin());

    // Any byte with the top bit counts as a continuation, also one that could lead.
    CJTString odd("\xC3\xC3\xF8\xFF\xFF\xFF\xFF");
    EXPECT_EQ(7u, odd.getByteCount());
    EXPECT_EQ(2u, odd.getCharCount());
    EXPECT_TRUE(log.lines().empty());
}

TEST(CJTStringUtf8, ZeroByteEndsTheTextQuietly)
{
    SyslogCapture log;
    CJTString s("ab\0cd", 5);
    EXPECT_STREQ("ab", s.c_str());
    EXPECT_EQ(2u, s.getByteCount());
    EXPECT_TRUE(log.lines().empty());
}

TEST(CJTStringUtf8, WideFormsEncodeEveryRange)
{
    const uint16_t ucs2[] = {0x41, 0xE9, 0x20AC, 0};
    EXPECT_STREQ("A\xC3\xA9\xE2\x82\xAC", CJTString(ucs2).c_str());
    EXPECT_STREQ("A\xC3\xA9", CJTString(ucs2, 2).c_str());

    const uint32_t ucs4[] = {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0x10000, 0x1FFFFF, 0x200000, 0x3FFFFFF, 0x4000000, 0x7FFFFFFF, 0};
    CJTString all(ucs4);
    EXPECT_EQ(11u, all.getCharCount());
    EXPECT_EQ(1u + 2 + 2 + 3 + 3 + 4 + 4 + 5 + 5 + 6 + 6, all.getByteCount());
    EXPECT_EQ(std::vector<uint32_t>(ucs4, ucs4 + 11), codePoints(all));

    EXPECT_STREQ("x\xE2\x82\xAC", CJTString(L"x\u20AC").c_str());

    SyslogCapture log;
    const uint32_t tooBig[] = {0x41, 0x80000000u, 0x42, 0};
    EXPECT_STREQ("A", CJTString(tooBig).c_str());
    EXPECT_TRUE(log.loggedBadSequenceOnce());
}

TEST(CJTStringSharing, CopiesShareUntilOneChanges)
{
    const std::vector<void (*)(CJTString&)> changes = {
        [](CJTString& s) { s.append("!"); },
        [](CJTString& s) { s.insert(1, "-"); },
        [](CJTString& s) { s.remove(0, 1); },
        [](CJTString& s) { s.replace(0, 2, "J"); },
        [](CJTString& s) { s.replaceAll("l", "L"); },
        [](CJTString& s) { s.truncate(2); },
        [](CJTString& s) { s.appendChar(0x20AC); },
        [](CJTString& s) { s.reserve(100); },
    };
    for (auto change : changes) {
        CJTString original("hello");
        CJTString copy(original);
        EXPECT_EQ(original.c_str(), copy.c_str());
        EXPECT_EQ(2u, original.getRefCount());
        change(copy);
        EXPECT_STREQ("hello", original.c_str());
        EXPECT_EQ(5u, original.getCharCount());
        EXPECT_EQ(1u, original.getRefCount());
        EXPECT_NE(original.c_str(), copy.c_str());
    }
}

TEST(CJTStringSharing, EmptyStringsUseTheStaticBlock)
{
    CJTString a, b(""), c("x", 0);
    EXPECT_EQ(CJTString::nullData.text, a.c_str());
    EXPECT_EQ(a.c_str(), b.c_str());
    EXPECT_EQ(a.c_str(), c.c_str());
    EXPECT_EQ(0u, a.getRefCount());
    CJTString copy(a);
    EXPECT_EQ(0u, CJTString::nullData.refCount.load());
    copy.append("y");
    EXPECT_TRUE(a.isEmpty());
    EXPECT_EQ('\0', CJTString::nullData.text[0]);
}

TEST(CJTStringSharing, TextFromItsOwnBlock)
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
}

TEST(CJTStringSharing, CopiesOnManyThreads)
{
    CJTString shared("shared text \xE2\x82\xAC");
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

TEST(CJTStringEditing, PositionsCountCharactersNotBytes)
{
    CJTString s("\xC3\xA4\xC3\xB6\xC3\xBC"); // three two-byte letters
    EXPECT_STREQ("\xC3\xB6", s.getMid(1, 1).c_str());
    EXPECT_STREQ("\xC3\xA4", s.getLeft(1).c_str());
    EXPECT_STREQ("\xC3\xB6\xC3\xBC", s.getRight(2).c_str());
    EXPECT_EQ(s.c_str(), s.getRight(99).c_str()); // the whole string is shared, not copied
    EXPECT_TRUE(s.getMid(7).isEmpty());

    CJTString t(s);
    t.insert(1, "-");
    EXPECT_STREQ("\xC3\xA4-\xC3\xB6\xC3\xBC", t.c_str());
    EXPECT_EQ(4u, t.getCharCount());
    t.remove(2, 1);
    EXPECT_STREQ("\xC3\xA4-\xC3\xBC", t.c_str());
    t.replace(0, 2, "ab\xE2\x82\xAC");
    EXPECT_STREQ("ab\xE2\x82\xAC\xC3\xBC", t.c_str());
    EXPECT_EQ(4u, t.getCharCount());
    t.remove(1);
    EXPECT_STREQ("a", t.c_str());
    t.insert(99, "z");
    EXPECT_STREQ("az", t.c_str());

    EXPECT_EQ(2, s.findString("\xC3\xBC"));
    EXPECT_EQ(-1, s.findString("\xC3\xA4", 1));
    EXPECT_EQ(0, s.findString(""));
}

TEST(CJTStringEditing, SearchAndReplace)
{
    CJTString s("Alpha beta ALPHA");
    EXPECT_EQ(11, s.findString("alpha", 1, true));
    EXPECT_EQ(-1, s.findString("alpha", 1, false));
    EXPECT_EQ(-1, s.findString("alpha beta alpha and more"));

    CJTString t(s);
    EXPECT_EQ(2u, t.replaceAll("alpha", "\xCE\xB1", true));
    EXPECT_STREQ("\xCE\xB1 beta \xCE\xB1", t.c_str());
    EXPECT_EQ(8u, t.getCharCount());
    EXPECT_EQ(0u, t.replaceAll("", "x"));
    CJTString four("aaaa");
    EXPECT_EQ(4u, four.replaceAll("A", "", true));
    EXPECT_TRUE(four.isEmpty());
    EXPECT_EQ(0u, four.getCharCount());
    CJTString overlap("aaa");
    EXPECT_EQ(1u, overlap.replaceAll("aa", "b"));
    EXPECT_STREQ("ba", overlap.c_str());

    CJTString args("%2 of %1, %2");
    EXPECT_TRUE(args.replaceArg("x"));
    EXPECT_TRUE(args.replaceArg("yy"));
    EXPECT_FALSE(args.replaceArg("z"));
    EXPECT_STREQ("yy of x, yy", args.c_str());
}

TEST(CJTStringEditing, TruncateNeverSplitsACharacter)
{
    CJTString s("a\xE2\x82\xAC" "b");
    CJTString t(s);
    t.truncate(3);
    EXPECT_STREQ("a", t.c_str());
    EXPECT_EQ(1u, t.getCharCount());
    t = s;
    t.truncate(4);
    EXPECT_STREQ("a\xE2\x82\xAC", t.c_str());
    t = s;
    t.truncate(100);
    EXPECT_EQ(s, t);

    t = s;
    CJTString::const_iterator it = t.begin();
    ++it;
    ++it;
    t.truncate(it);
    EXPECT_STREQ("a\xE2\x82\xAC", t.c_str());
    t.truncate(s.begin()); // an iterator of another string changes nothing
    EXPECT_EQ(2u, t.getCharCount());
}

TEST(CJTStringEditing, CapacityGrowsAndTrimGivesItBack)
{
    CJTString s(static_cast<uint32_t>(100));
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(100u, s.getCapacity());
    const char* block = s.c_str();
    s.append("abc");
    EXPECT_EQ(block, s.c_str()); // fits: no new block
    s.trim();
    EXPECT_EQ(3u, s.getCapacity());
    EXPECT_STREQ("abc", s.c_str());

    CJTString grown;
    for (int i = 0; i < 1000; ++i)
        grown.appendChar(0x20AC);
    EXPECT_EQ(1000u, grown.getCharCount());
    EXPECT_EQ(3000u, grown.getByteCount());
}

TEST(CJTStringEditing, FormatIntoAnyLength)
{
    CJTString s;
    s.format("%d-%s", 42, "x");
    EXPECT_STREQ("42-x", s.c_str());
    CJTString longer = CJTString::strprintf("%0500d", 7);
    EXPECT_EQ(500u, longer.getByteCount());
    EXPECT_EQ('7', longer.c_str()[499]);
    EXPECT_LT(CJTString("b").compare("ba"), 0);
    EXPECT_GT(CJTString("b").compare("a"), 0);
}

TEST(CJTStringStream, RoundTripAndBytes)
{
    CJTByteStream stream;
    ASSERT_TRUE(CJTString("h\xC3\xA9").toDSIStream(stream));
    ASSERT_TRUE(CJTString().toDSIStream(stream));
    CJTString hex;
    stream.dump(hex);
    EXPECT_STREQ("0400000068C3A900" "0100000000", hex.c_str());

    CJTString first, second("old");
    EXPECT_TRUE(first.fromDSIStream(stream));
    EXPECT_TRUE(second.fromDSIStream(stream));
    EXPECT_STREQ("h\xC3\xA9", first.c_str());
    EXPECT_EQ(2u, first.getCharCount());
    EXPECT_TRUE(second.isEmpty());
    EXPECT_FALSE(second.fromDSIStream(stream)); // nothing left
}

TEST(CJTStringStream, ShortOrBadInput)
{
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
    EXPECT_TRUE(log.loggedBadSequenceOnce());
}

TEST_F(CJTStringAssertions, OversizedCapacityAssertsAndLeavesTheStringAlone)
{
    CJTAsserter::setExpectedAssertions(2);
    CJTString s(0xFFFFFFF0u);
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(1u, CJTAsserter::getOccuredAssertions());
    CJTString kept("kept");
    kept.reserve(0xFFFFFFECu); // capacity + 20 is 2^32: one too many
    EXPECT_STREQ("kept", kept.c_str());
    EXPECT_EQ(2u, CJTAsserter::getOccuredAssertions());
}

TEST_F(CJTStringAssertions, UnplannedCapacityAssertionEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string root = ::testing::TempDir() + "base_text_root";
    EXPECT_EXIT(
        {
            setenv("CBRADIO_ROOT", root.c_str(), 1);
            JTRootPrefix::reload();
            CJTString s(0xFFFFFFFFu);
        },
        ::testing::ExitedWithCode(1), "CJTString::ctor: Capacity -1 not valid!");
}
