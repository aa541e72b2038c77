// SvcIpcConnection: one bus connection and the threads that serve it.
//
// Everything the process sends through a connection handle (calls, replies, signals, name
// requests) goes out on one libdbus connection, so peers see one sender. libdbus is never asked to
// block: whoever reads the connection waits in its own poll(2) on the bus descriptor and a wake-up
// descriptor and then reads, writes and pops messages without blocking. Sends never block either
// (libdbus writes what the socket takes and queues the rest for the reader to flush).
//
// Two roles, each held by at most one thread at a time:
//  - the reader polls the connection and sorts what arrives: a reply goes to the thread that waits
//    for it, a method call the library answers itself (introspection, peer, errors) is answered at
//    once, anything for a callback is queued in arrival order, the rest is dropped. Whoever needs
//    input and finds the role free takes it: an idle dispatch thread, or a thread waiting for its
//    own reply. So a blocking call completes even while every dispatch thread is busy in a
//    callback (the waiting thread reads for itself).
//  - the dispatcher runs the queue's callbacks one at a time, in order. A dispatch thread whose
//    callback makes a blocking library call gives the role up first (starting a stand-in when no
//    dispatch thread is free), so queued work keeps moving while it waits.
// Dispatch threads start only when there is something to dispatch (a registration, a
// subscription, an asynchronous call, a completion, a connection-lost callback): a client that
// only makes blocking calls runs on its own thread alone.
//
// Stopping never waits without bound on a callback: a registration or subscription being ended,
// or a connection being closed, waits at most kCallbackGrace for callbacks that are running, then
// goes on and leaves them to finish on their own (their thread keeps the objects it uses alive).
//
// Errors are statuses from svcipc.h; nothing throws.
#ifndef SVCIPC_CONNECTION_H
#define SVCIPC_CONNECTION_H

#include "svcipc.h"

#include "SvcIpcDescription.h"
#include "SvcIpcIncoming.h"

