#include "CJTByteStream.h"
#include "CJTString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{
    std::vector<uint8_t> bytesOf(const CJTByteStream& s)
    {
        return std::vector<uint8_t>(s.getData(), s.getData() + s.getSize());
    }

    // A source that hands out its bytes a few at a time, like a device would.
    class CDribble : public IJTIStream
    {
    public:
        CDribble(uint32_t total, uint32_t step) : mLeft(total), mStep(step) {}
        uint32_t doRead(void* data, uint32_t size) override
        {
            uint32_t n = size < mStep ? size : mStep;
            n = n < mLeft ? n : mLeft;
            for (uint32_t i = 0; i < n; ++i)
                static_cast<uint8_t*>(data)[i] = static_cast<uint8_t>(mLeft - i);
            mLeft -= n;
            return n;
        }
        uint32_t mLeft;
        uint32_t mStep;
    };
}

TEST(CJTByteStream, IntegersAreLittleEndianAndReadBack)
{
    CJTByteStream s;
    EXPECT_TRUE(s.writeUInt8(0xAB));
    EXPECT_TRUE(s.writeUInt16(0x1234));
    EXPECT_TRUE(s.writeUInt32(0xDEADBEEF));
    EXPECT_EQ((std::vector<uint8_t>{0xAB, 0x34, 0x12, 0xEF, 0xBE, 0xAD, 0xDE}), bytesOf(s));

    uint8_t u8 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    EXPECT_TRUE(s.readUInt8(u8));
    EXPECT_TRUE(s.readUInt16(u16));
    EXPECT_EQ(4u, s.getRemaining());
    EXPECT_TRUE(s.readUInt32(u32));
    EXPECT_EQ(0xABu, u8);
    EXPECT_EQ(0x1234u, u16);
    EXPECT_EQ(0xDEADBEEFu, u32);

    // Past the end nothing is read and the value is left alone.
    u16 = 7;
    EXPECT_FALSE(s.readUInt16(u16));
    EXPECT_EQ(7u, u16);
    s.writeUInt8(1);
    u32 = 9;
    EXPECT_FALSE(s.readUInt32(u32));
    EXPECT_EQ(9u, u32);
    EXPECT_EQ(1u, s.getRemaining()); // a failed read consumes nothing
}

TEST(CJTByteStream, DumpIsUpperCaseHexPairs)
{
    const uint8_t data[] = {0x00, 0x0F, 0xA0, 0xFF, 0x7E};
    CJTByteStream s(data, sizeof(data));
    CJTString text("old contents");
    s.dump(text);
    EXPECT_STREQ("000FA0FF7E", text.c_str());
    CJTByteStream().dump(text);
    EXPECT_TRUE(text.isEmpty());
}

TEST(CJTByteStream, GrowsWithoutLosingBytes)
{
    CJTByteStream s;
    for (uint32_t i = 0; i < 5000; ++i)
        ASSERT_TRUE(s.writeUInt16(static_cast<uint16_t>(i)));
    EXPECT_EQ(10000u, s.getSize());
    EXPECT_GE(s.getCapacity(), s.getSize());
    // Appending within the capacity writes in place; the block is not copied per write.
    CJTByteStream small;
    small.writeUInt8(1);
    for (int i = 0; i < 20; ++i) {
        const uint8_t* block = small.getData();
        small.writeUInt16(2);
        ASSERT_EQ(block, small.getData());
    }
    for (uint32_t i = 0; i < 5000; ++i) {
        uint16_t v = 0;
        ASSERT_TRUE(s.readUInt16(v));
        ASSERT_EQ(static_cast<uint16_t>(i), v);
    }
    // Writing the stream's own bytes onto its end, across a reallocation.
    CJTByteStream t("abcd", 4);
    while (t.getSize() < 1000) {
        const uint32_t before = t.getSize();
        ASSERT_EQ(before, t.doWrite(t.getData(), before));
    }
    EXPECT_EQ(0, std::memcmp(t.getData() + 1020, "abcd", 4));
}

TEST(CJTByteStream, CopiesDoNotSeeEachOthersWrites)
{
    CJTByteStream a("xy", 2);
    CJTByteStream b(a);
    EXPECT_EQ(a.getData(), b.getData());
    b.writeUInt8('z');
    a.writeUInt8('w');
    EXPECT_EQ((std::vector<uint8_t>{'x', 'y', 'w'}), bytesOf(a));
    EXPECT_EQ((std::vector<uint8_t>{'x', 'y', 'z'}), bytesOf(b));

    CJTByteStream c;
    c = a;
    c.clear();
    EXPECT_EQ(0u, c.getSize());
    EXPECT_EQ(3u, a.getSize());
}

TEST(CJTByteStream, EqualityIsAboutWrittenBytesOnly)
{
    CJTByteStream a("abc", 3), b(1000);
    b.doWrite("abc", 3);
    uint8_t dummy;
    a.readUInt8(dummy);
    EXPECT_TRUE(a == b);
    b.writeUInt8(0);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(CJTByteStream() == CJTByteStream(64));
}

TEST(CJTByteStream, ReadsFromAnotherStreamUntilItRunsDry)
{
    CDribble source(10, 3);
    CJTByteStream s;
    s.writeUInt8(0xEE);
    EXPECT_EQ(10u, s.readFromIStream(source, 100));
    EXPECT_EQ(11u, s.getSize());
    EXPECT_EQ((std::vector<uint8_t>{0xEE, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1}), bytesOf(s));

    CDribble more(50, 7);
    EXPECT_EQ(20u, s.readFromIStream(more, 20));
    EXPECT_EQ(30u, more.mLeft);
}

TEST(CJTByteStream, AlignAndSkipOnBothSides)
{
    CJTByteStream s;
    s.writeUInt8(1);
    EXPECT_EQ(3u, s.alignWrite(4));
    EXPECT_EQ(0u, s.alignWrite(4));
    EXPECT_EQ(2u, s.writeSkip(2));
    s.writeUInt8(2);
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 2}), bytesOf(s));

    uint8_t v = 0;
    s.readUInt8(v);
    EXPECT_EQ(3u, s.alignRead(4));
    EXPECT_EQ(2u, s.readSkip(2));
    EXPECT_TRUE(s.readUInt8(v));
    EXPECT_EQ(2u, v);
    EXPECT_EQ(0u, s.readSkip(5));
    s.rewind(6);
    EXPECT_EQ(1u, s.getRemaining());
}
