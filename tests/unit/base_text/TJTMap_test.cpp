#include "CJTString.h"
#include "JTAlgorithm.h"
#include "TJTMap.h"
#include "TJTSortedVector.h"

#include <gtest/gtest.h>

#include <string>

TEST(TJTSortedVector, BoundsOnRunsOfEqualsAndEqualsKeepTheirInsertionOrder)
{
    const int values[] = {1, 3, 3, 3, 7};
    EXPECT_EQ(values + 1, JTAlgorithm::lowerBound(values, values + 5, 3));
    EXPECT_EQ(values + 4, JTAlgorithm::upperBound(values, values + 5, 3));
    EXPECT_EQ(values + 5, JTAlgorithm::lowerBound(values, values + 5, 8));

    TJTSortedVector<int> v;
    for (int x : {5, 1, 4, 1, 9, 2})
        v.insert(x);
    std::string order;
    for (int x : v)
        order += std::to_string(x);
    EXPECT_EQ("112459", order);
    EXPECT_EQ(-1, v.find(3));
    uint32_t at = 0;
    EXPECT_FALSE(v.insertUnique(4, &at));
    EXPECT_EQ(3u, at);
    EXPECT_TRUE(v.insertUnique(3, &at));
    EXPECT_TRUE(v.remove(1));
    EXPECT_TRUE(v.remove(1));
    EXPECT_FALSE(v.remove(1));

    struct SByLength
    {
        bool operator()(const CJTString& a, const CJTString& b) const { return a.getCharCount() < b.getCharCount(); }
    };
    TJTSortedVector<CJTString, SByLength> byLength;
    for (const char* s : {"ccc", "a", "bb", "b", "dd"})
        byLength.insert(s);
    order.clear();
    for (const CJTString& s : byLength)
        order += std::string(s.c_str()) + " ";
    EXPECT_EQ("a b bb dd ccc ", order);
}

TEST(TJTMap, UniqueKeysInOrderAndTextKeysCompareByContents)
{
    TJTMap<int, CJTString> m;
    EXPECT_TRUE(m.insert(30, "thirty"));
    EXPECT_TRUE(m.insert(10, "ten"));
    EXPECT_FALSE(m.insert(10, "again"));
    m[20] = "twenty";
    m.set(30, "THIRTY");
    ASSERT_EQ(3u, m.size());
    EXPECT_EQ(10, m.getAt(0).first);
    EXPECT_STREQ("THIRTY", m.find(30)->c_str());
    EXPECT_STREQ("ten", m.find(10)->c_str());
    EXPECT_EQ(nullptr, m.find(15));
    EXPECT_TRUE(m.remove(20));
    EXPECT_FALSE(m.remove(20));
    EXPECT_EQ(1, m.indexOf(30));

    TJTBefore<const char*> before;
    EXPECT_TRUE(before(nullptr, ""));
    EXPECT_FALSE(before("", nullptr));
    TJTMap<const char*, int> byText;
    std::string key = "/dev/mv2trace/register";
    byText[key.c_str()] = 1;
    byText["/dev/ipc/ch6"] = 2;
    std::string other = key;
    ASSERT_NE(nullptr, byText.find(other.c_str()));
    EXPECT_EQ(1, *byText.find(other.c_str()));
    EXPECT_STREQ("/dev/ipc/ch6", byText.getAt(0).first);
}
