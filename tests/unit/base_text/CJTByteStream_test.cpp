#include "CJTByteStream.h"
#include "CJTString.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{
    std::vector<uint8_t> bytesOf(const CJTByteStream& s)
    {
        return std::vector<uint8_t>(s.getData(), s.getData() + s.getSize());
    }

    // A source that hands out its bytes a few at a time, like a device would.
    struct SDribble : IJTIStream
    {
        SDribble(uint32_t total, uint32_t step) : left(total), step(step) {}
        uint32_t doRead(void* data, uint32_t size) override
        {
            uint32_t n = std::min(std::min(size, step), left);
            for (uint32_t i = 0; i < n; ++i)
                static_cast<uint8_t*>(data)[i] = static_cast<uint8_t>(left - i);
            left -= n;
            return n;
        }
        uint32_t left;
        uint32_t step;
    };
}

TEST(CJTByteStream, IntegersAreLittleEndianAndAShortReadConsumesNothing)
{
    CJTByteStream s;
    EXPECT_TRUE(s.writeUInt8(0xAB));
    EXPECT_TRUE(s.writeUInt16(0x1234));
    EXPECT_TRUE(s.writeUInt32(0xDEADBEEF));
    EXPECT_EQ((std::vector<uint8_t>{0xAB, 0x34, 0x12, 0xEF, 0xBE, 0xAD, 0xDE}), bytesOf(s));
    CJTString text("old contents");
    s.dump(text);
    EXPECT_STREQ("AB3412EFBEADDE", text.c_str());

    uint8_t u8 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    EXPECT_TRUE(s.readUInt8(u8) && s.readUInt16(u16) && s.readUInt32(u32));
    EXPECT_TRUE(u8 == 0xAB && u16 == 0x1234 && u32 == 0xDEADBEEF);
    s.writeUInt8(1);
    u32 = 9;
    EXPECT_FALSE(s.readUInt32(u32));
    EXPECT_EQ(9u, u32);
    EXPECT_EQ(1u, s.getRemaining());
}

TEST(CJTByteStream, GrowsAcrossReallocationsEvenFromItsOwnBytes)
{
    CJTByteStream s;
    for (uint16_t i = 0; i < 5000; ++i)
        ASSERT_TRUE(s.writeUInt16(i));
    for (uint16_t i = 0, v = 0; i < 5000; ++i)
        ASSERT_TRUE(s.readUInt16(v) && v == i) << i;
    CJTByteStream t("abcd", 4);
    while (t.getSize() < 1000) {
        const uint32_t before = t.getSize();
        ASSERT_EQ(before, t.doWrite(t.getData(), before));
    }
    EXPECT_EQ(0, std::memcmp(t.getData() + 1020, "abcd", 4));
}

TEST(CJTByteStream, CopiesDoNotSeeEachOthersWritesAndEqualityIgnoresPositions)
{
    CJTByteStream a("xy", 2);
    CJTByteStream b(a);
    EXPECT_EQ(a.getData(), b.getData());
    b.writeUInt8('z');
    a.writeUInt8('w');
    EXPECT_EQ((std::vector<uint8_t>{'x', 'y', 'w'}), bytesOf(a));
    EXPECT_EQ((std::vector<uint8_t>{'x', 'y', 'z'}), bytesOf(b));
    CJTByteStream d(1000);
    d.doWrite("xyw", 3);
    uint8_t dummy;
    a.readUInt8(dummy);
    EXPECT_TRUE(a == d);
    d.writeUInt8(0);
    EXPECT_TRUE(a != d);
    EXPECT_TRUE(CJTByteStream() == CJTByteStream(64));
}

TEST(CJTByteStream, ReadsFromAnotherStreamAlignsAndSkips)
{
    SDribble source(10, 3);
    CJTByteStream s;
    s.writeUInt8(0xEE);
    EXPECT_EQ(10u, s.readFromIStream(source, 100));
    EXPECT_EQ((std::vector<uint8_t>{0xEE, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1}), bytesOf(s));
    SDribble more(50, 7);
    EXPECT_EQ(20u, s.readFromIStream(more, 20));
    EXPECT_EQ(30u, more.left);

    CJTByteStream t;
    t.writeUInt8(1);
    EXPECT_EQ(3u, t.alignWrite(4));
    EXPECT_EQ(0u, t.alignWrite(4));
    EXPECT_EQ(2u, t.writeSkip(2));
    t.writeUInt8(2);
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 2}), bytesOf(t));
    uint8_t v = 0;
    t.readUInt8(v);
    EXPECT_EQ(3u, t.alignRead(4));
    EXPECT_EQ(2u, t.readSkip(2));
    EXPECT_TRUE(t.readUInt8(v));
    EXPECT_EQ(2u, v);
    EXPECT_EQ(0u, t.readSkip(5));
    t.rewind(6);
    EXPECT_EQ(1u, t.getRemaining());
}
