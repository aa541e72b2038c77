#include "CCBRadio.h"
#include "V850Peer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sys/stat.h>

namespace
{
class EnvarsFile : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* name : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SESSION_BUS_PID", "SVCIPC_DISPATCH_PRIORITY",
                                 "INVOCATION_ID", "NOTIFY_SOCKET", "DBUS_STARTER_ADDRESS", "DBUS_STARTER_BUS_TYPE"})
            ::unsetenv(name);
        ::mkdir((mPeer.root() + "/tmp").c_str(), 0755);
    }

    void write(const std::string& text)
    {
        const std::string path = mPeer.root() + "/tmp/envars.sh";
        std::ofstream(path) << text;
        ::chmod(path.c_str(), 0644);
    }

    static std::string env(const char* name)
    {
        const char* value = std::getenv(name);
        return value ? value : "<unset>";
    }

    V850Peer mPeer;  // provides the private CBRADIO_ROOT
    CCBRadio mRadio;
};
}

TEST_F(EnvarsFile, MissingOrEmptyFileMeansNoBusUnlessAServiceManagerHandedOneOver)
{
    EXPECT_EQ(0, mRadio.isDbusAvailable(nullptr));
    write("");
    EXPECT_EQ(0, mRadio.isDbusAvailable("/tmp/envars.sh"));
    EXPECT_EQ("<unset>", env("DBUS_SESSION_BUS_ADDRESS"));

    // An address in the environment counts only when systemd or the bus started the process.
    ::setenv("DBUS_STARTER_ADDRESS", "unix:path=/run/user/starter", 1);
    ::setenv("DBUS_STARTER_BUS_TYPE", "session", 1);
    EXPECT_EQ(1, mRadio.isDbusAvailable(nullptr));
    EXPECT_EQ("unix:path=/run/user/starter", env("DBUS_SESSION_BUS_ADDRESS"));
    ::unsetenv("DBUS_STARTER_ADDRESS");
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/run/user/bus", 1);
    EXPECT_EQ(0, mRadio.isDbusAvailable(nullptr));
    ::setenv("INVOCATION_ID", "0123", 1);
    EXPECT_EQ(1, mRadio.isDbusAvailable(nullptr));
    ::unsetenv("INVOCATION_ID");
    EXPECT_EQ("unix:path=/run/user/bus", env("DBUS_SESSION_BUS_ADDRESS"));
    // That a file others may write means no bus even then is met by the e2e daemon tests.
}

TEST_F(EnvarsFile, ValueWithoutSemicolonKeepsClosingQuoteAndNewline)
{
    write("export DBUS_SESSION_BUS_ADDRESS='unix:path=/tmp/s'\n");
    EXPECT_EQ(1, mRadio.isDbusAvailable(nullptr));
    EXPECT_EQ("unix:path=/tmp/s'\n", env("DBUS_SESSION_BUS_ADDRESS"));
}

TEST_F(EnvarsFile, LastAssignmentWinsAndOtherKeysAloneAreNotEnough)
{
    write("DBUS_SESSION_BUS_PID=1; export DBUS_SESSION_BUS_PID\nSVCIPC_DISPATCH_PRIORITY=3;\nPATH=/x\n");
    EXPECT_EQ(0, mRadio.isDbusAvailable(nullptr));
    EXPECT_EQ("1", env("DBUS_SESSION_BUS_PID"));
    EXPECT_EQ("3", env("SVCIPC_DISPATCH_PRIORITY"));

    write("export DBUS_SESSION_BUS_ADDRESS='unix:path=/a';\nDBUS_SESSION_BUS_ADDRESS=''unix:path=/b'';\n"
          "DBUS_SESSION_BUS_PID\n");
    EXPECT_EQ(1, mRadio.isDbusAvailable(nullptr));
    EXPECT_EQ("unix:path=/b", env("DBUS_SESSION_BUS_ADDRESS"));
}
