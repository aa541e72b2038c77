// CMutex: a plain (non-recursive) POSIX mutex with one condition variable.
//
// lock/unlock/condWait/condSignal each return the result of the one pthread call they make.
// condWait must be called with the mutex held; condSignal wakes one waiter. A thread that locks
// twice deadlocks; nothing detects it. Not copyable.
#ifndef CMUTEX_H
#define CMUTEX_H

#include <pthread.h>

class CMutex
{
public:
    CMutex();
    ~CMutex();

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    int lock();
    int unlock();
    int condWait();
    int condSignal();

private:
    pthread_mutex_t mMutex;
    pthread_cond_t mCond;
};

#endif
