// CTimer: calls its ITimerHandler after a delay, once or periodically.
//
// startTimer(ms, periodic) arms the timer through the process's one CTimerMaster and returns true
// when it now runs; on a running timer it returns false and changes nothing. stopTimer() disarms
// it and always returns true. A one-shot timer that has fired stays "running" until stopTimer():
// it must be stopped before it can be started again. The handler runs on the timer master's
// thread. The timer's kernel descriptor is created on the first start and kept until the timer is
// destroyed, so restarting a timer costs no descriptor.
//
// Thread safety: start and stop a timer from one controlling thread at a time; its own handler may
// stop it.
#ifndef CTIMER_H
#define CTIMER_H

#include <atomic>
#include <ctime>

class ITimerHandler;
class CTimerMaster;

class CTimer
{
public:
    // Leaves the object as it is (kept for code that fills a timer later); prefer the other one.
    CTimer();
    explicit CTimer(ITimerHandler* handler);
    ~CTimer();

    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;

    bool startTimer(unsigned long long milliseconds, bool periodic);
    bool stopTimer();

    bool isRunning() const { return mRunning.load(std::memory_order_relaxed); }
    bool isPeriodic() const { return mPeriodic; }
    unsigned long long getPeriod() const { return mPeriod; }
    ITimerHandler* getHandler() const { return mpHandler; }
    // First expiry and interval as last armed (all zero after stopTimer).
    const itimerspec& getTimerSetting() const { return mTimerSetting; }
    // The code under which the timer master dispatches this timer.
    short getCodeId() const { return mCodeId; }

private:
    friend class CTimerMaster;

    std::atomic<bool> mRunning;
    unsigned long long mPeriod;
    bool mPeriodic;
    ITimerHandler* mpHandler;
    int mTimerId;  // timerfd descriptor, -1 until the first start
    itimerspec mTimerSetting;
    short mCodeId;
};

#endif
