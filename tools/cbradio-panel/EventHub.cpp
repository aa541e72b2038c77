#include "EventHub.h"

namespace panel
{

void EventHub::publish(const std::string& kind, const std::string& json, bool sticky)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Event event;
        event.seq = ++mLastSeq;
        event.kind = kind;
        event.json = json;
        if (sticky)
            mSticky[kind] = event;
        mEvents.push_back(std::move(event));
        if (mEvents.size() > kKept)
            mEvents.pop_front();
    }
    mArrived.notify_all();
}

std::uint64_t EventHub::open(std::vector<Event>& sticky) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    sticky.clear();
    for (const auto& entry : mSticky)
        sticky.push_back(entry.second);
    return mLastSeq;
}

std::vector<Event> EventHub::next(std::uint64_t& cursor, std::chrono::milliseconds wait, std::uint64_t& missed)
{
    std::unique_lock<std::mutex> lock(mMutex);
    mArrived.wait_for(lock, wait, [&] { return mStopped || mLastSeq > cursor; });
    std::vector<Event> out;
    missed = 0;
    if (mStopped)
        return out;
    if (!mEvents.empty() && mEvents.front().seq > cursor + 1)
        missed = mEvents.front().seq - cursor - 1;
    for (const Event& event : mEvents)
        if (event.seq > cursor)
            out.push_back(event);
    cursor = mLastSeq;
    return out;
}

void EventHub::stop()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopped = true;
    }
    mArrived.notify_all();
}

bool EventHub::stopped() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mStopped;
}

std::string toSse(const Event& event)
{
    // JSON texts written by the panel hold no raw line breaks; cut any to keep the frame whole.
    std::string data = event.json;
    for (char& c : data)
        if (c == '\n' || c == '\r')
            c = ' ';
    return "event: " + event.kind + "\ndata: " + data + "\n\n";
}

}  // namespace panel
