// The helper's command execution and start-up options, without a trace server.
#include "CJTTraceHelper.h"
#include "CJTTraceScopeDef.h"
#include "CJTTraceScopeManager.h"

#include <gtest/gtest.h>

namespace
{
CJTTraceScopeDef gsFirst("Test_CFirst", "one");
CJTTraceScopeDef gsSecond("Test_CSecond", "two");

// Scope index, value and range length as the server packs them.
uint32_t param(int first, uint8_t value, uint8_t count = 0)
{
    return static_cast<uint16_t>(first) | static_cast<uint32_t>(value) << 16 | static_cast<uint32_t>(count) << 24;
}
}

TEST(CJTTraceHelperCommands, FilterMediaSilentAndUnknownCommands)
{
    CJTTraceHelper& h = CJTTraceHelper::getInstance();
    CJTTraceScopeManager& m = CJTTraceScopeManager::getInstance();
    m.setSettingsInStep(true);
    h.executeCmd(3, param(gsFirst.getIndex(), 0x42));
    EXPECT_EQ(gsFirst.getFilter(), 0x42);
    EXPECT_EQ(m.getSettingsInStep(), 0);
    h.executeCmd(11, param(gsFirst.getIndex(), 0x11, 0));  // empty range: nothing changes
    EXPECT_EQ(gsFirst.getFilter(), 0x42);
    h.executeCmd(11, param(gsFirst.getIndex(), 0x11, 2));
    EXPECT_EQ(gsSecond.getFilter(), 0x11);
    h.executeCmd(14, param(gsSecond.getIndex(), 0x0C));
    EXPECT_EQ(gsSecond.getMedia(), 0x0C);
    h.executeCmd(15, param(gsFirst.getIndex(), 0x09, 2));
    EXPECT_EQ(gsFirst.getMedia(), 0x09);
    EXPECT_EQ(gsSecond.getMedia(), 0x09);
    h.executeCmd(4, 7);
    EXPECT_TRUE(m.isSilent());
    h.executeCmd(4, 0);
    EXPECT_FALSE(m.isSilent());

    testing::internal::CaptureStderr();
    h.executeCmd(12, 77);
    h.executeCmd(0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unknown command 12:77\nUnknown command 0:0\n");
}

TEST(CJTTraceHelperStartupOptions, KeepsPersistenceOptionsInOrder)
{
    CJTTraceHelper& h = CJTTraceHelper::getInstance();
    const char* args[] = {"prog", "--bpx", "--tp=/nonexistent/a.txt", "--nobreak", "--bp", "--tp=", "-bp"};
    auto kept = [&h] {
        std::vector<std::string> out;
        for (uint32_t i = 0; i < h.getStartupOptions().size(); ++i)
            out.push_back(h.getStartupOptions()[i].c_str());
        return out;
    };
    h.initialize(7, const_cast<char**>(args), true);
    EXPECT_EQ(kept(), (std::vector<std::string>{"--tp=/nonexistent/a.txt", "--bp", "--tp="}));
    h.initialize(7, const_cast<char**>(args), false);
    EXPECT_TRUE(kept().empty());
    h.initialize(7, nullptr, true);
    EXPECT_TRUE(kept().empty());
}
