// What the service accepts from other services' payloads: only JSON objects, only numbers that fit
// an int and strings where those are expected, and never an exception, whatever the text.
#include "CBRadioJson.h"

#include <gtest/gtest.h>

#include <map>
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

TEST(CBRadioJson, IntegersAreNumbersThatFitAnIntCutTowardsZero)
{
    Json::Value root;
    ASSERT_TRUE(CBRadioJson::parseObject(
        "{\"i\":-3,\"u\":4000000000,\"r\":2.0,\"f\":2.9,\"g\":-0.5,\"x\":3e9,\"s\":\"2\",\"b\":true,"
        "\"n\":null,\"o\":{},\"a\":[1]}",
        root));
    int value = 0;
    for (const auto& expected : std::map<std::string, int>{{"i", -3}, {"r", 2}, {"f", 2}, {"g", 0}}) {
        EXPECT_TRUE(CBRadioJson::readInt(root, expected.first.c_str(), value)) << expected.first;
        EXPECT_EQ(expected.second, value) << expected.first;
    }
    value = 77;
    for (const char* key : {"u", "x", "s", "b", "n", "o", "a", "missing"}) {
        EXPECT_FALSE(CBRadioJson::readInt(root, key, value)) << key;
        EXPECT_EQ(77, value) << key << " changed the output";
    }
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
