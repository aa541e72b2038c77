#include "CJTBuffer.h"
#include "CJTRCMemoryBuffer.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(CJTRCMemoryBuffer, CountsOwnersAndComparesBytes)
{
    CJTRCMemoryBuffer* a = CJTRCMemoryBuffer::create("abc", 3);
    CJTRCMemoryBuffer* b = CJTRCMemoryBuffer::create(3);
    EXPECT_EQ(0, b->getBuffer()[0] | b->getBuffer()[1] | b->getBuffer()[2]);
    EXPECT_TRUE(*a != *b);
    std::memcpy(b->getBuffer(), "abc", 3);
    EXPECT_TRUE(*a == *b);
    a->addRef();
    EXPECT_EQ(2u, a->getRefCount());
    a->removeRef();
    a->removeRef();
    b->removeRef();
}

TEST(CJTBuffer, ResizeKeepsBytesAndZeroesNewOnes)
{
    CJTBuffer buf("hello", 5);
    buf.resize(8);
    EXPECT_EQ(8u, buf.getSize());
    EXPECT_EQ(0, std::memcmp(buf.getData(), "hello\0\0\0", 8));
    buf.resize(2);
    buf.resize(4);
    EXPECT_EQ(0, std::memcmp(buf.getData(), "he\0\0", 4));
    buf.reserve(100);
    EXPECT_EQ(4u, buf.getSize());
    EXPECT_GE(buf.getCapacity(), 100u);
}

TEST(CJTBuffer, CopyToAndFromStayInBounds)
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
}

TEST(CJTBuffer, CopiesAreIndependent)
{
    CJTBuffer a("abc", 3);
    CJTBuffer b(a);
    EXPECT_EQ(a.getData(), b.getData());
    b.getWritableData()[0] = 'X';
    b.copyFrom("Y", 1, 1);
    EXPECT_EQ(0, std::memcmp(a.getData(), "abc", 3));
    EXPECT_EQ(0, std::memcmp(b.getData(), "XYc", 3));
    EXPECT_TRUE(a != b);
    b = a;
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(CJTBuffer() == CJTBuffer(0u));
}
