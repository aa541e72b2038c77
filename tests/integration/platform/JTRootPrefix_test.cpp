#include "JTRootPrefix.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

TEST(RootPrefix, AbsolutePathsGoUnderAnAbsolutePrefix)
{
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    struct Case
    {
        const char* root;
        const char* path;
        std::string resolved;
    };
    // Unset or empty changes nothing; relative paths are not platform paths and stay as given.
    const Case cases[] = {
        {nullptr, "/dev/ipc/ch6", "/dev/ipc/ch6"},
        {"", "/tmp/envars.sh", "/tmp/envars.sh"},
        {"", nullptr, ""},
        {"sim/root", "/dev/ipc/ch6", std::string(cwd) + "/sim/root/dev/ipc/ch6"},
        {"/srv/hu1", "trace.cfg", "trace.cfg"},
        {"/srv/hu1//", "/dev/mv2trace/register", "/srv/hu1/dev/mv2trace/register"},
    };
    for (const Case& c : cases) {
        if (c.root)
            setenv("CBRADIO_ROOT", c.root, 1);
        else
            unsetenv("CBRADIO_ROOT");
        JTRootPrefix::reload();
        EXPECT_EQ(JTRootPrefix::resolve(c.path), c.resolved) << (c.root ? c.root : "(unset)");
    }
    EXPECT_EQ(JTRootPrefix::get(), "/srv/hu1");
    unsetenv("CBRADIO_ROOT");
    JTRootPrefix::reload();
}
