#include "CJTThreadCtrl.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <sched.h>

namespace
{
#if defined(__SANITIZE_ADDRESS__)
const size_t kStackFactor = 4;
#else
const size_t kStackFactor = 1;
#endif
const size_t kMaxThreadName = 15;

void* threadEntry(void* arg)
{
    static_cast<CJTThreadCtrl::IRunnable*>(arg)->run();
    return nullptr;
}
}

pthread_t CJTThreadCtrl::startThread(IRunnable* runnable, bool detached, int priority, size_t stackSize)
{
    if (!runnable)
        return 0;
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0)
        return 0;
    size_t size = stackSize * kStackFactor;
    if (size < static_cast<size_t>(PTHREAD_STACK_MIN))
        size = PTHREAD_STACK_MIN;
    pthread_attr_setstacksize(&attr, size);
    pthread_attr_setdetachstate(&attr, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, threadEntry, runnable);
    pthread_attr_destroy(&attr);
    if (rc != 0)
        return 0;
    setPriority(thread, priority);
    return thread;
}

int CJTThreadCtrl::getPriority(pthread_t thread)
{
    int policy;
    sched_param param;
    if (pthread_getschedparam(thread, &policy, &param) != 0)
        return -1;
    return param.sched_priority;
}

bool CJTThreadCtrl::setPriority(pthread_t thread, int priority)
{
    return pthread_setschedprio(thread, priority) == 0;
}

bool CJTThreadCtrl::setThreadName(pthread_t thread, const char* name)
{
    if (!name || thread == 0)
        return false;
    char shortName[kMaxThreadName + 1];
    std::strncpy(shortName, name, kMaxThreadName);
    shortName[kMaxThreadName] = 0;
    return pthread_setname_np(thread, shortName) == 0;
}

bool CJTThreadCtrl::join(pthread_t thread, int timeoutMs)
{
    if (thread == 0)
        return false;
    if (timeoutMs < 0)
        return pthread_join(thread, nullptr) == 0;
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return pthread_timedjoin_np(thread, nullptr, &deadline) == 0;
}

void CJTThreadCtrl::terminate()
{
    pthread_exit(nullptr);
}

bool CJTThreadCtrl::terminate(pthread_t thread)
{
    return thread != 0 && pthread_cancel(thread) == 0;
}
