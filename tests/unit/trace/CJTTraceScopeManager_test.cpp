#include "CJTTraceScopeManager.h"

#include <gtest/gtest.h>

#include "CJTString.h"
#include "CJTTraceScopeDef.h"
#include "TraceTestSupport.h"

using tracetest::settings;

namespace
{
CJTTraceScopeManager& manager()
{
    return CJTTraceScopeManager::getInstance();
}
}

TEST(CJTTraceScopeManager, RegistersInOrderKeepsIndicesAndNamesScopes)
{
    uint16_t before = manager().getNumberOfScopes();
    CJTTraceScopeDef a("Reg_A", "one");
    CJTTraceScopeDef b("Reg_B", nullptr, 0x40);
    CJTTraceScopeDef c(nullptr, "run", 0x02, 0x08);
    EXPECT_EQ(before + 1, b.getIndex());
    EXPECT_EQ(&b, &manager().getScopeDef(b.getIndex()));
    EXPECT_EQ((std::vector<std::string>{"00 01 0", "40 01 0", "02 08 0"}),
              (std::vector<std::string>{settings(a), settings(b), settings(c)}));
    delete new CJTTraceScopeDef("Reg_Gone", "x");
    // c keeps the index it was given even though it now sits elsewhere after an earlier removal.
    EXPECT_EQ(before + 3, manager().getNumberOfScopes());
    EXPECT_EQ(before + 2, c.getIndex());

    EXPECT_EQ(CJTString("Reg_A_one"), a.getScopeName());
    EXPECT_EQ(CJTString("Reg_B"), b.getScopeName());
    EXPECT_TRUE(c.getScopeName().isEmpty());
    char buffer[6];
    EXPECT_EQ(9, a.getScopeName(buffer, sizeof(buffer)));
    EXPECT_STREQ("Reg_A", buffer);
    EXPECT_EQ(0, c.getScopeName(buffer, sizeof(buffer)));
    EXPECT_EQ(0, a.getScopeName(nullptr, 8));
}

TEST(CJTTraceScopeManager, UnknownIndexGivesTheUnconfigurableDummy)
{
    uint16_t count = manager().getNumberOfScopes();
    CJTTraceScopeDef& dummy = manager().getScopeDef(count);
    EXPECT_EQ(&CJTTraceScopeManager::sgDummyScopeInstance, &dummy);
    EXPECT_FALSE(manager().configureScope(count, 0xFF, 0xFF));
    EXPECT_FALSE(manager().configureScope(0xFFFF, 0xFF, 0xFF, 3));
    EXPECT_EQ(0, dummy.getFilter());
    EXPECT_EQ(0, manager().add(CJTTraceScopeManager::sgDummyScopeInstance));
    EXPECT_EQ(count, manager().getNumberOfScopes());
}

TEST(CJTTraceScopeManager, RangesAreInclusiveAndClearTheInStepFlag)
{
    CJTTraceScopeDef a("Range_A", "a");
    CJTTraceScopeDef b("Range_B", "b");
    CJTTraceScopeDef c("Range_C", "c");
    manager().setSettingsInStep(true);
    manager().setFilter(a.getIndex(), b.getIndex(), 0x22);
    EXPECT_EQ(0, manager().getSettingsInStep());
    manager().setSettingsInStep(true);
    manager().setMedia(c.getIndex(), b.getIndex(), 0x0F);  // first > last: nothing, still in step
    EXPECT_EQ(1, manager().getSettingsInStep());
    manager().setMedia(c.getIndex(), c.getIndex() + 1000, 0x04);  // runs past the end
    EXPECT_EQ((std::vector<std::string>{"22 01 0", "22 01 0", "00 04 0"}),
              (std::vector<std::string>{settings(a), settings(b), settings(c)}));

    EXPECT_TRUE(manager().configureScope(b.getIndex(), 0x40, 0x08, 7));
    EXPECT_TRUE(manager().configureScope(b.getIndex(), 0x02, 0x01));
    EXPECT_EQ("02 01 7", settings(b));  // the three-value form leaves the kernel event alone
}

TEST(CJTTraceScopeManager, ConfiguresByPrefixStarAndEmpty)
{
    CJTTraceScopeDef run("ByName_CCBRadio", "run");
    CJTTraceScopeDef start("ByName_CCBRadio", "startService");
    CJTTraceScopeDef longer("ByName_CCBRadiox", "other");
    CJTTraceScopeDef elsewhere("ByName_CTimer", "start");
    auto all = [&] {
        return std::vector<std::string>{settings(run), settings(start), settings(longer), settings(elsewhere)};
    };

    EXPECT_TRUE(manager().configureScopesByName("ByName_CCBRadio_", 0x7F, 0x01));
    EXPECT_TRUE(manager().configureScopesByName("ByName_CCBRadio_run", 0x40, 0x08, 9));
    EXPECT_EQ((std::vector<std::string>{"40 08 9", "7f 01 0", "00 01 0", "00 01 0"}), all());
    manager().setSettingsInStep(true);
    EXPECT_FALSE(manager().configureScopesByName("ByName_Nothing", 1, 1));
    EXPECT_FALSE(manager().configureScopesByName("ByName_CCBRadio_run_and_more", 1, 1));
    EXPECT_EQ(1, manager().getSettingsInStep());  // nothing changed

    // A scope registered after the sorted list was built is still found.
    CJTTraceScopeDef late("ByName_CCBRadio", "late");
    EXPECT_TRUE(manager().configureScopesByName("ByName_CCBRadio", 0x02, 0x02));
    EXPECT_EQ("02 02 0", settings(late));
    EXPECT_EQ((std::vector<std::string>{"02 02 9", "02 02 0", "02 02 0", "00 01 0"}), all());
    EXPECT_TRUE(manager().configureScopesByName("*", 0x20, 0x04));
    EXPECT_EQ("20 04 0", settings(manager().getScopeDef(0)));
    EXPECT_TRUE(manager().configureScopesByName("", 0, 1));
    EXPECT_EQ((std::vector<std::string>{"00 01 9", "00 01 0", "00 01 0", "00 01 0"}), all());
}

TEST(CJTTraceScopeManager, HashTakesBytesAsSigned)
{
    EXPECT_EQ(0u, getHashValueForString(CJTString()));
    EXPECT_EQ(static_cast<uint32_t>((97 * 5 - 61) * 5 - 87), getHashValueForString(CJTString("a\xC3\xA9")));
}
