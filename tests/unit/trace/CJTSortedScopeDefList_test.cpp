#include "CJTSortedScopeDefList.h"

#include <gtest/gtest.h>

#include <memory>
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
    // A name that begins another ("Sort_BM" after "Sort_B"): its scopes must still be found together.
    CJTTraceScopeDef d6("Sort_BM", "add");
    CJTTraceScopeDef d7("Sort_BM", "run");
    CJTSortedScopeDefList list;
    list.build({&d6, &d1, &d2, &d3, &d7, &d4, &d5});
    std::vector<std::string> names;
    for (size_t i = 0; i < list.getCount(); ++i)
        names.push_back(list.getFullName(i));
    EXPECT_EQ((std::vector<std::string>{"Sort_AB", "Sort_A_main", "Sort_BM_add", "Sort_BM_run", "Sort_B_alpha",
                                        "Sort_B_mid", "Sort_B_zeta"}),
              names);

    struct Case
    {
        const char* prefix;
        size_t first;
    };
    // A full name that is a proper beginning of the prefix is before it, not a match.
    for (Case c : {Case{"Sort_B", 2}, Case{"Sort_B_", 4}, Case{"Sort_B_m", 5}, Case{"Sort_A", 0}, Case{"", 0},
                   Case{"Sort_AB_x", 7}, Case{"Sort_C", 7}, Case{"Sort_0", 7}})
        EXPECT_EQ(c.first, list.findScopeStartingWith(c.prefix)) << c.prefix;
    size_t pos = list.findScopeStartingWith("Sort_B_");
    int matches = 0;
    for (; list.startsWith(pos, "Sort_B_"); ++pos)
        ++matches;
    EXPECT_EQ(3, matches);
    EXPECT_FALSE(list.startsWith(7, ""));

    // Many equal names in a scrambled order.
    std::vector<std::unique_ptr<CJTTraceScopeDef>> owned;
    std::vector<CJTTraceScopeDef*> defs;
    std::vector<std::string> many;
    for (int i = 0; i < 300; ++i)
        many.push_back("Many_" + std::to_string((i * 7919) % 37));
    for (const std::string& n : many) {
        owned.emplace_back(new CJTTraceScopeDef(n.c_str(), "f"));
        defs.push_back(owned.back().get());
    }
    list.build(defs);
    ASSERT_EQ(300u, list.getCount());
    for (size_t i = 1; i < list.getCount(); ++i)
        EXPECT_LE(std::string(list.getFullName(i - 1)), std::string(list.getFullName(i)));
    EXPECT_STREQ("Many_3", list.get(list.findScopeStartingWith("Many_3_"))->getName());
}
