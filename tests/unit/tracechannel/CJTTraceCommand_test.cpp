#include "CJTTraceCommand.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{
CJTTraceCommand parse(std::vector<uint8_t> bytes, bool* ok = nullptr)
{
    CJTByteStream in(bytes.data(), static_cast<uint32_t>(bytes.size()));
    CJTTraceCommand c;
    bool r = c.readFrom(in);
    if (ok)
        *ok = r;
    return c;
}
}

// Only a call (command 9) has data, as many bytes as its parameter says or as arrived.
TEST(CJTTraceCommand, ReadsCodeParameterAndOnlyCallData)
{
    CJTTraceCommand filter = parse({3, 0x05, 0x00, 0x7F, 0x00, 0xAA});
    EXPECT_EQ(filter.getCode(), 3);
    EXPECT_EQ(filter.getParameter(), 0x007F0005u);
    EXPECT_EQ(filter.getData().getSize(), 0u);
    EXPECT_EQ(parse({9, 4, 0, 0, 0, 1, 0, 2, 0, 0xFF}).getData().getSize(), 4u);
    bool ok = false;
    CJTTraceCommand shortCall = parse({9, 3, 0, 0, 0, 0x11, 0x22}, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(shortCall.getData().getSize(), 2u);
    EXPECT_EQ(parse({9, 0xFF, 0xFF, 0xFF, 0xFF, 1}).getData().getSize(), 1u);
    for (std::vector<uint8_t> bytes : {std::vector<uint8_t>{}, {1}, {1, 2, 3, 4}}) {
        CJTTraceCommand c = parse(bytes, &ok);
        EXPECT_FALSE(ok);
        EXPECT_EQ(c.getCode(), 0);
        EXPECT_EQ(c.getParameter(), 0u);
    }
}

TEST(CJTTraceCommand, ToBufferOnlyForTheExactSize)
{
    CJTTraceCommand c(9, 0);
    c.writeData(static_cast<uint16_t>(0x0102));
    c.writeData(static_cast<uint32_t>(0xA0B0C0D0));
    EXPECT_EQ(c.getParameter(), 6u);  // a call's parameter follows its data
    uint8_t buf[12] = {};
    EXPECT_FALSE(c.toBuffer(buf, 10));
    EXPECT_FALSE(c.toBuffer(buf, 12));
    ASSERT_TRUE(c.toBuffer(buf, 11));
    const uint8_t expected[11] = {9, 6, 0, 0, 0, 0x02, 0x01, 0xD0, 0xC0, 0xB0, 0xA0};
    EXPECT_EQ(0, std::memcmp(buf, expected, 11));
    uint16_t first = 0;
    CJTTraceCommand back = parse(std::vector<uint8_t>(buf, buf + 11));
    EXPECT_TRUE(back.readData(first));
    EXPECT_EQ(first, 0x0102);
}
