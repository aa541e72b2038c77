#include "SvcIpcConnection.h"

#include "SvcIpcHandles.h"
#include "SvcIpcIncoming.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <unordered_map>

namespace svcipc
{

namespace
{
thread_local Connection* tlsOwner = nullptr;  // the connection this dispatch thread serves
thread_local bool tlsLeading = false;         // ... and whether it is its leader right now

std::atomic<uint64_t> gNextId{1};

// Only reached when callbacks nest blocking calls this deep; beyond it a blocking call from a
// callback waits without a stand-in and may run into its time-out.
const size_t kMaxThreads = 32;
const int kBusCallTimeoutMs = 25000;
const char* const kSystemBusAddress = "unix:path=/var/run/dbus/system_bus_socket";

using Clock = std::chrono::steady_clock;

int requestedPriority()
{
    const char* value = getenv("SVCIPC_DISPATCH_PRIORITY");
    if (!value || !*value)
        return -1;
    char* end = nullptr;
    long prio = strtol(value, &end, 10);
    if (*end != '\0' || prio < 0 || prio > 255)
        return -1;
    return static_cast<int>(prio);
}

DBusConnection* openBus(const std::string& address)
{
    DBusError err;
    dbus_error_init(&err);
    DBusConnection* dc = dbus_connection_open_private(address.c_str(), &err);
    if (!dc) {
        dbus_error_free(&err);
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(dc, FALSE);
    if (!dbus_bus_register(dc, &err)) {
        dbus_error_free(&err);
        dbus_connection_close(dc);
        dbus_connection_unref(dc);
        return nullptr;
    }
    return dc;
}

DBusMessage* busCall(const char* method)
{
    return dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                        method);
}

bool appendString(DBusMessage* msg, const std::string& text)
{
    const char* s = text.c_str();
    return dbus_message_append_args(msg, DBUS_TYPE_STRING, &s, DBUS_TYPE_INVALID);
}

SVCIPC_tError statusForErrorName(const std::string& name)
{
    return SVCIPC_ERR(errorCodeForName(name));
}
}  // namespace

// ------------------------------------------------------------------------------------------------
// CallbackGate

bool CallbackGate::enter()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mOpen)
        return false;
    mInside.push_back(std::this_thread::get_id());
    return true;
}

void CallbackGate::leave()
{
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = std::find(mInside.begin(), mInside.end(), std::this_thread::get_id());
    if (it != mInside.end())
        mInside.erase(it);
    mCond.notify_all();
}

void CallbackGate::close()
{
    std::unique_lock<std::mutex> lock(mMutex);
    mOpen = false;
    const std::thread::id self = std::this_thread::get_id();
    mCond.wait(lock, [&] {
        return std::all_of(mInside.begin(), mInside.end(),
                           [&](const std::thread::id& id) { return id == self; });
    });
}

RequestContext::~RequestContext()
{
    if (call)
        dbus_message_unref(call);
}

// ------------------------------------------------------------------------------------------------
// The calling thread's private connections for blocking calls, one per library connection.

struct SideCache
{
    struct Entry
    {
        std::weak_ptr<Connection> owner;
        DBusConnection* conn = nullptr;
    };
    std::unordered_map<uint64_t, Entry> entries;

    static void release(Entry& e)
    {
        if (auto owner = e.owner.lock())
            owner->forgetSide(e.conn);
        dbus_connection_close(e.conn);
        dbus_connection_unref(e.conn);
    }
    void purgeExpired()
    {
        for (auto it = entries.begin(); it != entries.end();) {
            if (it->second.owner.expired()) {
                release(it->second);
                it = entries.erase(it);
            } else {
                ++it;
            }
        }
    }
    ~SideCache()
    {
        for (auto& e : entries)
            release(e.second);
    }
};

namespace
{
thread_local SideCache tlsSides;
}

DBusConnection* Connection::sideConnection()
{
    auto it = tlsSides.entries.find(mId);
    if (it != tlsSides.entries.end()) {
        if (dbus_connection_get_is_connected(it->second.conn))
            return it->second.conn;
        SideCache::release(it->second);
        tlsSides.entries.erase(it);
    }
    tlsSides.purgeExpired();
    DBusConnection* side = openBus(mAddress);
    if (!side)
        return nullptr;
    {
        std::lock_guard<std::mutex> lock(mSideMutex);
        if (mStopping) {
            dbus_connection_close(side);
            dbus_connection_unref(side);
            return nullptr;
        }
        mSides.push_back(dbus_connection_ref(side));
    }
    tlsSides.entries[mId] = SideCache::Entry{weak_from_this(), side};
    return side;
}

