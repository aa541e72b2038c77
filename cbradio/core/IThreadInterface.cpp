#include "IThreadInterface.h"

#include <cstdio>

namespace
{
const char* const DEFAULT_NAME = "MERIDOThread";

void cleanupNothing(void*) {}

bool isOtherThread(pthread_t thread)
{
    return thread != 0 && !pthread_equal(thread, pthread_self());
}
}

IThreadInterface::IThreadInterface(const char* name) : mThread(0)
{
    std::snprintf(mName, sizeof(mName), "%s", name != nullptr ? name : DEFAULT_NAME);
}

IThreadInterface::~IThreadInterface() {}

void IThreadInterface::createThread()
{
    if (mThread != 0)
        return;
    if (pthread_create(&mThread, nullptr, &IThreadInterface::threadFunction, this) == 0) {
        // The kernel keeps 15 characters; a longer name is refused and the thread stays unnamed.
        pthread_setname_np(mThread, mName);
    } else {
        mThread = 0;
        std::printf("\n[GEN] [%s] pthread_create failed\n", mName);
    }
}

void* IThreadInterface::threadFunction(void* object)
{
    pthread_cleanup_push(cleanupNothing, object);
    if (object == nullptr)
        std::printf("\n[GEN] ThreadFun failed!!! -> You passed null object!!!\n");
    else
        static_cast<IThreadInterface*>(object)->run();
    pthread_cleanup_pop(1);
    pthread_exit(nullptr);
    return nullptr;
}

int IThreadInterface::waitStop()
{
    if (isOtherThread(mThread)) {
        int result = pthread_join(mThread, nullptr);
        mThread = 0;
        return result;
    }
    std::printf("\n[GEN] waitstop : join call from the same thread\n");
    mThread = 0;
    return 0;
}

int IThreadInterface::stop()
{
    int printed;
    if (isOtherThread(mThread)) {
        int result = pthread_cancel(mThread);
        if (result != 0)
            return result;
        std::printf("\n[GEN] waiting for thread[%s] to join\n", mName);
        result = waitStop();
        if (result != 0)
            printed = std::printf("\n[GEN] failed to join Thread[%s] Err[%d]\n", mName, result);
        else
            printed = std::printf("\n[GEN] Thread[%s] joined\n", mName);
    } else {
        printed = std::printf("\n[GEN] Bad caller, pthread cancel from the same thread\n");
    }
    return printed;
}
