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
        gSeen.clear();
        gSeen.push_back(gsName.getString(0).c_str());
        gSeen.push_back(std::to_string(gsCount.getInt(0)));
        gSeen.push_back(std::to_string(gsCount.getInt(3)));
        uint8_t blob[4] = {};
        uint32_t copied = gsBlob.getArray(3, blob, sizeof blob);
        gSeen.push_back(std::to_string(copied) + ":" + std::to_string(blob[1]));
        gSeen.push_back(std::to_string(gsCount.getNumberOfRows()));
        return argument;
    }

    int triple(int argument) { return argument * 3; }
    CJTTraceCallbackDef gsPlain(triple, "Test_plain", "one integer");

    void u16(std::vector<uint8_t>& b, uint16_t v)
    {
        b.push_back(static_cast<uint8_t>(v));
        b.push_back(static_cast<uint8_t>(v >> 8));
    }
    void u32(std::vector<uint8_t>& b, uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            b.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }

    int run(CJTTraceCallbackDef& def, const std::vector<uint8_t>& bytes)
    {
        CJTByteStream data(bytes.data(), static_cast<uint32_t>(bytes.size()));
        return CJTTraceCallbackManager::getInstance().getContext().execute(def, 5, data);
    }
}

TEST(CJTTraceCallbackContext, DecodesRowsOfEveryTypeAndSetsTheReturnRow)
{
    std::vector<uint8_t> d;
    u32(d, 99);  // default argument
    d.push_back(0); u16(d, 0); u16(d, 3); d.insert(d.end(), {'h', 'i', 0});
    d.push_back(9);  // no such parameter: skipped as this one byte
    d.push_back(1); u16(d, 0); u32(d, static_cast<uint32_t>(-7));
    d.push_back(1); u16(d, 3); u32(d, 44);
    d.push_back(2); u16(d, 3); u16(d, 2); d.insert(d.end(), {0x10, 0x20});
    d.push_back(1); u16(d, 4); u16(d, 0);  // value cut off: not taken

    EXPECT_EQ(run(gsTyped, d), 99);
    EXPECT_EQ(gSeen, (std::vector<std::string>{"hi", "-7", "44", "2:32", "2"}));
    EXPECT_EQ(gsTyped.getReturnRow(), 4);  // the last row taken + 1
    EXPECT_EQ(gsName.getString(0), CJTString());  // nothing readable after the call
}

TEST(CJTTraceCallbackContext, ParametersStartEmptyOnEveryCall)
{
    std::vector<uint8_t> d;
    u32(d, 1);
    d.push_back(1); u16(d, 7); u32(d, 5);
    run(gsTyped, d);
    std::vector<uint8_t> none;
    u32(none, 2);
    EXPECT_EQ(run(gsTyped, none), 2);
    EXPECT_EQ(gSeen, (std::vector<std::string>{"", "0", "0", "0:0", "0"}));
    EXPECT_EQ(gsTyped.getReturnRow(), 0);
}

TEST(CJTTraceCallbackContext, PlainCallbackTakesTheGeneratedParameterValue)
{
    std::vector<uint8_t> d;
    u32(d, 5);
    EXPECT_EQ(run(gsPlain, d), 15);
    d.push_back(0); u16(d, 0); u32(d, 8);  // the generated default parameter's entry
    EXPECT_EQ(run(gsPlain, d), 24);
    EXPECT_EQ(run(gsPlain, {}), 0);
}

TEST(CJTTraceCallbackManager, ListsDefinitionsInRegistrationOrder)
{
    CJTTraceCallbackManager& m = CJTTraceCallbackManager::getInstance();
    uint32_t before = m.getNumberOfCallbacks();
    {
        CJTTraceCallbackDef temporary(triple, "Test_temporary", "");
        ASSERT_EQ(m.getNumberOfCallbacks(), before + 1);
        EXPECT_EQ(m.getCallbackDef(before), &temporary);
        std::vector<uint8_t> d;
        u32(d, 4);
        CJTByteStream data(d.data(), static_cast<uint32_t>(d.size()));
        int result = 0;
        EXPECT_TRUE(m.executeCallback(1, static_cast<uint16_t>(before), data, result));
        EXPECT_EQ(result, 12);
    }
    EXPECT_EQ(m.getNumberOfCallbacks(), before);
    CJTByteStream empty;
    int result = 0;
    EXPECT_FALSE(m.executeCallback(1, static_cast<uint16_t>(before), empty, result));
    EXPECT_EQ(m.getCallbackDef(before), nullptr);
}