void Connection::forgetSide(DBusConnection* side)
{
    std::lock_guard<std::mutex> lock(mSideMutex);
    auto it = std::find(mSides.begin(), mSides.end(), side);
    if (it == mSides.end())
        return;
    mSides.erase(it);
    dbus_connection_close(side);
    dbus_connection_unref(side);
}

// ------------------------------------------------------------------------------------------------
// Life cycle

SVCIPC_tError Connection::open(uint32_t busType, std::shared_ptr<Connection>& out)
{
    const char* address = nullptr;
    if (busType == SVCIPC_CONNECTION_SESSION) {
        address = getenv("DBUS_SESSION_BUS_ADDRESS");
    } else if (busType == SVCIPC_CONNECTION_SYSTEM) {
        address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
        if (!address || !*address)
            address = kSystemBusAddress;
    } else {
        return SVCIPC_ERR_BAD_ARGUMENT;
    }
    if (!address || !*address)
        return SVCIPC_ERR_NO_CONNECTION;

    DBusConnection* dc = openBus(address);
    if (!dc)
        return SVCIPC_ERR_NO_CONNECTION;
    int busFd = -1;
    int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!dbus_connection_get_unix_fd(dc, &busFd) || wakeFd < 0) {
        if (wakeFd >= 0)
            ::close(wakeFd);
        dbus_connection_close(dc);
        dbus_connection_unref(dc);
        return SVCIPC_ERR_INTERNAL;
    }

    std::shared_ptr<Connection> c(new Connection());
    c->mId = gNextId.fetch_add(1);
    c->mBusType = busType;
    c->mAddress = address;
    c->mConn = dc;
    c->mBusFd = busFd;
    c->mWakeFd = wakeFd;
    c->mConnected = true;
    dbus_connection_set_wakeup_main_function(dc, &Connection::onWakeupMain, c.get(), nullptr);
    {
        std::lock_guard<std::mutex> lock(c->mThreadMutex);
        try {
            c->mThreads.emplace_back([self = c] { self->threadMain(); });
        } catch (const std::system_error&) {
            c->mStopping = true;
            return SVCIPC_ERR_INTERNAL;
        }
    }
    out = std::move(c);
    return 0;
}

Connection::~Connection()
{
    for (std::thread& t : mThreads) {
        if (!t.joinable())
            continue;
        if (t.get_id() == std::this_thread::get_id())
            t.detach();
        else
            t.join();
    }
    for (DBusConnection* side : mSides) {
        dbus_connection_close(side);
        dbus_connection_unref(side);
    }
    if (mConn) {
        dbus_connection_set_wakeup_main_function(mConn, nullptr, nullptr, nullptr);
        dbus_connection_close(mConn);
        dbus_connection_unref(mConn);
    }
    if (mWakeFd >= 0)
        ::close(mWakeFd);
}

void Connection::close()
{
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mThreadMutex);
        if (mStopping.exchange(true))
            return;
        threads.swap(mThreads);
        mThreadCond.notify_all();
    }
    wake();
    // Unblock whoever waits: calls on this connection, then calls on the private connections.
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (auto it = mPending.begin(); it != mPending.end();) {
            if (it->second.waiter) {
                it->second.waiter->done = true;
                it->second.waiter->status = SVCIPC_ERR_DISCONNECTED;
                it = mPending.erase(it);
            } else {
                ++it;
            }
        }
        mWaitCond.notify_all();
    }
    {
        std::lock_guard<std::mutex> lock(mSideMutex);
        for (DBusConnection* side : mSides) {
            dbus_connection_close(side);
            dbus_connection_unref(side);
        }
        mSides.clear();
    }
    for (std::thread& t : threads) {
        if (t.get_id() == std::this_thread::get_id())
            t.detach();  // ends on its own once the callback that closed us returns
        else
            t.join();
    }
    dbus_connection_set_wakeup_main_function(mConn, nullptr, nullptr, nullptr);
    dbus_connection_close(mConn);
    mConnected = false;
}

