#include "JTBacktrace.h"
#include "JTOperatingSystem.h"
#include "ChildProcess.h"
#include "TempRoot.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
void namedInfos(char* info, size_t infoSize, char* name, size_t nameSize)
{
    std::snprintf(info, infoSize, "build 12");
    std::snprintf(name, nameSize, "radio");
}
void touch(const std::string& path)
{
    std::fclose(std::fopen(path.c_str(), "w"));
}
}

TEST(JTBacktrace, WritesMessageInformationAndStackIntoTheSharedMemoryFolder)
{
    TempRoot root;
    ASSERT_TRUE(JTBacktrace::doBacktrace("first", JTBacktrace::DEFAULT_DIRECTORY, "ass"));
    ASSERT_TRUE(JTBacktrace::doBacktrace("second", "/dev/shmem", "ass"));
    const std::string pid = std::to_string(getpid());
    const std::string text = readFile(root.path() + "/dev/shm/PID" + pid + ".ass");
    const std::string head = "\n[backtrace] INFO - first\n\nTID: " +
                             std::to_string(JTOperatingSystem::getCurrentTID()) + " PID: " + pid + "\n";
    EXPECT_EQ(text.rfind(head, 0), 0u) << text;
    EXPECT_NE(text.find("unit_base_system"), std::string::npos) << "the call stack names this program";
    EXPECT_NE(text.find("\n[backtrace] INFO - second\n"), std::string::npos) << "later notes are appended";

    // A provider names the file; other folders stay under the root.
    JTBacktrace::setInfos(&namedInfos);
    bool written = JTBacktrace::doBacktrace("m", "/var/log/notes", "txt");
    JTBacktrace::setInfos(nullptr);
    ASSERT_TRUE(written);
    EXPECT_EQ(readFile(root.path() + "/var/log/notes/radio.txt").rfind("\n[backtrace] INFO - m\n\nbuild 12\n", 0), 0u);
}

TEST(JTBacktrace, UnsafePlacesAreRefusedAndPlantedLinksNeverFollowed)
{
    TempRoot root;
    touch(root.path() + "/blocked");
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(JTBacktrace::doBacktrace("m", "/blocked/sub", "ass"));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Cannot open " + root.path() + "/blocked/sub/PID" + std::to_string(getpid()) + ".ass\n");

    // A folder anyone may write to is used only with the sticky bit.
    const std::string open = root.path() + "/dev/shm";
    ASSERT_EQ(::mkdir((root.path() + "/dev").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(open.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(JTBacktrace::doBacktrace("m", JTBacktrace::DEFAULT_DIRECTORY, "ass"));
    ::testing::internal::GetCapturedStderr();
    ASSERT_EQ(::chmod(open.c_str(), 01777), 0);

    // A link planted at the file's name is replaced, not written through.
    const std::string victim = root.path() + "/victim";
    touch(victim);
    const std::string file = open + "/PID" + std::to_string(getpid()) + ".ass";
    ASSERT_EQ(::symlink(victim.c_str(), file.c_str()), 0);
    EXPECT_TRUE(JTBacktrace::doBacktrace("m", JTBacktrace::DEFAULT_DIRECTORY, "ass"));
    EXPECT_EQ(readFile(victim), "");
    EXPECT_EQ(readFile(file).rfind("\n[backtrace] INFO - m\n", 0), 0u);
}
