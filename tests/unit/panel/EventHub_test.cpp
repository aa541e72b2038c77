// The hub between bus threads and event streams: a stream that falls behind learns how much it
// missed, a new stream starts with the service's presence, and stopping wakes a waiting stream.
#include "EventHub.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace panel;
using namespace std::chrono;

TEST(EventHub, NewStreamsGetThePresenceAndSlowOnesTheirLosses)
{
    EventHub hub;
    hub.publish("service", "{\"onBus\":false}", true);
    hub.publish("service", "{\"onBus\":true}", true);
    std::vector<Event> sticky;
    std::uint64_t cursor = hub.open(sticky);
    ASSERT_EQ(sticky.size(), 1u);
    EXPECT_EQ(toSse(sticky[0]), "event: service\ndata: {\"onBus\":true}\n\n");

    const std::size_t published = EventHub::kKept + 44;
    for (std::size_t i = 0; i < published; ++i)
        hub.publish("signal", "{\"n\":" + std::to_string(i) + "}\n");
    std::uint64_t missed = 0;
    std::vector<Event> events = hub.next(cursor, milliseconds(0), missed);
    EXPECT_EQ(missed, 44u);
    ASSERT_EQ(events.size(), EventHub::kKept);
    EXPECT_EQ(toSse(events.back()), "event: signal\ndata: {\"n\":299} \n\n");
    EXPECT_TRUE(hub.next(cursor, milliseconds(0), missed).empty());
}

TEST(EventHub, StopWakesAWaitingStream)
{
    EventHub hub;
    std::vector<Event> sticky;
    std::uint64_t cursor = hub.open(sticky);
    std::thread stopper([&] {
        std::this_thread::sleep_for(milliseconds(50));
        hub.stop();
    });
    const auto start = steady_clock::now();
    std::uint64_t missed = 0;
    EXPECT_TRUE(hub.next(cursor, seconds(10), missed).empty());
    EXPECT_LT(steady_clock::now() - start, seconds(5));
    stopper.join();
}