// ------------------------------------------------------------------------------------------------
// Dispatch threads

void Connection::threadMain()
{
    pthread_setname_np(pthread_self(), "svcipc-dispatch");
    int prio = requestedPriority();
    if (prio >= 0)
        pthread_setschedprio(pthread_self(), prio);  // refused under a policy without priorities
    tlsOwner = this;

    std::unique_lock<std::mutex> lock(mThreadMutex);
    for (;;) {
        while (!mStopping && mLeaderTaken) {
            ++mIdle;
            mThreadCond.wait(lock);
            --mIdle;
        }
        if (mStopping)
            break;
        mLeaderTaken = true;
        tlsLeading = true;
        lock.unlock();
        lead();
        lock.lock();
        if (tlsLeading) {
            tlsLeading = false;
            mLeaderTaken = false;
            mThreadCond.notify_one();
        }
    }
    lock.unlock();
    // Completions still owed run here, on a dispatch thread, whichever thread leaves first.
    failPending(SVCIPC_ERR_DISCONNECTED);
    runDeferred(false);
    tlsOwner = nullptr;
}

bool Connection::stillLeading() const
{
    return tlsLeading && !mStopping.load(std::memory_order_relaxed);
}

void Connection::yieldDispatch()
{
    if (tlsOwner && tlsLeading)
        tlsOwner->handOver();
}

void Connection::handOver()
{
    std::lock_guard<std::mutex> lock(mThreadMutex);
    tlsLeading = false;
    mLeaderTaken = false;
    if (mStopping)
        return;
    if (mIdle > 0) {
        mThreadCond.notify_one();
    } else if (mThreads.size() < kMaxThreads) {
        try {
            mThreads.emplace_back([self = shared_from_this()] { self->threadMain(); });
        } catch (const std::system_error&) {
            // No stand-in: the next thread to finish its callback leads again.
        }
    }
}

void Connection::wake()
{
    uint64_t one = 1;
    ssize_t n = write(mWakeFd, &one, sizeof one);
    (void)n;  // a full counter already means "wake up"
}

void Connection::onWakeupMain(void* data)
{
    Connection* self = static_cast<Connection*>(data);
    if (!(tlsOwner == self && tlsLeading))
        self->wake();
}

void Connection::lead()
{
    while (stillLeading()) {
        runDeferred(true);
        if (!stillLeading())
            return;
        dispatchQueued();
        if (!stillLeading())
            return;
        expireTimeouts();
        if (!stillLeading())
            return;

        pollfd fds[2] = {{mWakeFd, POLLIN, 0}, {mBusFd, POLLIN, 0}};
        nfds_t count = 1;
        const bool connected = isConnected();
        if (connected) {
            if (dbus_connection_has_messages_to_send(mConn))
                fds[1].events |= POLLOUT;
            count = 2;
        }
        int ready = poll(fds, count, msUntilNextDeadline());
        if (ready < 0 && errno != EINTR)
            return;  // cannot happen with valid descriptors; let another round decide
        if (fds[0].revents & POLLIN) {
            uint64_t value;
            ssize_t n = read(mWakeFd, &value, sizeof value);
            (void)n;
        }
        if (connected && count == 2 && fds[1].revents != 0 && stillLeading()) {
            dbus_connection_read_write(mConn, 0);
            if (!dbus_connection_get_is_connected(mConn)) {
                dispatchQueued();
                onDisconnected();
            }
        }
    }
}

void Connection::runDeferred(bool whileLeading)
{
    for (;;) {
        if (whileLeading && !stillLeading())
            return;
        std::function<void()> fn;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mDeferred.empty())
                return;
            fn = std::move(mDeferred.front());
            mDeferred.pop_front();
        }
        fn();
    }
}

void Connection::defer(std::function<void()> fn)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mDeferred.push_back(std::move(fn));
    }
    if (!(tlsOwner == this && tlsLeading))
        wake();
}

void Connection::dispatchQueued()
{
    while (stillLeading()) {
        DBusMessage* msg = dbus_connection_pop_message(mConn);
        if (!msg)
            return;
        handle(msg);
        dbus_message_unref(msg);
    }
}

