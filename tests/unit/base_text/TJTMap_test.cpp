#include "CJTString.h"
#include "TJTMap.h"
#include "TJTSortedVector.h"

#include <gtest/gtest.h>

#include <string>

TEST(TJTSortedVector, EqualsKeepTheirInsertionOrderAndUniqueInsertsFindTheirPlace)
{
    struct SByLength
    {
        bool operator()(const CJTString& a, const CJTString& b) const { return a.getCharCount() < b.getCharCount(); }
    };
    TJTSortedVector<CJTString, SByLength> byLength;
    for (const char* s : {"ccc", "a", "bb", "b", "dd"})
        byLength.insert(s);
    std::string order;
    for (const CJTString& s : byLength)
        order += std::string(s.c_str()) + " ";
    EXPECT_EQ("a b bb dd ccc ", order);

    TJTSortedVector<int> v;
    for (int x : {5, 1, 4, 1, 9})
        v.insert(x);
    uint32_t at = 0;
    EXPECT_FALSE(v.insertUnique(4, &at));
    EXPECT_EQ(2u, at);
    EXPECT_TRUE(v.insertUnique(3, &at));
    EXPECT_EQ(2, v.find(3));
    EXPECT_TRUE(v.remove(1) && v.remove(1));
    EXPECT_FALSE(v.remove(1));
    EXPECT_EQ(-1, v.find(1));
}

TEST(TJTMap, UniqueKeysInOrderAndTextKeysCompareByContents)
{
    TJTMap<int, CJTString> m;
    EXPECT_TRUE(m.insert(30, "thirty"));
    EXPECT_TRUE(m.insert(10, "ten"));
    EXPECT_FALSE(m.insert(10, "again"));
    m[20] = "twenty";
    m.set(30, "THIRTY");
    EXPECT_EQ(10, m.getAt(0).first);
    EXPECT_STREQ("THIRTY", m.find(30)->c_str());
    EXPECT_STREQ("ten", m.find(10)->c_str());
    EXPECT_EQ(nullptr, m.find(15));
    EXPECT_TRUE(m.remove(20));
    EXPECT_FALSE(m.remove(20));
    EXPECT_EQ(1, m.indexOf(30));

    TJTMap<const char*, int> byText;  // null sorts before any text
    std::string key = "/dev/mv2trace/register";
    byText[key.c_str()] = 1;
    byText["/dev/ipc/ch6"] = 2;
    byText[nullptr] = 3;
    EXPECT_EQ(1, *byText.find(std::string(key).c_str()));
    EXPECT_EQ(nullptr, byText.getAt(0).first);
    EXPECT_STREQ("/dev/ipc/ch6", byText.getAt(1).first);
}
