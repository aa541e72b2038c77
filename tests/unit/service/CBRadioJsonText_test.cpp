// The texts written directly must be the very bytes jsoncpp's FastWriter makes of the same
// document: clients have always received those. The two standard results are compared byte for
// byte with every method call of the e2e bus service tests.
#include "CBRadioJsonText.h"

#include <json/json.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

namespace
{
std::string fastWriter(const Json::Value& document)
{
    return Json::FastWriter().write(document);
}

const int kIntegers[] = {INT_MIN, -129, -128, -1, 0, 1, 5, 9, 10, 40, 99, 100, 127, 128, 255, 256, INT_MAX};
}

TEST(CBRadioJsonText, IntegerObjectsWithOneOrTwoMembersInKeyOrder)
{
    for (int value : kIntegers) {
        for (const char* key : {"Status", "ChannelNumber", "weatherAlertOnOffStatus"}) {
            Json::Value document(Json::objectValue);
            document[key] = value;
            EXPECT_EQ(fastWriter(document), CBRadioJsonText::object(key, value));
        }
        for (int other : {0, 1, INT_MIN}) {
            Json::Value document(Json::objectValue);
            document["RxStatus"] = value;
            document["TxStatus"] = other;
            EXPECT_EQ(fastWriter(document), CBRadioJsonText::object("RxStatus", value, "TxStatus", other));
            EXPECT_EQ(fastWriter(document), CBRadioJsonText::object("TxStatus", other, "RxStatus", value));
        }
    }
}

TEST(CBRadioJsonText, PresetList)
{
    std::vector<std::vector<int>> lists = {{0, 0, 0, 0, 0, 0}, {1, 40, 0, 12, 9, 10}, {-128, 127, -1, 255, 0, 1}, {}};
    for (int value : kIntegers)
        lists.push_back(std::vector<int>(6, value));
    for (const auto& channels : lists) {
        Json::Value list(Json::arrayValue);
        for (size_t i = 0; i < channels.size(); ++i) {
            Json::Value entry(Json::objectValue);
            entry["Channel_number"] = channels[i];
            entry["PresetNo"] = static_cast<int>(i + 1);
            list.append(entry);
        }
        Json::Value document(Json::objectValue);
        document["CBRadioPresetList"] = list;
        EXPECT_EQ(fastWriter(document), CBRadioJsonText::presetList(channels.data(), channels.size()));
    }
}

// The version bytes come from the V850 as they are: every byte but zero, valid UTF-8 or not.
TEST(CBRadioJsonText, SuccessWithAnyTextAndAnyKeyOrder)
{
    std::vector<std::string> texts({"", "21", "\"\\/", "\b\f\n\r\t\x01\x1f\x7f", "\xc3\xa9", "\xe2\x82\xac",
                                    "\xf0\x9f\x98\x80", "\xc3", "\xc3\x41", "\xe2\x82", "\xed\xa0\x80",
                                    "\xf4\x90\x80\x80", std::string(14, '\xff'), "SW 1.2.3-rc\t\"x\""});
    for (int first = 1; first < 256; ++first) {
        texts.push_back(std::string(1, static_cast<char>(first)));
        for (int second = 1; second < 256; ++second)
            texts.push_back({static_cast<char>(first), static_cast<char>(second)});
    }
    for (const char* key : {"CBRadioHWVersion", "CBRadioSWVersion", "cp", "data", "zz"}) {
        for (const std::string& text : texts) {
            Json::Value document(Json::objectValue);
            document["code"] = 0;
            document["description"] = "success";
            document[key] = text;
            ASSERT_EQ(fastWriter(document), CBRadioJsonText::successWith(key, text)) << key;
        }
    }
}