void Connection::handle(DBusMessage* msg)
{
    Incoming in = classify(msg);
    switch (in.kind) {
    case Kind::MethodCall:
        handleCall(msg, in);
        break;
    case Kind::Signal:
        deliverSignal(in);
        break;
    case Kind::Reply:
    case Kind::ErrorReply:
        completeCall(msg, in);
        break;
    case Kind::Disconnected:
        onDisconnected();
        break;
    case Kind::Ignore:
        break;
    }
}

void Connection::handleCall(DBusMessage* msg, const Incoming& in)
{
    std::shared_ptr<Registration> reg;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& r : mRegs) {
            if (r->objPath == in.path) {
                reg = r;
                break;
            }
        }
    }
    auto paths = [this] {
        std::vector<std::string> all;
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& r : mRegs)
            all.push_back(r->objPath);
        return all;
    };
    CallDecision decision = routeCall(in, reg ? &reg->busName : nullptr, paths);
    if (decision.route == Route::ToService) {
        if (reg->gate.enter()) {
            auto ctx = std::make_shared<RequestContext>();
            ctx->call = dbus_message_ref(msg);
            ctx->noReply = in.noReply;
            uintptr_t handle = Handles::add(HandleKind::Request, shared_from_this(), ctx);
            reg->onRequest(reinterpret_cast<SVCIPC_tReqContext>(handle), in.member.c_str(),
                           in.text.c_str(), in.noReply ? 1 : 0, reg->token);
            reg->gate.leave();
            return;
        }
        decision = routeCall(in, nullptr, paths);  // unregistered meanwhile
    }
    DBusMessage* reply = buildReply(msg, in, decision);
    if (reply) {
        sendMessage(reply);
        dbus_message_unref(reply);
    }
}

void Connection::deliverSignal(const Incoming& in)
{
    std::vector<std::shared_ptr<Subscription>> targets;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& s : mSubs) {
            bool match = s->ownerWatch
                             ? in.ownerChange && in.ownerName == s->busName
                             : in.hasText && s->path == in.path && s->member == in.member;
            if (match)
                targets.push_back(s);
        }
    }
    for (const auto& s : targets) {
        if (!s->gate.enter())
            continue;
        if (s->ownerWatch)
            s->onOwnerChanged(in.ownerName.c_str(), in.oldOwner.c_str(), in.newOwner.c_str(),
                              s->token);
        else
            s->onSignal(in.member.c_str(), in.text.c_str(), s->token);
        s->gate.leave();
    }
}

void Connection::callResult(const Pending& p, SVCIPC_tError status, const Incoming* in)
{
    if (!p.onResult)
        return;
    SVCIPC_tCallbackStatus st;
    st.errCode = status == 0 ? 0 : static_cast<SVCIPC_tInt32>(SVCIPC_GET_CODE(status));
    st.status = status;
    st.result = in && status == 0 ? in->text.c_str() : "";
    st.errName = in ? in->errName.c_str() : "";
    st.errMsg = in ? in->errMsg.c_str() : "";
    p.onResult(&st, st.result, p.token);
}

void Connection::completeCall(DBusMessage* msg, const Incoming& in)
{
    const SVCIPC_tError status = in.kind == Kind::Reply ? 0 : statusForErrorName(in.errName);
    Pending p;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        auto it = mPending.find(in.replySerial);
        if (it == mPending.end())
            return;  // late, or a reply nobody waits for
        p = it->second;
        mPending.erase(it);
        if (p.waiter) {
            p.waiter->done = true;
            p.waiter->status = status;
            p.waiter->reply = dbus_message_ref(msg);
            mWaitCond.notify_all();
            return;
        }
    }
    callResult(p, status, &in);
}

void Connection::onDisconnected()
{
    if (!mConnected.exchange(false))
        return;
    failPending(SVCIPC_ERR_DISCONNECTED);
}

void Connection::failPending(SVCIPC_tError status)
{
    std::vector<Pending> completions;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (auto& p : mPending) {
            if (p.second.waiter) {
                p.second.waiter->done = true;
                p.second.waiter->status = status;
            } else {
                completions.push_back(p.second);
            }
        }
        mPending.clear();
        mWaitCond.notify_all();
    }
    for (const Pending& p : completions)
        callResult(p, status, nullptr);
}