#include <dbus/dbus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace svcipc
{

// How long ending a registration, a subscription or a connection waits for a running callback.
constexpr std::chrono::milliseconds kCallbackGrace{300};

// Lets a callback that is running finish before the subscription or registration it belongs to
// ends, without deadlocking when it is ended from inside that very callback, and without waiting
// more than kCallbackGrace for one that is stuck.
class CallbackGate
{
public:
    bool enter();
    void leave();
    // Refuses later entries; true when no other thread is inside any more.
    bool close(std::chrono::milliseconds bound);

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mOpen = true;
    std::vector<std::thread::id> mInside;
};

struct Registration
{
    std::string busName;
    std::string objPath;
    SVCIPC_tRequestCallback onRequest = nullptr;
    void* token = nullptr;
    CallbackGate gate;
};

struct Subscription
{
    bool ownerWatch = false;
    std::string path;  // signal subscriptions
    std::string member;
    std::string busName;  // owner watches
    std::string rule;
    SVCIPC_tSignalCallback onSignal = nullptr;
    SVCIPC_tNameOwnerChangedCallback onOwnerChanged = nullptr;
    void* token = nullptr;
    CallbackGate gate;
};

// A received method call, kept until the service frees its context.
struct RequestContext
{
    ~RequestContext();
    DBusMessage* call = nullptr;
    bool noReply = false;
    std::atomic<bool> replied{false};  // a result was sent (from any thread)
};

// The error details of a failed call that waited for its reply.
struct CallResult
{
    std::string errName;
    std::string errMsg;
};

// Work for a completion callback: runs on a dispatch thread, in order with the messages.
struct Completion
{
    SVCIPC_tStatusCallback onStatus = nullptr;
    void* token = nullptr;
};

class Connection : public std::enable_shared_from_this<Connection>
{
public:
    static SVCIPC_tError open(uint32_t busType, std::shared_ptr<Connection>& out);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Fails waiting calls, stops the dispatch threads (waiting at most kCallbackGrace for running
    // callbacks; a calling dispatch thread ends after its callback), flushes what is queued for a
    // short while and closes the bus connection. Owed completions still run on a dispatch thread.
    // Idempotent.
    void close();
    bool isConnected() const { return mConnected.load(std::memory_order_relaxed); }

    SVCIPC_tError addRegistration(const std::shared_ptr<Registration>& reg);
    SVCIPC_tError removeRegistration(const std::shared_ptr<Registration>& reg);
    SVCIPC_tError addSubscription(const std::shared_ptr<Subscription>& sub);
    void removeSubscription(const std::shared_ptr<Subscription>& sub);
    void setLostCallback(SVCIPC_tConnectionLostCallback onLost, void* token);
    void setDescription(const char* objPath, std::shared_ptr<const InterfaceDescription> d);
    // Answers a call whose context was freed without a result, at once (see buildNoResultReply).
    void answerUnanswered(DBusMessage* call);

    SVCIPC_tError emit(const char* sigName, const char* data);
    SVCIPC_tError sendMessage(DBusMessage* msg);  // the caller keeps its reference
    // Sends a call and waits for its reply (any thread, callbacks included). On success `*reply`
    // holds a reference to the method return (when `reply` is not null).
    SVCIPC_tError call(DBusMessage* msg, int timeoutMs, DBusMessage** reply, CallResult& result);
    // A call whose completion runs on a dispatch thread.
    SVCIPC_tError callAsync(DBusMessage* msg, int timeoutMs, SVCIPC_tResultCallback onResult, void* token);
    // Calls `onStatus` with success on a dispatch thread, after the current callback when the
    // caller is the thread dispatching this connection.
    void complete(SVCIPC_tStatusCallback onStatus, void* token);

private:
    using Clock = std::chrono::steady_clock;

    struct Waiter
    {
        bool done = false;
        SVCIPC_tError status = 0;
        DBusMessage* reply = nullptr;
    };
    struct Pending
    {
        Clock::time_point deadline;
        SVCIPC_tResultCallback onResult = nullptr;
        void* token = nullptr;
    };
    enum class WorkKind {
        Message,     // a call for a service or a subscribed signal
        Result,      // a reply to an asynchronous call (msg null: failed with `status`)
        Completion,  // a fire-and-forget operation was handed to the bus
        Lost         // the connection-lost callback is owed
    };
    struct Work
    {
        WorkKind kind = WorkKind::Message;
        DBusMessage* msg = nullptr;         // owned reference
        Incoming in;                        // points into msg
        std::shared_ptr<Registration> reg;  // a call's service, as found when it was read
        Pending pending;
        SVCIPC_tError status = 0;
        Completion completion;
    };
    struct Worker
    {
        std::thread thread;
        bool exited = false;  // under mMutex
    };

    Connection() = default;

    // All of these with mMutex held.
    bool startWorkerLocked();
    void needWorkerLocked();
    void pushWorkLocked(Work&& work);
    void announceWorkLocked();
    bool readerWantedLocked() const;  // someone would take the reader role now
    void afterSendLocked();
    void failWaitersLocked(SVCIPC_tError status);
    void failAsyncLocked(SVCIPC_tError status);
    void expireLocked();
    int msUntilAsyncDeadlineLocked() const;

    // A worker's life: dispatching queued work, reading, or waiting, until the connection stops.
    void threadMain(const std::shared_ptr<Worker>& self);
    static void setUpWorkerThread();
    void dispatchNextLocked(std::unique_lock<std::mutex>& lock);
    void readAsWorkerLocked(std::unique_lock<std::mutex>& lock);
    void idleLocked(std::unique_lock<std::mutex>& lock);
    void drainForStopLocked(std::unique_lock<std::mutex>& lock);
    void dispatch(Work& work);

    // Reading: the holder of the reader role, without mMutex.
    void readOnce(int timeoutMs);
    bool waitForInput(int timeoutMs);  // true when the bus descriptor has something
    size_t readAndPop();               // lets libdbus read and write, then sorts what came
    size_t popAll();                   // sorts what libdbus has read already
    void drainWake();

    // Sorting one message (we hold a reference); the *Locked steps return true when they kept it.
    void sortIncoming(DBusMessage* msg);
    bool takeReplyLocked(DBusMessage* msg, const Incoming& in, std::unique_lock<std::mutex>& lock);
    bool queueSignalLocked(DBusMessage* msg, const Incoming& in);
    bool routeCallLocked(DBusMessage* msg, const Incoming& in, std::unique_lock<std::mutex>& lock);
    void noteLossLocked();
    std::vector<std::string> registeredPathsLocked() const;
    static bool subscribed(const Subscription& s, const Incoming& in);
    void answer(DBusMessage* call, const Incoming& in, const CallDecision& decision);

    void handleCall(DBusMessage* msg, const Incoming& in, const std::shared_ptr<Registration>& reg);
    void deliverSignal(const Incoming& in);
    void runLost();
    void flushForClose();
    template <typename T>
    void forget(std::vector<std::shared_ptr<T>>& all, const std::shared_ptr<T>& one);
    // Calls the bus daemon with one text argument and waits; a failure is the thread's last error.
    SVCIPC_tError callBus(const char* method, const std::string& text);
    void wake();
    // Called before every blocking library call: a worker holding the dispatcher role gives it up.
    static void yieldDispatch();
    static void runResult(const Pending& p, SVCIPC_tError status, const Incoming* in);

    uint32_t mBusType = 0;
    DBusConnection* mConn = nullptr;
    int mPollFd = -1;  // our own duplicate of the bus descriptor: never closed under a poll
    int mWakeFd = -1;
    std::atomic<bool> mConnected{false};
    std::atomic<bool> mStopping{false};

    // Everything below, under mMutex. mCond announces any change a thread may wait for: a reply,
    // work, the reader or dispatcher role becoming free, a worker ending, stopping.
    std::mutex mMutex;
    std::condition_variable mCond;
    std::vector<std::shared_ptr<Registration>> mRegs;
    std::vector<std::shared_ptr<Subscription>> mSubs;
    std::map<std::string, std::shared_ptr<const InterfaceDescription>, std::less<>> mDescriptions;
    std::unordered_map<uint32_t, Waiter*> mWaiters;  // by serial
    std::map<uint32_t, Pending> mAsync;              // by serial
    std::deque<Work> mWork;
    SVCIPC_tConnectionLostCallback mOnLost = nullptr;
    void* mLostToken = nullptr;
    bool mLostOwed = false;  // the connection was lost and the callback has not run yet
    bool mReading = false;   // someone holds the reader role
    bool mReaderIsWorker = false;
    Clock::time_point mReaderDeadline;  // when a reading worker's poll ends by itself
    int mRoleWanted = 0;                // blocked callers waiting for the reader role or their reply
    bool mDispatching = false;          // a worker holds the dispatcher role
    int mIdle = 0;                      // workers waiting for something to do
    int mYielded = 0;                   // workers inside a callback that gave the dispatcher role up
    std::vector<std::shared_ptr<Worker>> mWorkers;
};

// Per-thread details of the last failed call (see SVCIPC_getLastErrorName).
void setLastError(const std::string& name, const std::string& message);

}  // namespace svcipc

#endif
