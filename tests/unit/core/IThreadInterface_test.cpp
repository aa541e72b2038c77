#include "IThreadInterface.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace
{
class Worker : public IThreadInterface
{
public:
    explicit Worker(const char* name = nullptr) : IThreadInterface(name) {}
    void run() override
    {
        ++runs;
        if (stopSelf)
            selfStopResult = stop();
        while (blockUntilCancelled)
            pthread_testcancel();
    }
    std::atomic<int> runs{0};
    bool stopSelf = false;
    bool blockUntilCancelled = false;
    int selfStopResult = 0;
};
}

TEST(IThreadInterface, SecondCreateIsIgnoredAndTheObjectCanRunAgainAfterAJoin)
{
    Worker w("unit-worker");
    w.createThread();
    pthread_t first = w.getThreadHandle();
    w.createThread();
    EXPECT_TRUE(pthread_equal(first, w.getThreadHandle()));
    EXPECT_EQ(0, w.waitStop());
    EXPECT_EQ(1, w.runs.load());
    EXPECT_EQ(0u, w.getThreadHandle());

    w.createThread();
    EXPECT_EQ(0, w.waitStop());
    EXPECT_EQ(2, w.runs.load());
}

// Misuse is refused with a "[GEN]" line on standard output, never a crash or a hang.
TEST(IThreadInterface, MisuseAndStopsAreReportedOnStandardOutput)
{
    Worker idle;
    EXPECT_STREQ("MERIDOThread", idle.getThreadName());
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, idle.waitStop());
    EXPECT_EQ("\n[GEN] waitstop : join call from the same thread\n", testing::internal::GetCapturedStdout());

    Worker self;
    self.stopSelf = true;
    testing::internal::CaptureStdout();
    self.createThread();
    self.waitStop();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ("\n[GEN] Bad caller, pthread cancel from the same thread\n", out);
    EXPECT_EQ(static_cast<int>(out.size()), self.selfStopResult);

    Worker blocked("canceller");
    blocked.blockUntilCancelled = true;
    testing::internal::CaptureStdout();
    blocked.createThread();
    while (blocked.runs.load() == 0)
        sched_yield();
    blocked.stop();
    EXPECT_EQ("\n[GEN] waiting for thread[canceller] to join\n\n[GEN] Thread[canceller] joined\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(0u, blocked.getThreadHandle());

    testing::internal::CaptureStdout();
    pthread_t t;
    ASSERT_EQ(0, pthread_create(&t, nullptr, &IThreadInterface::threadFunction, nullptr));
    pthread_join(t, nullptr);
    EXPECT_EQ("\n[GEN] ThreadFun failed!!! -> You passed null object!!!\n", testing::internal::GetCapturedStdout());
}
