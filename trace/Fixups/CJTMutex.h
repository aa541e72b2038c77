// CJTMutex, CJTCriticalSection and JTMutexAccess: POSIX mutexes for the trace framework.
//
// lock(timeoutMs): -1 waits for ever, 0 tries once, any other positive value waits at most that
// many milliseconds (timeout x 1,000,000 ns, measured against the real-time clock as
// pthread_mutex_timedlock requires). Returns true when the mutex is now held by the caller. A
// negative time-out other than -1 is taken as -1. Locking a mutex that was never created or was
// destroyed returns false; so does unlocking one that the caller does not hold (error-checking and
// recursive mutexes) - nothing is ever thrown.
//
// JTMutexAccess works on a caller-owned pthread_mutex_t; CJTMutex owns one, created by its
// constructor; CJTCriticalSection owns a recursive one that the owning thread may re-enter, created
// by its constructor or create() and destroyed by destroy() or its destructor (both idempotent),
// and is the lock used with TJTAutoLock.
//
// Thread safety: lock and unlock from any thread; create and destroy only while no thread uses it.
#ifndef CJTMUTEX_H
#define CJTMUTEX_H

#include <pthread.h>

class JTMutexAccess
{
public:
    // errorCheck: a non-recursive mutex that refuses re-locking by its owner instead of hanging.
    static bool create(pthread_mutex_t& mutex, bool recursive, bool errorCheck = false);
    static void destroy(pthread_mutex_t& mutex);
    static bool lock(pthread_mutex_t& mutex, int timeoutMs = -1);
    static bool unlock(pthread_mutex_t& mutex);
};

class CJTMutex
{
public:
    enum ERecursionMode { RECURSION_DEADLOCKS = 0, RECURSION_FAILS = 1 };

    // recursive: the owner may lock again (and must unlock as often). For a non-recursive mutex the
    // mode says what re-locking by the owner does: wait (default) or fail at once.
    explicit CJTMutex(bool recursive = false, int recursionMode = RECURSION_DEADLOCKS);
    ~CJTMutex();
    CJTMutex(const CJTMutex&) = delete;
    CJTMutex& operator=(const CJTMutex&) = delete;

    bool isCreated() const { return mCreated; }
    bool lock(int timeoutMs = -1);
    bool unlock();

private:
    pthread_mutex_t mMutex;
    bool mCreated;
};

class CJTCriticalSection
{
public:
    CJTCriticalSection();
    ~CJTCriticalSection();
    CJTCriticalSection(const CJTCriticalSection&) = delete;
    CJTCriticalSection& operator=(const CJTCriticalSection&) = delete;

    bool create();
    void destroy();
    bool isCreated() const { return mCreated; }
    bool lock(int timeoutMs = -1);
    bool unlock();

private:
    pthread_mutex_t mMutex;
    bool mCreated;
};

#endif