void Connection::expireTimeouts()
{
    std::vector<Pending> expired;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        const auto now = Clock::now();
        for (auto it = mPending.begin(); it != mPending.end();) {
            if (!it->second.waiter && it->second.deadline <= now) {
                expired.push_back(it->second);
                it = mPending.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const Pending& p : expired)
        callResult(p, SVCIPC_ERR_TIMEOUT, nullptr);
}

int Connection::msUntilNextDeadline()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!mDeferred.empty())
        return 0;
    bool any = false;
    Clock::time_point next;
    for (const auto& p : mPending) {
        if (p.second.waiter)
            continue;  // blocking callers time themselves
        if (!any || p.second.deadline < next)
            next = p.second.deadline;
        any = true;
    }
    if (!any)
        return -1;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    return ms <= 0 ? 0 : static_cast<int>(std::min<long long>(ms + 1, 1 << 30));
}

// ------------------------------------------------------------------------------------------------
// Operations

SVCIPC_tError Connection::sendMessage(DBusMessage* msg)
{
    if (!isConnected())
        return SVCIPC_ERR_DISCONNECTED;
    if (!dbus_connection_send(mConn, msg, nullptr))
        return SVCIPC_ERR_NO_MEMORY;
    if (!(tlsOwner == this && tlsLeading) && dbus_connection_has_messages_to_send(mConn))
        wake();
    return 0;
}

SVCIPC_tError Connection::emit(const char* sigName, const char* data)
{
    std::shared_ptr<Registration> reg;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mRegs.empty())
            return SVCIPC_ERR_NOT_REGISTERED;
        reg = mRegs.front();
    }
    DBusMessage* msg =
        dbus_message_new_signal(reg->objPath.c_str(), reg->busName.c_str(), sigName);
    if (!msg)
        return SVCIPC_ERR_NO_MEMORY;
    SVCIPC_tError status = appendString(msg, data) ? sendMessage(msg) : SVCIPC_ERR_NO_MEMORY;
    dbus_message_unref(msg);
    return status;
}

SVCIPC_tError Connection::callAndWait(DBusMessage* msg, int timeoutMs, DBusMessage** reply,
                                      CallResult& result)
{
    yieldDispatch();
    Waiter waiter;
    std::unique_lock<std::mutex> lock(mMutex);
    if (!isConnected() || mStopping)
        return SVCIPC_ERR_DISCONNECTED;
    dbus_uint32_t serial = 0;
    if (!dbus_connection_send(mConn, msg, &serial))
        return SVCIPC_ERR_NO_MEMORY;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    Pending& p = mPending[serial];
    p.deadline = deadline;
    p.waiter = &waiter;
    if (!(tlsOwner == this && tlsLeading))
        wake();
    if (!mWaitCond.wait_until(lock, deadline, [&] { return waiter.done; })) {
        mPending.erase(serial);
        return SVCIPC_ERR_TIMEOUT;
    }
    lock.unlock();
    if (waiter.status != 0) {
        if (waiter.reply) {
            Incoming in = classify(waiter.reply);
            result.errName = in.errName;
            result.errMsg = in.errMsg;
            dbus_message_unref(waiter.reply);
        }
        return waiter.status;
    }
    if (reply)
        *reply = waiter.reply;
    else
        dbus_message_unref(waiter.reply);
    return 0;
}

SVCIPC_tError Connection::callAsync(DBusMessage* msg, int timeoutMs,
                                    SVCIPC_tResultCallback onResult, void* token)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isConnected() || mStopping)
        return SVCIPC_ERR_DISCONNECTED;
    dbus_uint32_t serial = 0;
    if (!dbus_connection_send(mConn, msg, &serial))
        return SVCIPC_ERR_NO_MEMORY;
    Pending& p = mPending[serial];
    p.deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    p.onResult = onResult;
    p.token = token;
    if (!(tlsOwner == this && tlsLeading))
        wake();  // flush, and let the leader know the new deadline
    return 0;
}

