#include "CJTMutex.h"
#include "TJTAutoLock.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{
    // lock() without a result counts as locked; one that returns false is never unlocked.
    struct SLock
    {
        int unlocks = 0;
        void unlock() { ++unlocks; }
    };
    struct SCountingLock : SLock { void lock() {} };
    struct SRefusingLock : SLock { bool lock() { return false; } };
}

TEST(TJTAutoLock, UnlocksOnlyWhatItLocked)
{
    SCountingLock counting;
    SRefusingLock refusing;
    {
        TJTAutoLock<SCountingLock> guard(counting);
        TJTAutoLock<SRefusingLock> refused(refusing);
        TJTAutoLock<SCountingLock> none(static_cast<SCountingLock*>(nullptr));
        EXPECT_TRUE(guard.isLocked());
        EXPECT_FALSE(refused.isLocked());
        EXPECT_FALSE(none.isLocked());
    }
    EXPECT_EQ(1, counting.unlocks);
    EXPECT_EQ(0, refusing.unlocks);

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
