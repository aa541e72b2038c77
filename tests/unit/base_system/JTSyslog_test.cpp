#include "JTSyslog.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace
{
unsigned int gSeverity;
std::string gLine;
void keep(unsigned int severity, const char* line)
{
    gSeverity = severity;
    gLine = line;
}
}

TEST(JTSyslog, MirrorSeesTheLineAsLoggedAndLongTextIsCut)
{
    JTSyslog::setMirror(&keep);
    JTSyslog::logMsg(9, JTSyslog::SEV_NOTICE, "value %d of %s", 5, "six");
    EXPECT_EQ(gSeverity, 4u);
    EXPECT_EQ(gLine, "pid " + std::to_string(getpid()) + ": value 5 of six");

    const std::string longText(3000, 'y');
    JTSyslog::logMsg(0, JTSyslog::SEV_INFO, "%s", longText.c_str());
    EXPECT_EQ(gLine.size(), 1023u) << "the line buffer is 1024 bytes with its terminator";

    JTSyslog::setMirror(nullptr);
    JTSyslog::logMsg(0, JTSyslog::SEV_INFO, "unseen");
    EXPECT_EQ(gLine.size(), 1023u);
}
