#include "CJTMutex.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

bool JTMutexAccess::create(pthread_mutex_t& mutex, bool recursive, bool errorCheck)
{
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0)
        return false;
    int type = recursive ? PTHREAD_MUTEX_RECURSIVE : (errorCheck ? PTHREAD_MUTEX_ERRORCHECK : PTHREAD_MUTEX_NORMAL);
    bool created = pthread_mutexattr_settype(&attributes, type) == 0 && pthread_mutex_init(&mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return created;
}

void JTMutexAccess::destroy(pthread_mutex_t& mutex)
{
    pthread_mutex_destroy(&mutex);
}

bool JTMutexAccess::lock(pthread_mutex_t& mutex, int timeoutMs)
{
    if (timeoutMs < 0)
        return pthread_mutex_lock(&mutex) == 0;
    if (timeoutMs == 0)
        return pthread_mutex_trylock(&mutex) == 0;

    // pthread_mutex_timedlock wants an absolute real-time deadline.
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    uint64_t ns = static_cast<uint64_t>(deadline.tv_nsec) + static_cast<uint64_t>(timeoutMs) * 1000000ull;
    deadline.tv_sec += static_cast<time_t>(ns / 1000000000ull);
    deadline.tv_nsec = static_cast<long>(ns % 1000000000ull);
    int rc;
    do {
        rc = pthread_mutex_timedlock(&mutex, &deadline);
    } while (rc == EINTR);
    return rc == 0;
}

bool JTMutexAccess::unlock(pthread_mutex_t& mutex)
{
    return pthread_mutex_unlock(&mutex) == 0;
}

CJTMutex::CJTMutex(bool recursive, int recursionMode)
    : mMutex(), mCreated(JTMutexAccess::create(mMutex, recursive, recursionMode == RECURSION_FAILS))
{
}

CJTMutex::~CJTMutex()
{
    if (mCreated)
        JTMutexAccess::destroy(mMutex);
}

bool CJTMutex::lock(int timeoutMs)
{
    return mCreated && JTMutexAccess::lock(mMutex, timeoutMs);
}

bool CJTMutex::unlock()
{
    return mCreated && JTMutexAccess::unlock(mMutex);
}

CJTCriticalSection::CJTCriticalSection() : mMutex(), mCreated(false)
{
    create();
}

CJTCriticalSection::~CJTCriticalSection()
{
    destroy();
}

bool CJTCriticalSection::create()
{
    if (!mCreated)
        mCreated = JTMutexAccess::create(mMutex, true);
    return mCreated;
}

void CJTCriticalSection::destroy()
{
    if (mCreated) {
        JTMutexAccess::destroy(mMutex);
        mCreated = false;
    }
}

bool CJTCriticalSection::lock(int timeoutMs)
{
    return mCreated && JTMutexAccess::lock(mMutex, timeoutMs);
}

bool CJTCriticalSection::unlock()
{
    return mCreated && JTMutexAccess::unlock(mMutex);
}
