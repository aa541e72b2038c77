// CTimedMutex: a plain mutex whose lock waits at most a given time (pthread_mutex_timedlock).
//
// Usable with std::unique_lock (lock, unlock, try_lock_for). try_lock_for returns false when the
// mutex could not be taken within the time; the wait is measured on the realtime clock, as
// pthread_mutex_timedlock does. Not recursive, not copyable. Any thread; the thread that locked it
// unlocks it.
#ifndef CTIMEDMUTEX_H
#define CTIMEDMUTEX_H

#include <chrono>
#include <ctime>
#include <pthread.h>

class CTimedMutex
{
public:
    CTimedMutex() { pthread_mutex_init(&mMutex, nullptr); }
    ~CTimedMutex() { pthread_mutex_destroy(&mMutex); }
    CTimedMutex(const CTimedMutex&) = delete;
    CTimedMutex& operator=(const CTimedMutex&) = delete;

    void lock() { pthread_mutex_lock(&mMutex); }
    void unlock() { pthread_mutex_unlock(&mMutex); }

    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& wait)
    {
        const long long ns = std::chrono::duration_cast<std::chrono::nanoseconds>(wait).count();
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += static_cast<time_t>(ns / 1000000000LL);
        deadline.tv_nsec += static_cast<long>(ns % 1000000000LL);
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        return pthread_mutex_timedlock(&mMutex, &deadline) == 0;
    }

private:
    pthread_mutex_t mMutex;
};

#endif
