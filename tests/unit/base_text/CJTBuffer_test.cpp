#include "CJTBuffer.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(CJTBuffer, NewBytesAreZeroCopiesStayInBoundsAndCopiesAreIndependent)
{
    CJTBuffer buf("0123456789", 10);
    char out[16] = {};
    EXPECT_EQ(4u, buf.copyTo(out, 4, 6));
    EXPECT_STREQ("6789", out);
    EXPECT_EQ(0u, buf.copyTo(out, 4, 10));
    EXPECT_EQ(2u, buf.copyTo(out, 100, 8));
    EXPECT_EQ(3u, buf.copyFrom("abc", 3, 12)); // past the end: grows, the gap is zero
    EXPECT_EQ(15u, buf.getSize());
    EXPECT_EQ(0, std::memcmp(buf.getData() + 9, "9\0\0abc", 6));
    EXPECT_EQ(4u, buf.copyFrom(buf.getData(), 4, 13)); // from its own bytes, across a reallocation
    EXPECT_EQ(0, std::memcmp(buf.getData() + 13, "0123", 4));
    buf.resize(2);
    buf.resize(4);
    EXPECT_EQ(0, std::memcmp(buf.getData(), "01\0\0", 4));

    CJTBuffer copy(buf);
    EXPECT_EQ(buf.getData(), copy.getData());
    copy.getWritableData()[0] = 'X';
    copy.copyFrom("Y", 1, 1);
    EXPECT_EQ(0, std::memcmp(buf.getData(), "01", 2));
    EXPECT_EQ(0, std::memcmp(copy.getData(), "XY", 2));
    EXPECT_TRUE(buf != copy);
    copy = buf;
    EXPECT_TRUE(buf == copy);
}
