#include "CBRadioEnvars.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
struct Case
{
    const char* what;
    CBRadioEnvars::Verdict verdict;
    const char* why;  // part of the reason given
};

// Makes the file named `what` under the root; returns the uid to check it for.
uid_t make(const TempRoot& root, const std::string& what)
{
    const std::string path = root.path("envars.sh");
    const std::string text = "DBUS_SESSION_BUS_ADDRESS=unix:path=/x;\n";
    if (what == "directory") {
        ::mkdir(path.c_str(), 0755);
    } else if (what == "fifo") {
        ::mkfifo(path.c_str(), 0644);
    } else if (what == "symlink") {
        std::ofstream(root.path("target")) << text;
        ::chmod(root.path("target").c_str(), 0644);
        EXPECT_EQ(0, ::symlink(root.path("target").c_str(), path.c_str()));
    } else {
        std::ofstream(path) << (what == "empty" ? "" : text);
        ::chmod(path.c_str(), what == "mode 620" ? 0620 : 0644);
    }
    if (what != "foreign owner")
        return ::geteuid();
    // Owned by neither root nor the user asked about.
    if (::geteuid() == 0) {
        EXPECT_EQ(0, ::chown(path.c_str(), 4242, 4242));
        return 4343;
    }
    return ::geteuid() + 1;
}
}

// A missing file and one that others may write (with the reason in the system log) are met by the
// e2e bus service and daemon tests.
TEST(CBRadioEnvars, ReadsOnlyWhatNobodyButRootOrTheUserCanHaveWritten)
{
    const Case cases[] = {
        {"mode 644", CBRadioEnvars::READABLE, ""},
        {"empty", CBRadioEnvars::MISSING, ""},
        {"fifo", CBRadioEnvars::MISSING, ""},  // never opened, so never waited on
        {"mode 620", CBRadioEnvars::UNTRUSTED, "writable by group or others (mode 620)"},
        {"symlink", CBRadioEnvars::UNTRUSTED, "symbolic link"},
        {"directory", CBRadioEnvars::UNTRUSTED, "not a regular file"},
        {"foreign owner", CBRadioEnvars::UNTRUSTED, "neither root nor this process's user"},
    };
    for (const Case& c : cases) {
        TempRoot root(TempRoot::Export::No);
        const uid_t user = make(root, c.what);
        CBRadioEnvars::File file = CBRadioEnvars::open(root.path("envars.sh").c_str(), user);
        EXPECT_EQ(c.verdict, file.verdict) << c.what;
        EXPECT_NE(std::string::npos, file.why.find(c.why)) << c.what << ": " << file.why;
        EXPECT_EQ(c.verdict == CBRadioEnvars::READABLE, file.fd >= 0) << c.what;
        if (file.fd >= 0)
            ::close(file.fd);
    }
}
