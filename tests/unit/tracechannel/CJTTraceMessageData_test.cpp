#include "CJTTraceMessageData.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
using Bytes = std::vector<uint8_t>;
using M = CJTTraceMessageData;

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes text(const std::string& s)
{
    return Bytes(s.c_str(), s.c_str() + s.size() + 1);
}
// Header (class, sub-code, the 16-bit length twice, two zero bytes) and body.
Bytes record(uint8_t cls, uint8_t sub, const Bytes& body)
{
    const uint8_t low = uint8_t(body.size()), high = uint8_t(body.size() >> 8);
    return Bytes{cls, sub, low, high, low, high, 0, 0} + body;
}
Bytes bytesOf(const M& m)
{
    CJTByteStream out;
    m.serialize(out);
    return Bytes(out.getData(), out.getData() + out.getSize());
}
}

TEST(CJTTraceMessageData, RecordBytesOfEveryBuilder)
{
    const std::pair<M, Bytes> cases[] = {
        {M::makeTraceMessage(64, 0x12345678, 16, 17, 3, "hello 12"),
         record(17, 64, Bytes{0x78, 0x56, 0x34, 0x12, 0x10, 0, 0, 0, 0x11, 0, 0, 0, 0, 0, 3, 0} + text("hello 12"))},
        {M::makeProgress(1, 7, 10), record(18, 1, {7, 0, 0, 0, 10, 0, 0, 0, 7, 0, 0, 0})},
        {M::makeCount(6, 150, 7), record(20, 6, {150, 0, 0, 0, 7, 0, 0, 0})},
        {M::makeProcessInfo(1, 7, 300, 1, nullptr), record(23, 1, {7, 0, 0, 0, 0x2C, 0x01, 1, 0})},  // no name: empty
        {M::makeScopeInfo(7, 2, 5, 0x0F, 0x7F, "CBRadio_x_y"),
         record(24, 0, Bytes{7, 0, 0, 0, 2, 0, 5, 0x0F, 0x7F} + text("CBRadio_x_y"))},
        {M::makeLogMessage(64, 1, 7, 257, nullptr), record(38, 64, {1, 0, 0, 0, 7, 0, 0, 0, 0x01, 0x01, 1, 0})},
        {M::makeTraceMessageEx(32, 1, 2, 3, 4, 0xDEADBEEF, nullptr),
         record(40, 32, {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 0, 0, 4, 0, 0xEF, 0xBE, 0xAD, 0xDE})},
    };
    for (const auto& c : cases)
        EXPECT_EQ(bytesOf(c.first), c.second) << int(c.second[0]);

    // Texts are cut to their field: 399 bytes of a message, 39 of a log message.
    Bytes longOne = bytesOf(M::makeTraceMessage(2, 0, 0, 0, 0, std::string(500, 'x').c_str()));
    EXPECT_EQ(longOne.size(), 8u + 16 + 399 + 1);
    EXPECT_EQ(longOne[8 + 16 + 398], 'x');
    EXPECT_EQ(longOne.back(), 0);
    EXPECT_EQ(M::makeLogMessage(32, 1, 7, 0, std::string(60, 'y').c_str()).getLength(), 12 + 39 + 1);
    EXPECT_EQ(M::makeTraceMessageEx(32, 1, 2, 3, 4, 0, "t").getLength(), 22);
}

TEST(CJTTraceMessageData, HandlerListAndRawRoundTrip)
{
    M list = M::makeHandlerList(7);
    list.addHandler(1, "Trace Client");
    list.addHandler(8, "Console");
    list.complete();
    Bytes b = bytesOf(list);
    EXPECT_EQ(b, record(45, 0, Bytes{7, 0, 0, 0, 1} + text("Trace Client") + Bytes{8} + text("Console")));

    M back(b.data(), static_cast<uint32_t>(b.size()));
    ASSERT_TRUE(back.isValid());
    EXPECT_EQ(bytesOf(back), b);
    EXPECT_FALSE(M(b.data(), static_cast<uint32_t>(b.size() - 1)).isValid());
    CJTByteStream stream(b.data(), static_cast<uint32_t>(b.size()));
    M read;
    EXPECT_TRUE(read.readFrom(stream));
    EXPECT_EQ(bytesOf(read), b);
    EXPECT_FALSE(read.readFrom(stream));  // nothing left
}

TEST(CJTBodyStream, WriteStringCutsPadsAndTerminates)
{
    M::CJTBodyStream b;
    EXPECT_EQ(b.writeString("abcdef", 4), 3u);      // cut to maximum - 1, then one zero
    EXPECT_EQ(b.writeString("ab", 0, 5), 2u);       // padded with zeros to the fixed width
    EXPECT_EQ(b.writeString("abcdef", 0, 3), 6u);   // longer than fixed: just one zero
    EXPECT_EQ(b.writeString(nullptr, 10, 10), 0u);  // nothing at all
    EXPECT_EQ(b.writeString(""), 0u);
    const Bytes expected = text("abc") + Bytes{'a', 'b', 0, 0, 0} + text("abcdef") + Bytes{0};
    EXPECT_EQ(Bytes(b.getData(), b.getData() + b.getSize()), expected);
}
