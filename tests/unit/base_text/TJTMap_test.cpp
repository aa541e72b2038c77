// Nothing in the service uses these two yet; the test keeps them compiled and their order right.
#include "CJTString.h"
#include "TJTMap.h"
#include "TJTSortedVector.h"

#include <gtest/gtest.h>

#include <string>

TEST(TJTMap, UniqueKeysInOrderTextKeysByContentsAndSortedEqualsInInsertionOrder)
{
    TJTMap<int, CJTString> m;
    EXPECT_TRUE(m.insert(30, "thirty"));
    EXPECT_TRUE(m.insert(10, "ten"));
    EXPECT_FALSE(m.insert(10, "again"));
    m[20] = "twenty";
    EXPECT_TRUE(m.remove(30));
    EXPECT_FALSE(m.remove(30));
    EXPECT_EQ(10, m.getAt(0).first);
    EXPECT_STREQ("twenty", m.find(20)->c_str());
    EXPECT_EQ(nullptr, m.find(15));

    TJTMap<const char*, int> byText;  // null sorts before any text
    std::string key = "/dev/mv2trace/register";
    byText[key.c_str()] = 1;
    byText["/dev/ipc/ch6"] = 2;
    byText[nullptr] = 3;
    EXPECT_EQ(1, *byText.find(std::string(key).c_str()));
    EXPECT_EQ(nullptr, byText.getAt(0).first);
    EXPECT_STREQ("/dev/ipc/ch6", byText.getAt(1).first);

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
    EXPECT_FALSE(byLength.insertUnique("x"));
    EXPECT_TRUE(byLength.remove("zz") && byLength.remove("zz"));  // equal under the order: "bb", "dd"
    EXPECT_EQ(-1, byLength.find("zz"));
}
