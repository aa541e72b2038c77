#include "CJTTraceCallback.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
// Values are only readable while the callback runs, so the function records what it sees.
std::vector<std::string> gSeen;
int inspect(int argument);

CJTTraceCallbackDef gsTyped(inspect, "Test_typed", "parameters of every type");
CJTTraceCallbackParam gsName(gsTyped, "name", CJTTraceCallbackParam::TYPE_STRING);
CJTTraceCallbackParam gsCount(gsTyped, "count", CJTTraceCallbackParam::TYPE_INT);
CJTTraceCallbackParam gsBlob(gsTyped, "blob", CJTTraceCallbackParam::TYPE_ARRAY);

int inspect(int argument)
{
    uint8_t blob[4] = {};
    uint32_t copied = gsBlob.getArray(3, blob, sizeof blob);
    gSeen = {gsName.getString(0).c_str(), std::to_string(gsCount.getInt(0)), std::to_string(gsCount.getInt(3)),
             std::to_string(copied) + ":" + std::to_string(blob[1]), std::to_string(gsCount.getNumberOfRows())};
    return argument;
}

int triple(int argument)
{
    return argument * 3;
}
CJTTraceCallbackDef gsPlain(triple, "Test_plain", "one integer");

// Rows are (parameter, 16-bit row, value): integers as 32 bits, texts with their zero, arrays
// with a 16-bit length; all after the 32-bit default argument.
struct Data : std::vector<uint8_t>
{
    Data& u16(uint16_t v)
    {
        push_back(uint8_t(v));
        push_back(uint8_t(v >> 8));
        return *this;
    }
    Data& u32(uint32_t v) { return u16(uint16_t(v)).u16(uint16_t(v >> 16)); }
    Data& bytes(std::initializer_list<uint8_t> b)
    {
        insert(end(), b);
        return *this;
    }
};

int run(CJTTraceCallbackDef& def, const std::vector<uint8_t>& bytes)
{
    CJTByteStream data(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return CJTTraceCallbackManager::getInstance().getContext().execute(def, 5, data);
}
}

TEST(CJTTraceCallbackContext, DecodesRowsOfEveryTypeAndStartsEmptyOnEveryCall)
{
    Data d;
    d.u32(99).bytes({0}).u16(0).u16(3).bytes({'h', 'i', 0});
    d.bytes({9});  // no such parameter: skipped as this one byte
    d.bytes({1}).u16(0).u32(static_cast<uint32_t>(-7));
    d.bytes({1}).u16(3).u32(44);
    d.bytes({2}).u16(3).u16(2).bytes({0x10, 0x20});
    d.bytes({1}).u16(4).u16(0);  // value cut off: not taken
    EXPECT_EQ(run(gsTyped, d), 99);
    EXPECT_EQ(gSeen, (std::vector<std::string>{"hi", "-7", "44", "2:32", "2"}));
    EXPECT_EQ(gsTyped.getReturnRow(), 4);         // the last row taken + 1
    EXPECT_EQ(gsName.getString(0), CJTString());  // nothing readable after the call

    EXPECT_EQ(run(gsTyped, Data().u32(2)), 2);
    EXPECT_EQ(gSeen, (std::vector<std::string>{"", "0", "0", "0:0", "0"}));
    EXPECT_EQ(gsTyped.getReturnRow(), 0);

    // A plain callback takes its generated parameter's value, else the default argument.
    EXPECT_EQ(run(gsPlain, Data().u32(5)), 15);
    EXPECT_EQ(run(gsPlain, Data().u32(5).bytes({0}).u16(0).u32(8)), 24);
    EXPECT_EQ(run(gsPlain, {}), 0);
}

TEST(CJTTraceCallbackManager, ListsDefinitionsInRegistrationOrder)
{
    CJTTraceCallbackManager& m = CJTTraceCallbackManager::getInstance();
    const uint16_t before = static_cast<uint16_t>(m.getNumberOfCallbacks());
    int result = 0;
    {
        CJTTraceCallbackDef temporary(triple, "Test_temporary", "");
        CJTByteStream data(Data().u32(4).data(), 4);
        EXPECT_EQ(m.getCallbackDef(before), &temporary);
        EXPECT_TRUE(m.executeCallback(1, before, data, result));
        EXPECT_EQ(result, 12);
    }
    CJTByteStream empty;
    EXPECT_EQ(m.getNumberOfCallbacks(), before);
    EXPECT_FALSE(m.executeCallback(1, before, empty, result));
}
