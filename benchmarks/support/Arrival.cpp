#include "Arrival.h"

void Arrival::signal()
{
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mMutex);
    mAt = now;
    mArrived = true;
    mCond.notify_one();
}

bool Arrival::wait(Clock::time_point& when)
{
    std::unique_lock<std::mutex> lock(mMutex);
    const bool ok = mCond.wait_for(lock, std::chrono::seconds(5), [&] { return mArrived; });
    mArrived = false;
    when = mAt;
    return ok;
}
