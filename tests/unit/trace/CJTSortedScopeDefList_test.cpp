#include "CJTSortedScopeDefList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CJTTraceScopeDef.h"

TEST(CJTSortedScopeDefList, SortsByFullNameAndFindsTheFirstMatch)
{
    CJTTraceScopeDef d1("Sort_B", "zeta");
    CJTTraceScopeDef d2("Sort_A", "main");
    CJTTraceScopeDef d3("Sort_B", "alpha");
    CJTTraceScopeDef d4("Sort_AB", nullptr);
    CJTTraceScopeDef d5("Sort_B", "mid");
    std::vector<CJTTraceScopeDef*> defs{&d1, &d2, &d3, &d4, &d5};

    CJTSortedScopeDefList list;
    list.build(defs);
    ASSERT_EQ(5u, list.getCount());
    std::vector<std::string> names;
    for (size_t i = 0; i < list.getCount(); ++i)
        names.push_back(list.getFullName(i));
    EXPECT_EQ((std::vector<std::string>{"Sort_AB", "Sort_A_main", "Sort_B_alpha", "Sort_B_mid", "Sort_B_zeta"}), names);

    EXPECT_EQ(2u, list.findScopeStartingWith("Sort_B"));
    EXPECT_EQ(3u, list.findScopeStartingWith("Sort_B_m"));
    EXPECT_EQ(0u, list.findScopeStartingWith("Sort_A"));
    EXPECT_EQ(0u, list.findScopeStartingWith(""));
    // A full name that is a proper beginning of the prefix is before it, not a match.
    EXPECT_EQ(5u, list.findScopeStartingWith("Sort_AB_x"));
    EXPECT_EQ(5u, list.findScopeStartingWith("Sort_C"));
    EXPECT_EQ(5u, list.findScopeStartingWith("Sort_0"));

    EXPECT_TRUE(list.startsWith(4, "Sort_B_z"));
    EXPECT_FALSE(list.startsWith(5, ""));
}

TEST(CJTSortedScopeDefList, SortsLargeAndDuplicateHeavyInput)
{
    std::vector<std::string> names;
    for (int i = 0; i < 300; ++i)
        names.push_back("Many_" + std::to_string((i * 7919) % 37));
    std::vector<CJTTraceScopeDef*> defs;
    for (const std::string& n : names)
        defs.push_back(new CJTTraceScopeDef(n.c_str(), "f"));

    CJTSortedScopeDefList list;
    list.build(defs);
    ASSERT_EQ(300u, list.getCount());
    for (size_t i = 1; i < list.getCount(); ++i)
        EXPECT_LE(std::string(list.getFullName(i - 1)), std::string(list.getFullName(i)));
    size_t first = list.findScopeStartingWith("Many_3_");
    ASSERT_LT(first, list.getCount());
    EXPECT_STREQ("Many_3", list.get(first)->getName());

    for (CJTTraceScopeDef* def : defs)
        delete def;
}

TEST(CJTSortedScopeDefList, NameThatBeginsAnotherStillFindsAllItsScopes)
{
    CJTTraceScopeDef t1("Pfx_CTimer", "start");
    CJTTraceScopeDef t2("Pfx_CTimer", "stop");
    CJTTraceScopeDef m1("Pfx_CTimerMaster", "run");
    CJTTraceScopeDef m2("Pfx_CTimerMaster", "add");
    CJTTraceScopeDef m3("Pfx_CTimerMaster", "remove");
    std::vector<CJTTraceScopeDef*> defs{&m1, &t1, &m2, &t2, &m3};

    CJTSortedScopeDefList list;
    list.build(defs);
    size_t pos = list.findScopeStartingWith("Pfx_CTimer_");
    ASSERT_LT(pos, list.getCount());
    int matches = 0;
    for (; list.startsWith(pos, "Pfx_CTimer_"); ++pos)
        ++matches;
    EXPECT_EQ(2, matches);
}
