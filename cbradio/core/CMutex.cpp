#include "CMutex.h"

CMutex::CMutex() : mMutex(PTHREAD_MUTEX_INITIALIZER), mCond(PTHREAD_COND_INITIALIZER)
{
    pthread_mutex_init(&mMutex, nullptr);
}

CMutex::~CMutex()
{
    // The condition variable is static-initialised and holds no resources to give back.
    pthread_mutex_destroy(&mMutex);
}

int CMutex::lock()
{
    return pthread_mutex_lock(&mMutex);
}

int CMutex::unlock()
{
    return pthread_mutex_unlock(&mMutex);
}

int CMutex::condWait()
{
    return pthread_cond_wait(&mCond, &mMutex);
}

int CMutex::condSignal()
{
    return pthread_cond_signal(&mCond);
}
