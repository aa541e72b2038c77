// SvcIpcConnection: one bus connection and the threads that serve it.
//
// libdbus is only ever asked to block by threads that own the connection they block on: the
// dispatch threads wait in their own poll(2) on the connection's descriptor and a wake-up
// descriptor, and read, write and pop messages without blocking. Messages are taken off the
// connection one by one and handled outside libdbus's dispatch lock, so a callback may do anything
// with the library, including blocking.
//
// Dispatch threads follow a leader/follower scheme: one thread at a time (the leader) waits for
// and handles messages, calling the application's callbacks inline. When a callback makes a
// blocking library call, its thread hands the leadership to an idle thread (starting one when
// none is idle) before it blocks, so the connection keeps being served. Blocking method calls
// (SVCIPC_invoke) go over a private connection of the calling thread, opened on first use, and
// wait in libdbus itself: a round trip costs what a plain libdbus client pays.
//
// Errors are statuses from svcipc.h; nothing throws.
#ifndef SVCIPC_CONNECTION_H
#define SVCIPC_CONNECTION_H

#include "svcipc.h"

#include <dbus/dbus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace svcipc
{

// Lets a callback that is running finish before the subscription or registration it belongs to
// ends, without deadlocking when it is ended from inside that very callback.
class CallbackGate
{
public:
    bool enter();
    void leave();
    void close();

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
    std::string path;     // signal subscriptions
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
};

// The outcome of a call that waits for its reply.
struct CallResult
{
    std::string text;
    std::string errName;
    std::string errMsg;
};

class Connection : public std::enable_shared_from_this<Connection>
{
public:
    static SVCIPC_tError open(uint32_t busType, std::shared_ptr<Connection>& out);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Stops the threads (a calling dispatch thread of this connection ends after its callback),
    // fails outstanding calls and closes the bus connection. Idempotent.
    void close();
    bool isConnected() const { return mConnected.load(std::memory_order_relaxed); }
    uint32_t busType() const { return mBusType; }

    SVCIPC_tError addRegistration(const std::shared_ptr<Registration>& reg);
    SVCIPC_tError removeRegistration(const std::shared_ptr<Registration>& reg);
    SVCIPC_tError addSubscription(const std::shared_ptr<Subscription>& sub);
    void removeSubscription(const std::shared_ptr<Subscription>& sub);

    SVCIPC_tError emit(const char* sigName, const char* data);
    SVCIPC_tError sendMessage(DBusMessage* msg);  // the caller keeps its reference
    // A call on this connection that waits for its reply (bus daemon methods).
    SVCIPC_tError callAndWait(DBusMessage* msg, int timeoutMs, DBusMessage** reply,
                              CallResult& result);
    // A call whose completion runs on a dispatch thread.
    SVCIPC_tError callAsync(DBusMessage* msg, int timeoutMs, SVCIPC_tResultCallback onResult,
                            void* token);
    // A call over the calling thread's private connection to the same bus.
    SVCIPC_tError callBlocking(DBusMessage* msg, int timeoutMs, CallResult& result);

    // Runs `fn` on a dispatch thread, soon.
    void defer(std::function<void()> fn);

    // Called before any blocking library call: when the calling thread is leading a connection's
    // dispatch, another thread takes over.
    static void yieldDispatch();

private:
    struct Waiter
    {
        bool done = false;
        SVCIPC_tError status = 0;
        DBusMessage* reply = nullptr;
    };
    struct Pending
    {
        std::chrono::steady_clock::time_point deadline;
        Waiter* waiter = nullptr;
        SVCIPC_tResultCallback onResult = nullptr;
        void* token = nullptr;
    };

    Connection() = default;
    void startThread();
    void threadMain();
    void lead();
    bool stillLeading() const;
    void handOver();
    void wake();
    static void onWakeupMain(void* data);

    void runDeferred(bool whileLeading);
    void dispatchQueued();
    void handle(DBusMessage* msg);
    void handleCall(DBusMessage* msg, const struct Incoming& in);
    void deliverSignal(const struct Incoming& in);
    void completeCall(DBusMessage* msg, const struct Incoming& in);
    void onDisconnected();
    void failPending(SVCIPC_tError status);
    void expireTimeouts();
    int msUntilNextDeadline();
    static void callResult(const Pending& p, SVCIPC_tError status, const struct Incoming* in);

    DBusConnection* sideConnection();
    void forgetSide(DBusConnection* side);
    friend struct SideCache;

    uint64_t mId = 0;
    uint32_t mBusType = 0;
    std::string mAddress;
    DBusConnection* mConn = nullptr;
    int mBusFd = -1;
    int mWakeFd = -1;
    std::atomic<bool> mConnected{false};
    std::atomic<bool> mStopping{false};

    // Registrations, subscriptions, outstanding calls and deferred work.
    std::mutex mMutex;
    std::condition_variable mWaitCond;
    std::vector<std::shared_ptr<Registration>> mRegs;
    std::vector<std::shared_ptr<Subscription>> mSubs;
    std::map<uint32_t, Pending> mPending;
    std::deque<std::function<void()>> mDeferred;

    // Dispatch threads.
    std::mutex mThreadMutex;
    std::condition_variable mThreadCond;
    std::vector<std::thread> mThreads;
    bool mLeaderTaken = false;
    int mIdle = 0;

    // The per-thread private connections used by callBlocking.
    std::mutex mSideMutex;
    std::vector<DBusConnection*> mSides;
};

// Per-thread details of the last failed call (see SVCIPC_getLastErrorName).
void setLastError(const std::string& name, const std::string& message);

}  // namespace svcipc

#endif
