#include "TJTAutoLock.h"

#include <gtest/gtest.h>

namespace
{
// lock() without a result counts as locked; one that returns false is never unlocked. Mutual
// exclusion itself is the lock's business (see the mutex tests).
struct SLock
{
    int locks = 0;
    int unlocks = 0;
    void unlock() { ++unlocks; }
};
struct SCountingLock : SLock
{
    void lock() { ++locks; }
};
struct SRefusingLock : SLock
{
    bool lock() { return false; }
};
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
    EXPECT_EQ(1, counting.locks);
    EXPECT_EQ(1, counting.unlocks);
    EXPECT_EQ(0, refusing.unlocks);
}
