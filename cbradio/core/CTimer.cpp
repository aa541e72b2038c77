#include "CTimer.h"

#include "CTimerMaster.h"

#include <unistd.h>

CTimer::CTimer()
    : mRunning(false), mPeriod(0), mPeriodic(false), mpHandler(nullptr), mTimerId(-1), mTimerSetting(), mCodeId(0)
{
}

CTimer::CTimer(ITimerHandler* handler)
    : mRunning(false), mPeriod(0), mPeriodic(false), mpHandler(handler), mTimerId(-1), mTimerSetting(), mCodeId(0)
{
}

CTimer::~CTimer()
{
    stopTimer();
    if (mTimerId >= 0)
        ::close(mTimerId);
}

bool CTimer::startTimer(unsigned long long milliseconds, bool periodic)
{
    if (mRunning.load(std::memory_order_relaxed))
        return false;
    mRunning.store(true, std::memory_order_relaxed);
    mPeriod = milliseconds;
    mPeriodic = periodic;
    if (!CTimerMaster::getTimerMaster()->addTimer(this, periodic))
        mRunning.store(false, std::memory_order_relaxed);
    return mRunning.load(std::memory_order_relaxed);
}

bool CTimer::stopTimer()
{
    if (!mRunning.load(std::memory_order_relaxed))
        return true;
    CTimerMaster::getTimerMaster()->removeTimer(this);
    mRunning.store(false, std::memory_order_relaxed);
    return true;
}
