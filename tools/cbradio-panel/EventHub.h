// EventHub: the panel's events on their way to the browsers' event streams.
//
// Bus threads publish() events (a kind and a JSON text); every open event stream reads the ones
// published after it opened with next(), which waits a bounded time, so a stream notices a closed
// browser or the panel stopping within that time. The hub keeps the latest 256 events; a stream
// that falls further behind skips the oldest and is told how many it missed. It also keeps the last
// event of each "sticky" kind (the service's presence), which a new stream gets first.
// Thread-safe; no call waits longer than the time-out it is given.
#ifndef EVENTHUB_H
#define EVENTHUB_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace panel
{

struct Event
{
    std::uint64_t seq = 0;
    std::string kind;  // the SSE event name: "service", "signal", "request", "bus"
    std::string json;  // one line
};

class EventHub
{
public:
    static constexpr std::size_t kKept = 256;

    void publish(const std::string& kind, const std::string& json, bool sticky = false);
    // The sequence number a new stream starts after, and the sticky events to send it first.
    std::uint64_t open(std::vector<Event>& sticky) const;
    // Events after `cursor` (advanced past them), waiting up to `wait` for the first one; empty on
    // time-out or once stopped. `missed` counts events dropped before this stream read them.
    std::vector<Event> next(std::uint64_t& cursor, std::chrono::milliseconds wait, std::uint64_t& missed);
    void stop();
    bool stopped() const;

private:
    mutable std::mutex mMutex;
    std::condition_variable mArrived;
    std::deque<Event> mEvents;
    std::map<std::string, Event> mSticky;
    std::uint64_t mLastSeq = 0;
    bool mStopped = false;
};

// SSE wire form of one event: "event: KIND\ndata: JSON\n\n".
std::string toSse(const Event& event);

}  // namespace panel

#endif
