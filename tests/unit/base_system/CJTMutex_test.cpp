#include "CJTMutex.h"
#include "TJTAutoLock.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

TEST(CJTMutex, TimeoutsTryOnceWaitBoundedOrWaitForever)
{
    CJTMutex mutex;
    CJTCriticalSection section;
    ASSERT_TRUE(mutex.isCreated());
    std::atomic<int> step{0};
    std::thread owner([&] {
        mutex.lock();
        section.lock();
        step = 1;
        while (step != 2)
            std::this_thread::yield();
        section.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        mutex.unlock();
    });
    while (step != 1)
        std::this_thread::yield();
    EXPECT_FALSE(mutex.lock(0));
    EXPECT_FALSE(section.lock(10));
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(mutex.lock(30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29)) << "waited its time";
    step = 2;
    EXPECT_TRUE(mutex.lock(-1)) << "waits for the owner's unlock";
    owner.join();
    EXPECT_TRUE(mutex.unlock());
}

TEST(CJTMutex, RecursionFollowsTheModeAGuardUnlocksWhatItLockedAndADestroyedSectionRefuses)
{
    CJTMutex recursive(true);
    CJTCriticalSection section;
    auto reenter = [](auto& lock) {
        EXPECT_TRUE(lock.lock() && lock.lock(0));
        EXPECT_TRUE(lock.unlock() && lock.unlock());
    };
    reenter(recursive);
    reenter(section);
    EXPECT_FALSE(recursive.unlock()) << "not held any more";
    CJTMutex checked(false, CJTMutex::RECURSION_FAILS);
    EXPECT_TRUE(checked.lock());
    EXPECT_FALSE(TJTAutoLock<CJTMutex>(checked).isLocked()) << "re-locking fails instead of hanging";
    EXPECT_TRUE(checked.unlock()) << "the guard that did not lock left the lock alone";
    EXPECT_TRUE(TJTAutoLock<CJTMutex>(checked).isLocked());
    EXPECT_TRUE(checked.lock(0) && checked.unlock()) << "the guard unlocked";

    section.destroy();
    section.destroy();
    EXPECT_FALSE(section.lock(0));
    EXPECT_TRUE(section.create());
    EXPECT_TRUE(section.lock(0));
    section.unlock();
}
