// TJTAutoLock: holds a lock for the lifetime of a scope.
//
// Works with any type that has lock() and unlock() (CJTCriticalSection, CJTMutex, ...). lock() is
// called without a time-out, so it waits for ever; when lock() reports failure (returns false,
// e.g. a mutex that was never created) isLocked() is false and the destructor does not unlock.
// A null pointer gives a lock that holds nothing.
//
// Used on one thread: the thread that made it releases it.
#ifndef TJTAUTOLOCK_H
#define TJTAUTOLOCK_H

#include <type_traits>

template <class T>
class TJTAutoLock
{
public:
    explicit TJTAutoLock(T& lock) : mLock(&lock), mLocked(acquire(lock)) {}
    explicit TJTAutoLock(T* lock) : mLock(lock), mLocked(lock != nullptr && acquire(*lock)) {}
    ~TJTAutoLock()
    {
        if (mLocked)
            mLock->unlock();
    }
    TJTAutoLock(const TJTAutoLock&) = delete;
    TJTAutoLock& operator=(const TJTAutoLock&) = delete;

    bool isLocked() const { return mLocked; }

private:
    static bool acquire(T& lock)
    {
        if constexpr (std::is_same<decltype(lock.lock()), bool>::value) {
            return lock.lock();
        } else {
            lock.lock();
            return true;
        }
    }

    T* mLock;
    bool mLocked;
};

#endif
