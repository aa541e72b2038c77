#include "JTSyslog.h"

#include <gtest/gtest.h>
#include <string>

namespace
{
std::string gLine;
void keep(unsigned int, const char* line)
{
    gLine = line;
}
}

// The "pid <n>: " lines and their severities are checked through their users: the error and the
// trace persistence tests.
TEST(JTSyslog, LongTextIsCutAndNothingIsMirroredOnceTheMirrorIsGone)
{
    JTSyslog::setMirror(&keep);
    JTSyslog::logMsg(0, JTSyslog::SEV_INFO, "%s", std::string(3000, 'y').c_str());
    EXPECT_EQ(gLine.size(), 1023u) << "the line buffer is 1024 bytes with its terminator";

    JTSyslog::setMirror(nullptr);
    JTSyslog::logMsg(0, JTSyslog::SEV_INFO, "unseen");
    EXPECT_EQ(gLine.size(), 1023u);
}
