// JTOperatingSystem: the operating-system services the trace framework uses, on Linux.
//
// Times: getMonotonicTime is CLOCK_MONOTONIC in nanoseconds; currentTimeMs is that value divided by
// 1,000,000 and truncated to 32 bits (it wraps after about 49 days, so compare by difference);
// getSysPageTime is the wall-clock time in nanoseconds since the epoch; getClockValue is a free
// running counter in nanoseconds (CLOCK_MONOTONIC_RAW), for measuring short intervals.
//
// Kernel time-out: a per-thread time-out for the thread's next blocking device read
// (CJTIODevice::read waits at most that long with poll(2), then fails with ETIMEDOUT). The read
// consumes it, whether it timed out or not; resetKernelTimeout drops it unused. A time-out of 0
// means "do not block at all". calculateKernelTimeout(ms) arms ms x 1,000,000 ns and returns it.
//
// Processes: spawnProcess searches PATH like a shell and returns the child's id, or -1 with
// errno set. joinProcess waits for one child (repeating on EINTR) and returns its exit status, the
// number of the signal that killed it, or -1 for an invalid id or a wait error (at once for -1).
// waitForProcesses waits for each listed child in turn and prints
// "process <pid> has terminated with exit code <status>\n" to standard output for each
// (children that cannot be waited for are skipped silently).
//
// Thread safety: everything may be called from any thread; the kernel time-out is the calling
// thread's own.
#ifndef JTOPERATINGSYSTEM_H
#define JTOPERATINGSYSTEM_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <signal.h>
#include <sys/types.h>
#include <vector>

class JTOperatingSystem
{
public:
    static pid_t getCurrentPID();
    static uint32_t getCurrentTID();

    static int getLastError();
    static void setLastError(int error);

    static uint32_t currentTimeMs();
    static uint64_t getMonotonicTime();
    static uint64_t getSysPageTime();
    static uint64_t getClockValue();
    static void sleepMs(uint32_t ms);

    // vsnprintf(3); returns the length the full text would have, or -1 on a format error.
    static int vsnprintf(char* buffer, size_t size, const char* format, va_list args);
    // pthread_sigmask(3) for the calling thread; returns 0 or an errno value.
    static int setSignalMask(int how, const sigset_t* set, sigset_t* oldSet);

    static void setKernelTimeout(uint64_t ns);
    static void resetKernelTimeout();
    static uint64_t calculateKernelTimeout(uint32_t ms);
    // Takes the calling thread's armed time-out: true and the nanoseconds when one was armed.
    static bool consumeKernelTimeout(uint64_t& ns);

    // argv: the argument vector with argv[0], ending with null; null means just { path }.
    static pid_t spawnProcess(const char* path, char* const argv[]);
    static int joinProcess(pid_t pid);
    static void waitForProcesses(const pid_t* pids, size_t count);
    static void waitForProcesses(const std::vector<pid_t>& pids);
    static void waitAttachDebugger();
};

#endif
