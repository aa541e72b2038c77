#include "CJTMutex.h"
#include "TJTAutoLock.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{
    struct SCountingLock
    {
        int locks = 0;
        int unlocks = 0;
        void lock() { ++locks; }
        void unlock() { ++unlocks; }
    };

    struct SRefusingLock
    {
        int unlocks = 0;
        bool lock() { return false; }
        bool unlock() { ++unlocks; return true; }
    };
}

TEST(TJTAutoLock, UnlocksOnlyWhatItLocked)
{
    SCountingLock counting;
    {
        TJTAutoLock<SCountingLock> guard(counting);
        EXPECT_TRUE(guard.isLocked());
        EXPECT_EQ(0, counting.unlocks);
    }
    EXPECT_EQ(1, counting.locks);
    EXPECT_EQ(1, counting.unlocks);

    SRefusingLock refusing;
    {
        TJTAutoLock<SRefusingLock> guard(refusing);
        EXPECT_FALSE(guard.isLocked());
    }
    EXPECT_EQ(0, refusing.unlocks);

    TJTAutoLock<SCountingLock> none(static_cast<SCountingLock*>(nullptr));
    EXPECT_FALSE(none.isLocked());
}

TEST(TJTAutoLock, ExcludesOtherThreadsOnACriticalSection)
{
    CJTCriticalSection section;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                TJTAutoLock<CJTCriticalSection> guard(section);
                ++counter;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(40000, counter);
}
