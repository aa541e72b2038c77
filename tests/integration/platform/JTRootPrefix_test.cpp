#include "JTRootPrefix.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{
    class RootPrefix : public ::testing::Test
    {
    protected:
        void TearDown() override
        {
            unsetenv("CBRADIO_ROOT");
            JTRootPrefix::reload();
        }
    };
}

TEST_F(RootPrefix, UnsetOrEmptyLeavesPathsAsTheyStand)
{
    unsetenv("CBRADIO_ROOT");
    JTRootPrefix::reload();
    EXPECT_EQ(JTRootPrefix::resolve("/dev/ipc/ch6"), "/dev/ipc/ch6");
    setenv("CBRADIO_ROOT", "", 1);
    JTRootPrefix::reload();
    EXPECT_EQ(JTRootPrefix::resolve("/tmp/envars.sh"), "/tmp/envars.sh");
    EXPECT_EQ(JTRootPrefix::resolve(nullptr), "");
}

TEST_F(RootPrefix, AbsolutePathsGoUnderThePrefix)
{
    setenv("CBRADIO_ROOT", "/srv/hu1//", 1);
    JTRootPrefix::reload();
    EXPECT_EQ(JTRootPrefix::get(), "/srv/hu1");
    EXPECT_EQ(JTRootPrefix::resolve("/dev/mv2trace/register"), "/srv/hu1/dev/mv2trace/register");
    // Relative paths are not platform paths and stay as given.
    EXPECT_EQ(JTRootPrefix::resolve("trace.cfg"), "trace.cfg");
}

TEST_F(RootPrefix, RelativeValueIsMadeAbsolute)
{
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    setenv("CBRADIO_ROOT", "sim/root", 1);
    JTRootPrefix::reload();
    EXPECT_EQ(JTRootPrefix::get(), std::string(cwd) + "/sim/root");
}
