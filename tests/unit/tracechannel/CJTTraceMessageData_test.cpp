#include "CJTTraceMessageData.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
    using Bytes = std::vector<uint8_t>;

    Bytes bytesOf(const CJTTraceMessageData& m)
    {
        CJTByteStream out;
        m.serialize(out);
        return Bytes(out.getData(), out.getData() + out.getSize());
    }

    Bytes body(const CJTTraceMessageData::CJTBodyStream& b) { return Bytes(b.getData(), b.getData() + b.getSize()); }

    void append(Bytes& b, std::initializer_list<uint8_t> more) { b.insert(b.end(), more); }
    void appendText(Bytes& b, const std::string& s, bool zero = true)
    {
        b.insert(b.end(), s.begin(), s.end());
        if (zero)
            b.push_back(0);
    }
    Bytes header(uint8_t cls, uint8_t sub, uint16_t len)
    {
        return Bytes{cls, sub, static_cast<uint8_t>(len), static_cast<uint8_t>(len >> 8),
                     static_cast<uint8_t>(len), static_cast<uint8_t>(len >> 8), 0, 0};
    }
}

TEST(CJTBodyStream, WriteStringCutsPadsAndTerminates)
{
    CJTTraceMessageData::CJTBodyStream b;
    EXPECT_EQ(b.writeString("abcdef", 4), 3u);  // cut to maximum - 1, then one zero
    EXPECT_EQ(b.writeString("ab", 0, 5), 2u);   // padded with zeros to the fixed width
    EXPECT_EQ(b.writeString("abcdef", 0, 3), 6u);  // longer than fixed: just one zero
    EXPECT_EQ(b.writeString(nullptr, 10, 10), 0u); // nothing at all
    EXPECT_EQ(b.writeString(""), 0u);
    Bytes expected;
    appendText(expected, "abc");
    append(expected, {'a', 'b', 0, 0, 0});
    appendText(expected, "abcdef");
    expected.push_back(0);
    EXPECT_EQ(body(b), expected);
}

TEST(CJTTraceMessageData, TraceMessageBytesAndLongTextCut)
{
    Bytes expected = header(17, 64, 25);
    append(expected, {0x78, 0x56, 0x34, 0x12, 0x10, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 3, 0});
    appendText(expected, "hello 12");
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeTraceMessage(64, 0x12345678, 16, 17, 3, "hello 12")), expected);

    CJTTraceMessageData longOne = CJTTraceMessageData::makeTraceMessage(2, 0, 0, 0, 0, std::string(500, 'x').c_str());
    EXPECT_EQ(longOne.getLength(), 16 + 399 + 1);
    Bytes b = bytesOf(longOne);
    EXPECT_EQ(b.size(), 8u + 416u);
    EXPECT_EQ(b[8 + 16 + 398], 'x');
    EXPECT_EQ(b.back(), 0);
}

TEST(CJTTraceMessageData, ListAndInformationRecords)
{
    Bytes progress = header(18, 1, 12);
    append(progress, {7, 0, 0, 0, 10, 0, 0, 0, 7, 0, 0, 0});
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeProgress(1, 7, 10)), progress);

    Bytes count = header(20, 6, 8);
    append(count, {150, 0, 0, 0, 7, 0, 0, 0});
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeCount(6, 150, 7)), count);

    Bytes info = header(23, 1, 8);
    append(info, {7, 0, 0, 0, 0x2C, 0x01, 1, 0});  // no name: an empty text
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeProcessInfo(1, 7, 300, 1, nullptr)), info);

    Bytes scope = header(24, 0, 9 + 12);
    append(scope, {7, 0, 0, 0, 2, 0, 5, 0x0F, 0x7F});
    appendText(scope, "CBRadio_x_y");
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeScopeInfo(7, 2, 5, 0x0F, 0x7F, "CBRadio_x_y")), scope);
}

TEST(CJTTraceMessageData, LogAndExtendedMessagesCarryTextOnlyWhenGiven)
{
    Bytes log = header(38, 64, 12);
    append(log, {1, 0, 0, 0, 7, 0, 0, 0, 0x01, 0x01, 1, 0});
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeLogMessage(64, 1, 7, 257, nullptr)), log);

    CJTTraceMessageData withText = CJTTraceMessageData::makeLogMessage(32, 1, 7, 0, std::string(60, 'y').c_str());
    EXPECT_EQ(withText.getLength(), 12 + 39 + 1);

    Bytes ex = header(40, 32, 20);
    append(ex, {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 0, 0, 4, 0, 0xEF, 0xBE, 0xAD, 0xDE});
    EXPECT_EQ(bytesOf(CJTTraceMessageData::makeTraceMessageEx(32, 1, 2, 3, 4, 0xDEADBEEF, nullptr)), ex);
    EXPECT_EQ(CJTTraceMessageData::makeTraceMessageEx(32, 1, 2, 3, 4, 0, "t").getLength(), 22);
}

TEST(CJTTraceMessageData, HandlerListAndRawRoundTrip)
{
    CJTTraceMessageData list = CJTTraceMessageData::makeHandlerList(7);
    list.addHandler(1, "Trace Client");
    list.addHandler(8, "Console");
    list.complete();
    Bytes expected = header(45, 0, 4 + 14 + 9);
    append(expected, {7, 0, 0, 0, 1});
    appendText(expected, "Trace Client");
    expected.push_back(8);
    appendText(expected, "Console");
    Bytes b = bytesOf(list);
    EXPECT_EQ(b, expected);

    CJTTraceMessageData back(b.data(), static_cast<uint32_t>(b.size()));
    ASSERT_TRUE(back.isValid());
    EXPECT_EQ(back.getClass(), 45);
    EXPECT_EQ(bytesOf(back), b);

    CJTTraceMessageData cut(b.data(), static_cast<uint32_t>(b.size() - 1));
    EXPECT_FALSE(cut.isValid());

    CJTByteStream stream(b.data(), static_cast<uint32_t>(b.size()));
    CJTTraceMessageData read;
    EXPECT_TRUE(read.readFrom(stream));
    EXPECT_EQ(bytesOf(read), b);
    EXPECT_FALSE(read.readFrom(stream));  // nothing left
}
