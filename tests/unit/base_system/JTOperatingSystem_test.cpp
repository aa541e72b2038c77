#include "JTOperatingSystem.h"

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{
pid_t shell(const char* command)
{
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command), nullptr};
    return JTOperatingSystem::spawnProcess("sh", argv);
}
}

TEST(JTOperatingSystem, JoinAndWaitReportExitStatusOrSignalAndRefuseBadIds)
{
    EXPECT_EQ(JTOperatingSystem::joinProcess(-1), -1);
    EXPECT_EQ(JTOperatingSystem::spawnProcess("/nonexistent/tool", nullptr), -1);
    pid_t exited = shell("exit 3");
    pid_t killed = shell("kill -9 $$");
    ASSERT_GT(exited, 0);
    ASSERT_GT(killed, 0);
    EXPECT_EQ(JTOperatingSystem::joinProcess(exited), 3);
    EXPECT_EQ(JTOperatingSystem::joinProcess(killed), 9);
    EXPECT_EQ(JTOperatingSystem::joinProcess(killed), -1) << "already reaped";

    std::vector<pid_t> children = {shell("exit 0"), shell("exit 4")};
    ::testing::internal::CaptureStdout();
    JTOperatingSystem::waitForProcesses(children);
    const std::string ended = " has terminated with exit code ";
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "process " + std::to_string(children[0]) + ended +
                                                            "0\nprocess " + std::to_string(children[1]) + ended +
                                                            "4\n");
}

TEST(JTOperatingSystem, KernelTimeoutBelongsToOneThreadAndIsTakenOnce)
{
    uint64_t ns = 0;
    EXPECT_EQ(JTOperatingSystem::calculateKernelTimeout(25), 25000000u);
    uint32_t otherTid = 0;
    std::thread([&otherTid] {
        uint64_t other = 0;
        EXPECT_FALSE(JTOperatingSystem::consumeKernelTimeout(other));
        otherTid = JTOperatingSystem::getCurrentTID();
    }).join();
    EXPECT_TRUE(JTOperatingSystem::consumeKernelTimeout(ns));
    EXPECT_EQ(ns, 25000000u);
    EXPECT_FALSE(JTOperatingSystem::consumeKernelTimeout(ns));
    JTOperatingSystem::setKernelTimeout(0);
    JTOperatingSystem::resetKernelTimeout();
    EXPECT_FALSE(JTOperatingSystem::consumeKernelTimeout(ns));

    // Thread ids are the kernel's: the main thread's is the process id.
    EXPECT_EQ(JTOperatingSystem::getCurrentTID(), static_cast<uint32_t>(getpid()));
    EXPECT_NE(otherTid, JTOperatingSystem::getCurrentTID());
}
