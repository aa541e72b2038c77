#include "CJTMutex.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace
{
    // Runs body on this thread while another one holds the lock until body sets release.
    template <class Lock, class Body>
    void whileHeldElsewhere(Lock& lock, Body body)
    {
        std::atomic<bool> held{false};
        std::atomic<bool> release{false};
        std::thread owner([&] {
            lock.lock();
            held = true;
            while (!release)
                std::this_thread::yield();
            lock.unlock();
        });
        while (!held)
            std::this_thread::yield();
        body(release);
        release = true;
        owner.join();
    }
}

TEST(CJTMutex, TimeoutsTryOnceWaitBoundedOrWaitForever)
{
    CJTMutex mutex;
    ASSERT_TRUE(mutex.isCreated());
    whileHeldElsewhere(mutex, [&](std::atomic<bool>& release) {
        EXPECT_FALSE(mutex.lock(0));
        auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(mutex.lock(30));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29)) << "waited its time";
        std::thread releaser([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            release = true;
        });
        EXPECT_TRUE(mutex.lock(-1));
        releaser.join();
    });
    EXPECT_TRUE(mutex.unlock());
}

TEST(CJTMutex, RecursionFollowsTheModeAndADestroyedSectionRefuses)
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
    EXPECT_FALSE(checked.lock()) << "re-locking fails instead of hanging";
    EXPECT_TRUE(checked.unlock());

    whileHeldElsewhere(section, [&](std::atomic<bool>&) { EXPECT_FALSE(section.lock(10)); });
    section.destroy();
    section.destroy();
    EXPECT_FALSE(section.lock(0));
    EXPECT_TRUE(section.create());
    EXPECT_TRUE(section.lock(0));
    section.unlock();
}
