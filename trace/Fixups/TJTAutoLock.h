// TJTAutoLock: holds a lock for the lifetime of a scope.
//
// For CJTCriticalSection and CJTMutex: lock() is called without a time-out, so it waits for ever;
// when it fails (a mutex that was never created, or was destroyed) isLocked() is false and the
// destructor does not unlock.
//
// Used on one thread: the thread that made it releases it.
#ifndef TJTAUTOLOCK_H
#define TJTAUTOLOCK_H

template <class T>
class TJTAutoLock
{
public:
    explicit TJTAutoLock(T& lock) : mLock(lock), mLocked(lock.lock()) {}
    ~TJTAutoLock()
    {
        if (mLocked)
            mLock.unlock();
    }
    TJTAutoLock(const TJTAutoLock&) = delete;
    TJTAutoLock& operator=(const TJTAutoLock&) = delete;

    bool isLocked() const { return mLocked; }

private:
    T& mLock;
    bool mLocked;
};

#endif