SVCIPC_tError Connection::callBlocking(DBusMessage* msg, int timeoutMs, CallResult& result)
{
    if (!isConnected() || mStopping)
        return SVCIPC_ERR_DISCONNECTED;
    DBusConnection* side = sideConnection();
    if (!side)
        return isConnected() ? SVCIPC_ERR_NO_CONNECTION : SVCIPC_ERR_DISCONNECTED;
    yieldDispatch();
    DBusError err;
    dbus_error_init(&err);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(side, msg, timeoutMs, &err);
    if (!reply) {
        SVCIPC_tError status = SVCIPC_ERR_DISCONNECTED;
        if (dbus_error_is_set(&err)) {
            result.errName = err.name ? err.name : "";
            result.errMsg = err.message ? err.message : "";
            if (dbus_connection_get_is_connected(side))
                status = statusForErrorName(result.errName);
        }
        dbus_error_free(&err);
        return status;
    }
    Incoming in = classify(reply);
    result.text = in.text;
    dbus_message_unref(reply);
    return 0;
}

SVCIPC_tError Connection::addRegistration(const std::shared_ptr<Registration>& reg)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& r : mRegs)
            if (r->objPath == reg->objPath || r->busName == reg->busName)
                return SVCIPC_ERR_ALREADY_REGISTERED;
        mRegs.push_back(reg);  // before the name is ours, so no early call is turned away
    }
    SVCIPC_tError status = SVCIPC_ERR_NO_MEMORY;
    DBusMessage* msg = busCall("RequestName");
    if (msg) {
        const char* name = reg->busName.c_str();
        dbus_uint32_t flags = DBUS_NAME_FLAG_DO_NOT_QUEUE;
        DBusMessage* reply = nullptr;
        CallResult result;
        if (dbus_message_append_args(msg, DBUS_TYPE_STRING, &name, DBUS_TYPE_UINT32, &flags,
                                     DBUS_TYPE_INVALID))
            status = callAndWait(msg, kBusCallTimeoutMs, &reply, result);
        dbus_message_unref(msg);
        if (status != 0) {
            setLastError(result.errName, result.errMsg);
        } else {
            dbus_uint32_t code = 0;
            if (!dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &code,
                                       DBUS_TYPE_INVALID))
                status = SVCIPC_ERR_INTERNAL;
            else if (code != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER
                     && code != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER)
                status = SVCIPC_ERR_NAME_TAKEN;
            dbus_message_unref(reply);
        }
    }
    if (status != 0) {
        std::lock_guard<std::mutex> lock(mMutex);
        mRegs.erase(std::remove(mRegs.begin(), mRegs.end(), reg), mRegs.end());
    }
    return status;
}

SVCIPC_tError Connection::removeRegistration(const std::shared_ptr<Registration>& reg)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mRegs.erase(std::remove(mRegs.begin(), mRegs.end(), reg), mRegs.end());
    }
    reg->gate.close();
    if (!isConnected())
        return SVCIPC_ERR_DISCONNECTED;
    DBusMessage* msg = busCall("ReleaseName");
    if (!msg)
        return SVCIPC_ERR_NO_MEMORY;
    CallResult result;
    SVCIPC_tError status = appendString(msg, reg->busName)
                               ? callAndWait(msg, kBusCallTimeoutMs, nullptr, result)
                               : SVCIPC_ERR_NO_MEMORY;
    dbus_message_unref(msg);
    return status;
}

SVCIPC_tError Connection::addSubscription(const std::shared_ptr<Subscription>& sub)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSubs.push_back(sub);  // before the rule, so nothing the bus sends afterwards is missed
    }
    DBusMessage* msg = busCall("AddMatch");
    SVCIPC_tError status = SVCIPC_ERR_NO_MEMORY;
    CallResult result;
    if (msg && appendString(msg, sub->rule))
        status = callAndWait(msg, kBusCallTimeoutMs, nullptr, result);
    if (msg)
        dbus_message_unref(msg);
    if (status != 0) {
        setLastError(result.errName, result.errMsg);
        std::lock_guard<std::mutex> lock(mMutex);
        mSubs.erase(std::remove(mSubs.begin(), mSubs.end(), sub), mSubs.end());
    }
    return status;
}

void Connection::removeSubscription(const std::shared_ptr<Subscription>& sub)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSubs.erase(std::remove(mSubs.begin(), mSubs.end(), sub), mSubs.end());
    }
    sub->gate.close();
    DBusMessage* msg = busCall("RemoveMatch");
    if (!msg)
        return;
    dbus_message_set_no_reply(msg, TRUE);
    if (appendString(msg, sub->rule))
        sendMessage(msg);
    dbus_message_unref(msg);
}

}  // namespace svcipc
