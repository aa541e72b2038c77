#include "JTOperatingSystem.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace
{
// The armed time-out of this thread, for its next blocking device read.
thread_local bool tKernelTimeoutArmed = false;
thread_local uint64_t tKernelTimeoutNs = 0;

uint64_t clockNs(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

int statusOf(int waitStatus)
{
    if (WIFEXITED(waitStatus))
        return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus))
        return WTERMSIG(waitStatus);
    return -1;
}
}

pid_t JTOperatingSystem::getCurrentPID()
{
    return ::getpid();
}

uint32_t JTOperatingSystem::getCurrentTID()
{
    return static_cast<uint32_t>(::syscall(SYS_gettid));
}

int JTOperatingSystem::getLastError()
{
    return errno;
}

void JTOperatingSystem::setLastError(int error)
{
    errno = error;
}

uint32_t JTOperatingSystem::currentTimeMs()
{
    return static_cast<uint32_t>(getMonotonicTime() / 1000000ull);
}

uint64_t JTOperatingSystem::getMonotonicTime()
{
    return clockNs(CLOCK_MONOTONIC);
}

uint64_t JTOperatingSystem::getSysPageTime()
{
    return clockNs(CLOCK_REALTIME);
}

uint64_t JTOperatingSystem::getClockValue()
{
    return clockNs(CLOCK_MONOTONIC_RAW);
}

void JTOperatingSystem::sleepMs(uint32_t ms)
{
    timespec remaining = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&remaining, &remaining) < 0 && errno == EINTR) {
    }
}

int JTOperatingSystem::vsnprintf(char* buffer, size_t size, const char* format, va_list args)
{
    return std::vsnprintf(buffer, size, format, args);
}

int JTOperatingSystem::setSignalMask(int how, const sigset_t* set, sigset_t* oldSet)
{
    return pthread_sigmask(how, set, oldSet);
}

void JTOperatingSystem::setKernelTimeout(uint64_t ns)
{
    tKernelTimeoutNs = ns;
    tKernelTimeoutArmed = true;
}

void JTOperatingSystem::resetKernelTimeout()
{
    tKernelTimeoutArmed = false;
    tKernelTimeoutNs = 0;
}

uint64_t JTOperatingSystem::calculateKernelTimeout(uint32_t ms)
{
    uint64_t ns = static_cast<uint64_t>(ms) * 1000000ull;
    setKernelTimeout(ns);
    return ns;
}

bool JTOperatingSystem::consumeKernelTimeout(uint64_t& ns)
{
    if (!tKernelTimeoutArmed)
        return false;
    ns = tKernelTimeoutNs;
    resetKernelTimeout();
    return true;
}

pid_t JTOperatingSystem::spawnProcess(const char* path, char* const argv[])
{
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    char* defaultArgv[] = {const_cast<char*>(path), nullptr};
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, path, nullptr, nullptr, argv != nullptr ? argv : defaultArgv, environ);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return pid;
}

int JTOperatingSystem::joinProcess(pid_t pid)
{
    if (pid <= 0) {
        errno = ECHILD;
        return -1;
    }
    int waitStatus = 0;
    pid_t rc;
    do {
        rc = ::waitpid(pid, &waitStatus, 0);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0)
        return -1;
    return statusOf(waitStatus);
}

void JTOperatingSystem::waitForProcesses(const pid_t* pids, size_t count)
{
    for (size_t i = 0; pids != nullptr && i < count; ++i) {
        if (pids[i] <= 0)
            continue;
        int waitStatus = 0;
        pid_t rc;
        do {
            rc = ::waitpid(pids[i], &waitStatus, 0);
        } while (rc < 0 && errno == EINTR);
        if (rc == pids[i]) {
            std::printf("process %d has terminated with exit code %d\n", static_cast<int>(rc), statusOf(waitStatus));
            std::fflush(stdout);
        }
    }
}

void JTOperatingSystem::waitForProcesses(const std::vector<pid_t>& pids)
{
    waitForProcesses(pids.data(), pids.size());
}

void JTOperatingSystem::waitAttachDebugger() {}
