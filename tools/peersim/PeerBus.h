// PeerBus: the peers' side of the session bus.
//
// One private connection to the bus in DBUS_SESSION_BUS_ADDRESS owns the peers' bus names (each
// requested without queueing, so a name someone else holds is reported, not waited for) and
// answers method calls on their object paths in the form the service-IPC library uses: member =
// method, one string argument (or none), interface = the bus name or none; replies and signals
// carry one string. Each call is handed to the CallHandler, whose PeerAnswer is carried out
// after its delay: a method return, an error reply (org.freedesktop.DBus.Error.* or any name the
// user chose) or nothing, then its signals. A call on a peer that has left the bus (reached by the
// connection's unique name) is answered org.freedesktop.DBus.Error.UnknownObject; a signal of a
// peer that has left is not sent.
//
// This side talks to libdbus directly rather than through the service-IPC library because a
// service built on that library cannot answer a call with an error reply, and failing peers are
// part of what has to be simulated.
//
// Threads: start() begins the bus loop on a thread of its own, the only one that touches the
// connection after that; the handler and every log line about the bus come from it. join(),
// leave() and emit() may then be called from any other thread: the loop carries them out in the
// order they were made, and they wait for it. stop() may be called from anywhere, a signal handler
// included.
#ifndef PEERBUS_H
#define PEERBUS_H

#include "PeerLog.h"
#include "PeerNames.h"
#include "PeerServices.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

struct DBusConnection;
struct DBusMessage;

class PeerBus
{
public:
    typedef std::function<PeerAnswer(Peer peer, const std::string& method, const std::string& params)> CallHandler;

    PeerBus(PeerLog& log, CallHandler onCall);
    ~PeerBus();
    PeerBus(const PeerBus&) = delete;
    PeerBus& operator=(const PeerBus&) = delete;

    // Connects to the session bus. False, with the reason, when it cannot.
    bool connect(std::string& error);

    // Request / release a peer's bus name. Before start() they act at once on the calling thread;
    // afterwards through the loop. join() is true when the name is (now) ours.
    bool join(Peer peer);
    void leave(Peer peer);
    void emit(const PeerSignal& signal);
    bool isJoined(Peer peer) const { return mJoined[static_cast<int>(peer)].load(std::memory_order_relaxed); }

    bool start();
    void stop();
    // Waits for the loop to end: 0 after stop(), 1 when the bus connection was lost.
    int wait();

private:
    typedef std::chrono::steady_clock Clock;

    void loop();
    bool onLoop(const std::function<void()>& task);
    void runTasks();
    void runTimers();
    int nextTimeoutMs() const;
    void handle(DBusMessage* message);
    void handleCall(DBusMessage* call);
    void answer(DBusMessage* call, Peer peer, const std::string& method, const PeerAnswer& a);
    void send(DBusMessage* message);
    // Sends a message (taking its reference; null is allowed) with one string argument, then
    // logs logLine.
    void sendText(DBusMessage* message, const std::string& text, const std::string& logLine);
    bool joinNow(Peer peer);
    void leaveNow(Peer peer);
    void emitNow(const PeerSignal& signal);

    PeerLog& mLog;
    CallHandler mOnCall;
    DBusConnection* mConnection = nullptr;
    int mWake[2] = {-1, -1};
    std::atomic<bool> mStop{false};
    std::atomic<bool> mJoined[kPeerCount];

    std::mutex mMutex;  // guards the task queue and the loop's state below
    std::condition_variable mDone;
    std::deque<std::function<void()>> mTasks;
    unsigned long mPosted = 0;
    unsigned long mFinished = 0;
    bool mLoopStarted = false;
    bool mLoopEnded = false;
    bool mConnectionLost = false;
    std::thread mThread;

    std::multimap<Clock::time_point, std::function<void()>> mTimers;  // loop thread only
};

#endif
