#include "CJTString.h"
#include "JTAssert.h"
#include "TJTVector.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <string>

namespace
{
std::string join(const TJTVector<int>& v)
{
    std::string out;
    for (int x : v)
        out += std::to_string(x) + ",";
    return out;
}
}

TEST(TJTVector, EditingKeepsOrderAndCapacityNeverOverflows)
{
    TJTVector<int> v;
    for (int i = 0; i < 5; ++i)
        v.append(i);
    EXPECT_TRUE(v.insert(0, 10));
    EXPECT_TRUE(v.insert(v.size(), 20));
    EXPECT_EQ(v.begin() + 2, v.insert(v.begin() + 2, 30));
    EXPECT_EQ("10,0,30,1,2,3,4,20,", join(v));
    EXPECT_TRUE(v.erase(1));
    EXPECT_TRUE(v.erase(2, 2));
    EXPECT_EQ(v.begin() + 1, v.erase(v.begin() + 1));
    EXPECT_EQ("10,3,4,20,", join(v));
    EXPECT_EQ(-1, v.find(4, 3));
    EXPECT_TRUE(v.remove(3));
    EXPECT_FALSE(v.remove(3));
    EXPECT_TRUE(v.set(0, 11));
    EXPECT_EQ("11,4,20,", join(v));

    EXPECT_EQ(0xFFFFFFFFu, TJTVector<int>::calcNewCapacity(0xF0000000u, 0xF0000001u));
    v.resize(10);
    v.trim();
    EXPECT_EQ(10u, v.getCapacity());
    v.resize(12, 7);
    EXPECT_EQ(7, v.get(11));

    TJTVector<CJTString> names;
    names.append("a");
    TJTVector<CJTString> copy(names);
    copy.get(0).append("x");
    EXPECT_STREQ("a", names.get(0).c_str());
}

// Announced misuse asserts and changes nothing; unannounced, it ends the process at the caller's line.
TEST(TJTVectorAssertions, MisuseChangesNothingWhenAnnouncedAndEndsTheProcessElse)
{
    TJTVector<int> v;
    v.append(1);
    v.append(2);
    CJTAsserter::setOccuredAssertions(0);
    CJTAsserter::setExpectedAssertions(8);
    EXPECT_EQ(0, v.get(2));                          // index 0
    EXPECT_EQ(0, v[5]);                              // index 0
    EXPECT_FALSE(v.set(2, 9));                       // index 0
    EXPECT_FALSE(v.insert(3, 9));                    // index 0
    EXPECT_FALSE(v.erase(2));                        // index 0
    EXPECT_FALSE(v.erase(1, 2));                     // parameter
    EXPECT_EQ(v.end(), v.erase(v.end()));            // iterator
    EXPECT_EQ(v.end(), v.insert(v.begin() + 3, 9));  // iterator
    EXPECT_EQ(8u, CJTAsserter::getOccuredAssertions());
    EXPECT_EQ("1,2,", join(v));
    // The element handed out for a failed get is fresh each time.
    CJTAsserter::setExpectedAssertions(10);
    v.get(7) = 99;
    EXPECT_EQ(0, v.get(7));
    CJTAsserter::setExpectedAssertions(0);
    CJTAsserter::setOccuredAssertions(0);

    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempRoot root;  // for the backtrace files of the dying children
    auto expected = [](int line, const char* text) {
        return "TJTVector:" + std::to_string(line) + ": ASSERTION \"" + text + "\" failed";
    };
    // Each check stays on one line: the message must name the line of the call.
    // clang-format off
    EXPECT_EXIT({ v.get(2); }, ::testing::ExitedWithCode(1), expected(__LINE__, "Index our of range"));
    EXPECT_EXIT({ v.erase(1, 2); }, ::testing::ExitedWithCode(1), expected(__LINE__, "Invalid parameter"));
    EXPECT_EXIT({ v.erase(v.end()); }, ::testing::ExitedWithCode(1), expected(__LINE__, "Invalid iterator position"));
    // clang-format on
}
