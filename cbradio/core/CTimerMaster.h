// CTimerMaster: the one thread ("TimerMaster") that serves every CTimer of the process.
//
// Each running timer is known under a one-byte code. Codes are handed out by generateCodeId() as
// 5, 6, ..., 127, -128, ..., -1, 0, ..., 4 and then again: the counter runs modulo 256 and the code
// is the counter plus 4 taken as a signed byte. On Linux a timer is a timerfd; the "channel" is an
// epoll set holding every armed timerfd keyed by its code, plus an eventfd that ends the dispatch
// loop. The thread waits on the set and calls the handler of the timer whose code fired; a code
// without a running timer is ignored.
//
// Lifetime: the singleton is created by the first getTimerMaster() and reference-counted by
// running timers. When the last timer stops, the master is deleted (its thread joined) by the
// stopping thread; if that is the master thread itself (a handler stopping its own timer), SIGUSR1
// is sent to the process. Its handler only records the request; the thread "TimerRelease" (made
// with the first master, for the life of the process) then deletes the master after the dispatch.
// The master thread runs with SIGUSR1 blocked.
//
// Locks: gMutex guards the singleton pointer and each whole addTimer; the code map has a lock of
// its own so that dispatch, which never holds gMutex, cannot deadlock with a deletion. Timers are
// meant to be started and stopped from one controlling thread at a time.
//
// Errors: a timer channel that cannot be made, or a timer that cannot be armed or disarmed, is
// reported once on standard output ("[GEN] [TimerMaster] <call> failed: <reason>"); addTimer then
// returns false with nothing inserted and no reference taken.
#ifndef CTIMERMASTER_H
#define CTIMERMASTER_H

#include "CMutex.h"
#include "IThreadInterface.h"

#include <atomic>
#include <map>

class CTimer;

class CTimerMaster : public IThreadInterface
{
public:
    CTimerMaster();
    ~CTimerMaster() override;

    void run() override;

    static CTimerMaster* getTimerMaster();
    static void releaseTimerMaster();

    // Arms timer->getPeriod() ms (seconds and nanoseconds of the first expiry; the same as interval
    // when periodic). False for a null timer or when the timer cannot be created or armed.
    bool addTimer(CTimer* timer, bool periodic);
    bool removeTimer(CTimer* timer);

    void addRefCount();
    void releaseRefCount();
    int generateCodeId();
    bool initializeTimerChannel();
    void resetTimerData();

    // The singleton (null when none) and the number of running timers.
    static std::atomic<CTimerMaster*> m_TimerMaster;
    static std::atomic<unsigned int> m_RefCount;

private:
    std::atomic<int> mChannelId;  // epoll set; 0 before first use, -1 after reset
    int mWakeId;                  // eventfd that ends the dispatch loop
    short mPulseCode;             // the last code handed out
    unsigned char mCodeCounter;
    std::map<short, CTimer*> mTimers;
    CMutex mTimersMutex;
    std::atomic<bool> mThreadStarted;
};

// Installed for SIGUSR1: asks the thread "TimerRelease" to release the master when no timer runs
// any more. Async-signal-safe.
void timer_master_signal_handler(int sig);

// Guards the singleton and timer insertion.
extern CMutex gMutex;

#endif
