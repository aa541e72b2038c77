// Arrival: one delivery at a time, from a receiving thread to the measuring one.
//
// The receiver calls signal() the moment something arrives, which stamps the time; the
// measuring thread waits for it and gets that stamp, so the latency does not include its own
// wake-up.
#ifndef ARRIVAL_H
#define ARRIVAL_H

#include <chrono>
#include <condition_variable>
#include <mutex>

class Arrival
{
public:
    using Clock = std::chrono::steady_clock;

    // Any thread.
    void signal();
    // Waits up to 5 s; `when` is the time of the arrival. False when nothing came.
    bool wait(Clock::time_point& when);

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mArrived = false;
    Clock::time_point mAt;
};

#endif
