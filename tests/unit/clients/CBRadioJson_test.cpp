// What the service accepts from other services' payloads: only JSON objects, only numbers that fit
// an int and strings where those are expected, and never an exception, whatever the text.
#include "CBRadioJson.h"

#include <gtest/gtest.h>

#include <string>

TEST(CBRadioJson, OnlyJsonObjectsAreUsableAndTooDeepANestingIsAParseErrorNotAnException)
{
    Json::Value root;
    EXPECT_TRUE(CBRadioJson::parseObject("{\"Value\":2}", root));
    EXPECT_TRUE(CBRadioJson::parseObject("{}", root));
    const std::string deep = "{\"a\":" + std::string(100000, '[');
    const std::string closed = std::string(3000, '[') + std::string(3000, ']');
    for (const char* text : {"", "[1,2]", "5", "\"text\"", "null", "{\"Value\":", "{'Value':2}"})
        EXPECT_FALSE(CBRadioJson::parseObject(text, root)) << text;
    EXPECT_FALSE(CBRadioJson::parseObject(deep.c_str(), root));
    EXPECT_FALSE(CBRadioJson::parseObject(closed.c_str(), root));
    EXPECT_FALSE(CBRadioJson::parseObject(nullptr, root));
}

// Through the methods, the e2e bus service tests meet integers too large for an int, a fraction
// taken as the integer it starts with, and strings, booleans, null, lists and missing members
// refused; here negative numbers and an output a refusal leaves alone.
TEST(CBRadioJson, NegativeNumbersCutTowardsZeroAndARefusalLeavesTheOutputAlone)
{
    Json::Value root;
    ASSERT_TRUE(CBRadioJson::parseObject("{\"i\":-3,\"g\":-0.5,\"o\":{}}", root));
    int value = 0;
    EXPECT_TRUE(CBRadioJson::readInt(root, "i", value) && value == -3);
    EXPECT_TRUE(CBRadioJson::readInt(root, "g", value) && value == 0);
    value = 77;
    EXPECT_FALSE(CBRadioJson::readInt(root, "o", value));
    EXPECT_EQ(77, value);
}

TEST(CBRadioJson, TextsMustBeStringsAndMembersOfNonObjectsAreAbsent)
{
    Json::Value root;
    ASSERT_TRUE(
        CBRadioJson::parseObject("{\"state\":\"ON\",\"number\":1,\"inner\":{\"state\":\"OFF\"},\"list\":[\"ON\"]}",
                                 root));
    std::string text;
    EXPECT_TRUE(CBRadioJson::readString(root, "state", text));
    EXPECT_EQ("ON", text);
    EXPECT_EQ("", CBRadioJson::stringOr(root, "number"));
    EXPECT_EQ("", CBRadioJson::stringOr(root, "list"));
    EXPECT_EQ("OFF", CBRadioJson::stringOr(CBRadioJson::member(root, "inner"), "state"));
    // Looking into a string, a list or a missing member gives nothing rather than throwing.
    EXPECT_TRUE(CBRadioJson::member(CBRadioJson::member(root, "state"), "x").isNull());
    EXPECT_TRUE(CBRadioJson::member(CBRadioJson::member(root, "list"), "x").isNull());
    EXPECT_EQ("", CBRadioJson::stringOr(CBRadioJson::member(root, "absent"), "state"));
}
