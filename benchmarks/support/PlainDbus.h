// PlainDbus: the baseline of the bus benchmarks, written as a plain single-threaded libdbus
// program would be: private connections, blocking calls, one thread in read_write_dispatch.
//
// The in-process echo peer and the signal watch dispatch on threads of their own;
// Arrival::signal() is called there. The out-of-process baselines are bench_plainpeer.
#ifndef PLAINDBUS_H
#define PLAINDBUS_H

#include "Arrival.h"

#include <dbus/dbus.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace PlainDbus
{
using Clock = std::chrono::steady_clock;

// Where the peer lives: it owns `name`, which is also the interface of its methods and signals.
struct Names
{
    std::string name;
    std::string methodPath;
    std::string signalPath;
};

// A private, registered connection to the bus at `address`; nullptr when that fails.
DBusConnection* openConnection(const std::string& address);
// Closes and releases a connection from openConnection(); nullptr is fine.
void closeConnection(DBusConnection* connection);

// Answers every method call on the method path with one string (its own argument unless a fixed
// reply is given) and passes every "tick" signal on the signal path to an Arrival.
class EchoPeer
{
public:
    bool start(const std::string& address, const Names& names, Arrival* ticks,
               std::optional<std::string> fixedReply = std::nullopt);
    // Asks the peer to quit through `client` and waits for its thread; harmless if never started.
    void stop(DBusConnection* client);

private:
    static DBusHandlerResult filter(DBusConnection* connection, DBusMessage* message, void* self);

    Names mNames;
    Arrival* mTicks = nullptr;
    std::optional<std::string> mFixedReply;
    DBusConnection* mConnection = nullptr;
    std::thread mThread;
    std::atomic<bool> mRunning{true};
};

// Calls `member` on the peer with `argument` and waits for the reply; returns the time taken.
Clock::duration roundTrip(DBusConnection* client, const Names& peer, const char* member, const char* argument);
// The same for a peer whose bus name is also its interface; false when no reply came.
bool call(DBusConnection* client, const std::string& name, const std::string& path, const char* member,
          const char* argument);

// Hands every signal `member` on `path` to an Arrival, on a dispatch thread of its own that reads
// its private connection (nothing else sends on it). Rules are added before start().
class SignalWatch
{
public:
    ~SignalWatch() { stop(); }
    // Before start().
    void watch(const std::string& path, const std::string& member, Arrival* arrival);
    // Connects and adds the rules (blocking, so no signal sent afterwards is missed). False when
    // the bus cannot be reached or refuses a rule.
    bool start(const std::string& address);
    void stop();  // ends within 0.1 s

private:
    static DBusHandlerResult filter(DBusConnection* connection, DBusMessage* message, void* self);

    struct Rule
    {
        std::string path;
        std::string member;
        Arrival* arrival;
    };
    std::vector<Rule> mRules;
    DBusConnection* mConnection = nullptr;
    std::thread mThread;
    std::atomic<bool> mRunning{false};
};

// Emits "tick" with `text` on the peer's signal path and returns the time until the peer had it.
Clock::duration tick(DBusConnection* client, const Names& peer, const char* text, Arrival& ticks);
}

#endif
