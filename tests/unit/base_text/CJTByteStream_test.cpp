// The bytes of little-endian values, the hex dump and reading from another stream are checked
// through their users: the trace record and command tests and the string stream test.
#include "CJTByteStream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{
std::vector<uint8_t> bytesOf(const CJTByteStream& s)
{
    return std::vector<uint8_t>(s.getData(), s.getData() + s.getSize());
}
}

TEST(CJTByteStream, GrowsAcrossReallocationsEvenFromItsOwnBytesAndAShortReadConsumesNothing)
{
    CJTByteStream s;
    for (uint16_t i = 0; i < 5000; ++i)
        ASSERT_TRUE(s.writeUInt16(i));
    for (uint16_t i = 0, v = 0; i < 5000; ++i)
        ASSERT_TRUE(s.readUInt16(v) && v == i) << i;
    s.writeUInt8(1);
    uint32_t u32 = 9;
    EXPECT_FALSE(s.readUInt32(u32));
    EXPECT_EQ(9u, u32);
    EXPECT_EQ(1u, s.getRemaining());

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

TEST(CJTByteStream, AlignsAndSkipsOnBothSides)
{
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
