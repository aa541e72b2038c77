#include "CTerminationSignals.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace
{
// The byte that tells the watch thread to end; never a signal number.
const unsigned char END_WATCH = 0xFF;

std::atomic<int> gPipeRead(-1);
std::atomic<int> gPipeWrite(-1);
std::atomic<bool> gStopping(false);
std::atomic<int> gExitStatus(0);
CTerminationSignals::tOnSignal gOnSignal = nullptr;
pthread_t gWatchThread;
bool gWatching = false;

std::mutex gPauseMutex;
std::condition_variable gPauseEnded;

void markStopping()
{
    {
        std::lock_guard<std::mutex> lock(gPauseMutex);
        gStopping.store(true, std::memory_order_relaxed);
    }
    gPauseEnded.notify_all();
}

void* watch(void*)
{
    const int fd = gPipeRead.load(std::memory_order_relaxed);
    for (;;) {
        unsigned char sig = 0;
        const ssize_t n = ::read(fd, &sig, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || sig == END_WATCH)
            break;
        markStopping();
        if (gOnSignal != nullptr)
            gOnSignal(sig);
    }
    return nullptr;
}
}

bool CTerminationSignals::install()
{
    if (gPipeWrite.load(std::memory_order_relaxed) >= 0)
        return true;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    // Only the write end is non-blocking: a handler never waits, and a full pipe (hundreds of
    // unread signals) drops the newest, which changes nothing.
    if (::fcntl(fds[1], F_SETFL, O_NONBLOCK) != 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return false;
    }
    gPipeRead.store(fds[0], std::memory_order_relaxed);
    gPipeWrite.store(fds[1], std::memory_order_relaxed);
    return true;
}

void CTerminationSignals::record(int sig)
{
    const int savedErrno = errno;
    const int fd = gPipeWrite.load(std::memory_order_relaxed);
    if (fd >= 0) {
        const unsigned char byte = static_cast<unsigned char>(sig);
        ssize_t ignored = ::write(fd, &byte, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

bool CTerminationSignals::startWatch(tOnSignal onSignal)
{
    if (gWatching || gPipeRead.load(std::memory_order_relaxed) < 0)
        return false;
    gOnSignal = onSignal;
    const sigset_t previous = blockOnThisThread();
    gWatching = ::pthread_create(&gWatchThread, nullptr, &watch, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (gWatching)
        ::pthread_setname_np(gWatchThread, "CBRadioSignals");
    return gWatching;
}

void CTerminationSignals::stopWatch()
{
    if (!gWatching)
        return;
    // A blocking write: the pipe may be full of unread signals, and the watch thread drains it.
    const int fd = gPipeWrite.load(std::memory_order_relaxed);
    for (;;) {
        const unsigned char end = END_WATCH;
        if (::write(fd, &end, 1) == 1)
            break;
        pollfd writable = {fd, POLLOUT, 0};
        ::poll(&writable, 1, 100);
    }
    ::pthread_join(gWatchThread, nullptr);
    gWatching = false;
}

void CTerminationSignals::requestStop(int exitStatus)
{
    int none = 0;
    if (exitStatus != 0)
        gExitStatus.compare_exchange_strong(none, exitStatus, std::memory_order_relaxed);
    markStopping();
}

int CTerminationSignals::exitStatus()
{
    return gExitStatus.load(std::memory_order_relaxed);
}

bool CTerminationSignals::stopping()
{
    return gStopping.load(std::memory_order_relaxed);
}

bool CTerminationSignals::pause(unsigned int ms)
{
    std::unique_lock<std::mutex> lock(gPauseMutex);
    return !gPauseEnded.wait_for(lock, std::chrono::milliseconds(ms), [] { return stopping(); });
}

sigset_t CTerminationSignals::blockOnThisThread(bool withTimerSignal)
{
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGHUP);
    sigaddset(&blocked, SIGTERM);
    if (withTimerSignal)
        sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    return previous;
}
