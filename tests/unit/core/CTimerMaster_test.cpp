#include "ChildProcess.h"
#include "CTimer.h"
#include "CTimerMaster.h"
#include "ITimerHandler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace
{
bool waitFor(const std::function<bool()>& condition)
{
    return waitUntil(condition, 3000);
}

struct CountingHandler : ITimerHandler
{
    std::atomic<int> events{0};
    std::atomic<bool> stopOwnTimer{false};
    void handleTimerEvent(CTimer* timer) override
    {
        ++events;
        if (stopOwnTimer)
            timer->stopTimer();
    }
};
}

TEST(CTimerMaster, CodesStartAtFiveWrapIntoNegativeAndComeBackAfter256)
{
    CTimerMaster master;
    std::vector<int> codes;
    for (int i = 0; i < 260; ++i)
        codes.push_back(master.generateCodeId());
    EXPECT_EQ(5, codes[0]);
    EXPECT_EQ(127, codes[122]);
    EXPECT_EQ(-128, codes[123]);  // 124th
    EXPECT_EQ(0, codes[251]);     // 252nd
    EXPECT_EQ(4, codes[255]);
    EXPECT_EQ(5, codes[256]);  // and round again
    EXPECT_FALSE(master.addTimer(nullptr, false));
    EXPECT_TRUE(master.removeTimer(nullptr));
}

TEST(CTimer, PeriodicTimerKeepsFiringAndOneShotFiresOnceButStaysRunning)
{
    CountingHandler periodicHandler, oneShotHandler;
    CTimer periodic(&periodicHandler), oneShot(&oneShotHandler);
    ASSERT_TRUE(periodic.startTimer(5, true));
    ASSERT_TRUE(oneShot.startTimer(5, false));
    EXPECT_TRUE(waitFor([&] { return periodicHandler.events >= 3; }));
    EXPECT_TRUE(waitFor([&] { return oneShotHandler.events == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(1, oneShotHandler.events.load());
    EXPECT_TRUE(oneShot.isRunning());
    EXPECT_FALSE(oneShot.startTimer(5, false));  // must be stopped first

    oneShot.stopTimer();
    ASSERT_TRUE(oneShot.startTimer(5, false));  // and then starts again
    EXPECT_TRUE(waitFor([&] { return oneShotHandler.events == 2; }));
    oneShot.stopTimer();
    periodic.stopTimer();
}

TEST(CTimerMaster, LastStopFromOutsideDeletesTheMasterAndANewStartMakesAnother)
{
    CountingHandler handler;
    CTimer first(&handler), second(&handler);
    ASSERT_TRUE(first.startTimer(1500, false));
    ASSERT_TRUE(second.startTimer(2250, true));
    EXPECT_EQ(2u, CTimerMaster::m_RefCount.load());
    EXPECT_NE(first.getCodeId(), second.getCodeId());
    // Milliseconds split into seconds and nanoseconds; only a periodic timer has an interval.
    EXPECT_EQ(1, first.getTimerSetting().it_value.tv_sec);
    EXPECT_EQ(500000000, first.getTimerSetting().it_value.tv_nsec);
    EXPECT_EQ(0, first.getTimerSetting().it_interval.tv_nsec);
    EXPECT_EQ(2, second.getTimerSetting().it_interval.tv_sec);
    EXPECT_EQ(250000000, second.getTimerSetting().it_interval.tv_nsec);
    EXPECT_FALSE(first.startTimer(10, true));  // a running timer refuses a second start
    EXPECT_FALSE(first.isPeriodic());
    first.stopTimer();
    EXPECT_NE(nullptr, CTimerMaster::m_TimerMaster.load());
    second.stopTimer();
    EXPECT_EQ(nullptr, CTimerMaster::m_TimerMaster.load());

    ASSERT_TRUE(first.startTimer(5, false));
    EXPECT_NE(nullptr, CTimerMaster::m_TimerMaster.load());
    first.stopTimer();
    EXPECT_EQ(nullptr, CTimerMaster::m_TimerMaster.load());
    EXPECT_EQ(0u, CTimerMaster::m_RefCount.load());
}

TEST(CTimerMaster, HandlerStoppingTheLastTimerReleasesTheMasterThroughSigusr1)
{
    CountingHandler handler;
    handler.stopOwnTimer = true;
    CTimer timer(&handler);
    ASSERT_TRUE(timer.startTimer(5, true));
    ASSERT_TRUE(waitFor([&] { return handler.events >= 1; }));
    EXPECT_TRUE(waitFor([] { return CTimerMaster::m_TimerMaster.load() == nullptr; }));
    EXPECT_FALSE(timer.isRunning());
    EXPECT_EQ(1, handler.events.load());
}
