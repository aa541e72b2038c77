#include "CMutex.h"
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
            if (blockUntilCancelled) {
                for (;;)
                    pthread_testcancel();
            }
        }
        std::atomic<int> runs{0};
        bool stopSelf = false;
        bool blockUntilCancelled = false;
        int selfStopResult = 0;
    };
}

TEST(IThreadInterface, DefaultNameAndJoinWithoutThread)
{
    Worker w;
    EXPECT_STREQ("MERIDOThread", w.getThreadName());
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, w.waitStop());
    EXPECT_EQ("\n[GEN] waitstop : join call from the same thread\n", testing::internal::GetCapturedStdout());
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

TEST(IThreadInterface, StopFromTheThreadItselfIsRefused)
{
    Worker w;
    w.stopSelf = true;
    testing::internal::CaptureStdout();
    w.createThread();
    w.waitStop();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ("\n[GEN] Bad caller, pthread cancel from the same thread\n", out);
    EXPECT_EQ(static_cast<int>(out.size()), w.selfStopResult);
}

TEST(IThreadInterface, StopCancelsAndJoins)
{
    Worker w("canceller");
    w.blockUntilCancelled = true;
    testing::internal::CaptureStdout();
    w.createThread();
    while (w.runs.load() == 0)
        sched_yield();
    w.stop();
    EXPECT_EQ("\n[GEN] waiting for thread[canceller] to join\n\n[GEN] Thread[canceller] joined\n",
              testing::internal::GetCapturedStdout());
    EXPECT_EQ(0u, w.getThreadHandle());
}

TEST(IThreadInterface, NullObjectIsReportedNotRun)
{
    testing::internal::CaptureStdout();
    pthread_t t;
    ASSERT_EQ(0, pthread_create(&t, nullptr, &IThreadInterface::threadFunction, nullptr));
    pthread_join(t, nullptr);
    EXPECT_EQ("\n[GEN] ThreadFun failed!!! -> You passed null object!!!\n", testing::internal::GetCapturedStdout());
}

TEST(CMutex, ConditionWakesAWaiter)
{
    CMutex mutex;
    bool ready = false;
    struct Arg { CMutex* m; bool* ready; } arg{&mutex, &ready};
    pthread_t t;
    ASSERT_EQ(0, pthread_create(&t, nullptr, [](void* p) -> void* {
        Arg* a = static_cast<Arg*>(p);
        a->m->lock();
        *a->ready = true;
        a->m->condSignal();
        a->m->unlock();
        return nullptr;
    }, &arg));
    mutex.lock();
    while (!ready)
        EXPECT_EQ(0, mutex.condWait());
    EXPECT_EQ(0, mutex.unlock());
    pthread_join(t, nullptr);
}
