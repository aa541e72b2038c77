#include "SvcIpcConnection.h"

#include "SvcIpcHandles.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace svcipc
{

namespace
{
// The role this thread plays for a connection (a worker serves one connection all its life).
thread_local Connection* tlsOwner = nullptr;  // the connection this worker serves
thread_local bool tlsDispatching = false;     // ... holds its dispatcher role right now
thread_local bool tlsYielded = false;         // ... gave the role up inside the current callback
thread_local bool tlsReading = false;         // this thread holds some connection's reader role
// Completions asked for by the callback that is running on this dispatcher; they run right after
// it, on this thread, without waking anybody.
thread_local std::vector<Completion>* tlsAfter = nullptr;

// Only reached when callbacks nest blocking calls this deep; beyond it queued work waits until one
// of the callbacks returns.
const int kMaxWorkers = 32;
const int kBusCallTimeoutMs = 25000;
// How long close() keeps flushing what is still queued for the bus.
const std::chrono::milliseconds kFlushBound{100};
const char* const kSystemBusAddress = "unix:path=/var/run/dbus/system_bus_socket";

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

DBusConnection* openBus(const char* address)
{
    DBusError err;
    dbus_error_init(&err);
    DBusConnection* dc = dbus_connection_open_private(address, &err);
    if (!dc) {
        dbus_error_free(&err);
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(dc, FALSE);
    // Blocks in libdbus, but on a connection no other thread knows yet.
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
    return dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, method);
}

// A call of the bus daemon's `method` with one text argument; null when memory ran out.
DBusMessage* busCall(const char* method, const std::string& text)
{
    DBusMessage* msg = busCall(method);
    const char* s = text.c_str();
    if (msg && !dbus_message_append_args(msg, DBUS_TYPE_STRING, &s, DBUS_TYPE_INVALID)) {
        dbus_message_unref(msg);
        msg = nullptr;
    }
    return msg;
}

template <typename T>
void eraseFrom(std::vector<std::shared_ptr<T>>& all, const std::shared_ptr<T>& one)
{
    all.erase(std::remove(all.begin(), all.end(), one), all.end());
}

int msUntil(std::chrono::steady_clock::time_point deadline)
{
    auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return ms <= 0 ? 0 : static_cast<int>(std::min<long long>(ms + 1, 1 << 30));
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

bool CallbackGate::close(std::chrono::milliseconds bound)
{
    std::unique_lock<std::mutex> lock(mMutex);
    mOpen = false;
    const std::thread::id self = std::this_thread::get_id();
    return mCond.wait_for(lock, bound, [&] {
        return std::all_of(mInside.begin(), mInside.end(), [&](const std::thread::id& id) { return id == self; });
    });
}

RequestContext::~RequestContext()
{
    if (call)
        dbus_message_unref(call);
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
    int pollFd = -1;
    int wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (dbus_connection_get_unix_fd(dc, &busFd))
        pollFd = fcntl(busFd, F_DUPFD_CLOEXEC, 0);
    if (pollFd < 0 || wakeFd < 0) {
        if (pollFd >= 0)
            ::close(pollFd);
        if (wakeFd >= 0)
            ::close(wakeFd);
        dbus_connection_close(dc);
        dbus_connection_unref(dc);
        return SVCIPC_ERR_INTERNAL;
    }

    std::shared_ptr<Connection> c(new Connection());
    c->mBusType = busType;
    c->mConn = dc;
    c->mPollFd = pollFd;
    c->mWakeFd = wakeFd;
    c->mConnected = true;
    out = std::move(c);
    return 0;
}

Connection::~Connection()
{
    for (const auto& w : mWorkers)
        if (w->thread.joinable())
            w->thread.detach();
    if (mConn) {
        dbus_connection_close(mConn);
        dbus_connection_unref(mConn);
    }
    if (mPollFd >= 0)
        ::close(mPollFd);
    if (mWakeFd >= 0)
        ::close(mWakeFd);
}

void Connection::close()
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mStopping.exchange(true))
        return;
    failWaitersLocked(SVCIPC_ERR_DISCONNECTED);
    mCond.notify_all();
    wake();

    // Workers leave as soon as their callback (if any) returns; a stuck one is left behind.
    const std::thread::id self = std::this_thread::get_id();
    mCond.wait_for(lock, kCallbackGrace, [&] {
        if (mReading)
            return false;
        return std::all_of(mWorkers.begin(), mWorkers.end(),
                           [&](const auto& w) { return w->exited || w->thread.get_id() == self; });
    });
    std::vector<std::shared_ptr<Worker>> workers;
    workers.swap(mWorkers);
    std::vector<bool> finished;
    for (const auto& w : workers)
        finished.push_back(w->exited && w->thread.get_id() != self);
    const bool readerGone = !mReading;
    mReading = true;  // for good: nobody polls the connection after this
    lock.unlock();

    for (size_t i = 0; i < workers.size(); ++i) {
        if (finished[i])
            workers[i]->thread.join();
        else
            workers[i]->thread.detach();  // ends by itself when its callback returns
    }
    if (readerGone)
        flushForClose();
    dbus_connection_close(mConn);
    (void)shutdown(mPollFd, SHUT_RDWR);  // ENOTCONN when the bus had gone already
    mConnected = false;
}

void Connection::flushForClose()
{
    const auto deadline = Clock::now() + kFlushBound;
    while (dbus_connection_get_is_connected(mConn) && dbus_connection_has_messages_to_send(mConn)) {
        int ms = msUntil(deadline);
        pollfd fd = {mPollFd, POLLOUT, 0};
        if (Clock::now() >= deadline || poll(&fd, 1, ms) <= 0)
            return;
        dbus_connection_read_write(mConn, 0);
    }
}

// ------------------------------------------------------------------------------------------------
// Workers

bool Connection::startWorkerLocked()
{
    auto worker = std::make_shared<Worker>();
    try {
        worker->thread = std::thread([self = shared_from_this(), worker] { self->threadMain(worker); });
    } catch (const std::system_error&) {
        return false;
    }
    mWorkers.push_back(std::move(worker));
    return true;
}

void Connection::needWorkerLocked()
{
    if (mStopping)
        return;
    int live = 0;
    for (const auto& w : mWorkers)
        live += w->exited ? 0 : 1;
    if (live - mYielded <= 0 && live < kMaxWorkers)
        startWorkerLocked();
}

void Connection::pushWorkLocked(Work&& work)
{
    // Whoever was told about the first item in the queue takes the rest as well: one wake-up per
    // batch, not per item.
    const bool first = mWork.empty();
    mWork.push_back(std::move(work));
    if (first)
        announceWorkLocked();
}

void Connection::announceWorkLocked()
{
    if (mDispatching)
        return;  // the dispatcher takes it after its callback
    if (mIdle > 0)
        mCond.notify_all();
    else if (mReading && mReaderIsWorker && !tlsReading)
        wake();
    needWorkerLocked();
}

bool Connection::readerWantedLocked() const
{
    return !mReading && (mIdle > 0 || mRoleWanted > 0);
}

void Connection::threadMain(const std::shared_ptr<Worker>& self)
{
    setUpWorkerThread();
    std::vector<Completion> after;
    tlsOwner = this;
    tlsAfter = &after;

    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStopping) {
        expireLocked();
        if (!mDispatching && !mWork.empty())
            dispatchNextLocked(lock);
        else if (!mReading && isConnected())
            readAsWorkerLocked(lock);
        else
            idleLocked(lock);
    }
    drainForStopLocked(lock);
    self->exited = true;
    mCond.notify_all();
    lock.unlock();
    tlsAfter = nullptr;
    tlsOwner = nullptr;
}

void Connection::setUpWorkerThread()
{
    // Both only label and tune the thread: a refusal (a long name, a policy without priorities)
    // leaves it working as before.
    (void)pthread_setname_np(pthread_self(), "svcipc-dispatch");
    const int prio = requestedPriority();
    if (prio >= 0)
        (void)pthread_setschedprio(pthread_self(), prio);
}

void Connection::dispatchNextLocked(std::unique_lock<std::mutex>& lock)
{
    Work work = std::move(mWork.front());
    mWork.pop_front();
    mDispatching = true;
    tlsDispatching = true;
    const bool offer = readerWantedLocked();
    lock.unlock();
    if (offer)
        mCond.notify_all();  // after unlocking, so that the woken do not block on it
    dispatch(work);
    lock.lock();
    if (tlsYielded) {
        tlsYielded = false;
        --mYielded;
    }
    if (tlsDispatching) {
        tlsDispatching = false;
        mDispatching = false;
        if (!mWork.empty())
            mCond.notify_all();
    }
}

void Connection::readAsWorkerLocked(std::unique_lock<std::mutex>& lock)
{
    mReading = true;
    mReaderIsWorker = true;
    const int timeoutMs = msUntilAsyncDeadlineLocked();
    mReaderDeadline = timeoutMs < 0 ? Clock::time_point::max() : Clock::now() + std::chrono::milliseconds(timeoutMs);
    lock.unlock();
    readOnce(timeoutMs);
    lock.lock();
    mReading = false;
    mReaderIsWorker = false;
    // The worker reads again at once unless there is work; blocked callers get their replies
    // from it meanwhile (measured: cheaper than handing the role over to them and back).
}

void Connection::idleLocked(std::unique_lock<std::mutex>& lock)
{
    if (readerWantedLocked())
        mCond.notify_all();
    ++mIdle;
    const int timeoutMs = msUntilAsyncDeadlineLocked();
    if (timeoutMs < 0)
        mCond.wait(lock);
    else
        mCond.wait_for(lock, std::chrono::milliseconds(timeoutMs));
    --mIdle;
}

void Connection::drainForStopLocked(std::unique_lock<std::mutex>& lock)
{
    // Completions still owed run here, on a worker, whichever leaves first. Calls and signals that
    // were not dispatched are dropped (the bus answers the callers for us).
    failAsyncLocked(SVCIPC_ERR_DISCONNECTED);
    while (!mWork.empty()) {
        Work work = std::move(mWork.front());
        mWork.pop_front();
        lock.unlock();
        if (work.kind == WorkKind::Result || work.kind == WorkKind::Completion)
            dispatch(work);
        else if (work.msg)
            dbus_message_unref(work.msg);
        lock.lock();
    }
}

void Connection::yieldDispatch()
{
    Connection* owner = tlsOwner;
    if (!owner || !tlsDispatching)
        return;
    std::lock_guard<std::mutex> lock(owner->mMutex);
    tlsDispatching = false;
    tlsYielded = true;
    owner->mDispatching = false;
    ++owner->mYielded;
    if (!owner->mWork.empty())
        owner->announceWorkLocked();
}

void Connection::dispatch(Work& work)
{
    switch (work.kind) {
    case WorkKind::Message:
        if (work.in.kind == Kind::MethodCall)
            handleCall(work.msg, work.in, work.reg);
        else
            deliverSignal(work.in);
        break;
    case WorkKind::Result:
        runResult(work.pending, work.status, work.msg ? &work.in : nullptr);
        break;
    case WorkKind::Completion: {
        SVCIPC_tCallbackStatus st = {0, "", 0, "", ""};
        work.completion.onStatus(&st, work.completion.token);
        break;
    }
    case WorkKind::Lost:
        runLost();
        break;
    }
    if (work.msg) {
        dbus_message_unref(work.msg);
        work.msg = nullptr;
    }
    // What the callback asked to be told afterwards; more may be added meanwhile.
    while (tlsAfter && !tlsAfter->empty()) {
        std::vector<Completion> now;
        now.swap(*tlsAfter);
        for (const Completion& c : now) {
            SVCIPC_tCallbackStatus st = {0, "", 0, "", ""};
            c.onStatus(&st, c.token);
        }
    }
}

// ------------------------------------------------------------------------------------------------
// Reading

// Our own non-blocking eventfd fails only with EAGAIN: on a write when the counter is full, which
// wakes the reader just as well; on a read when another reader drained it first.
void Connection::wake()
{
    const uint64_t one = 1;
    const ssize_t n = write(mWakeFd, &one, sizeof one);
    (void)n;
}

void Connection::drainWake()
{
    uint64_t value;
    const ssize_t n = read(mWakeFd, &value, sizeof value);
    (void)n;
}

void Connection::readOnce(int timeoutMs)
{
    tlsReading = true;
    // What libdbus has read already comes first; the descriptor does not show it.
    if (popAll() == 0 && waitForInput(timeoutMs))
        readAndPop();
    tlsReading = false;
}

bool Connection::waitForInput(int timeoutMs)
{
    pollfd fds[2] = {{mWakeFd, POLLIN, 0}, {mPollFd, POLLIN, 0}};
    const nfds_t count = isConnected() ? 2 : 1;
    if (count == 2 && dbus_connection_has_messages_to_send(mConn))
        fds[1].events |= POLLOUT;
    if (poll(fds, count, timeoutMs) <= 0)
        return false;  // time-out, or EINTR: the caller comes back
    if (fds[0].revents & POLLIN)
        drainWake();
    return count == 2 && fds[1].revents != 0;
}

size_t Connection::readAndPop()
{
    dbus_connection_read_write(mConn, 0);
    return popAll();
}

size_t Connection::popAll()
{
    size_t n = 0;
    while (DBusMessage* msg = dbus_connection_pop_message(mConn)) {
        sortIncoming(msg);
        ++n;
    }
    return n;
}

void Connection::sortIncoming(DBusMessage* msg)
{
    Incoming in = classify(msg);
    std::unique_lock<std::mutex> lock(mMutex);
    bool kept = false;
    switch (in.kind) {
    case Kind::Reply:
    case Kind::ErrorReply:
        kept = takeReplyLocked(msg, in, lock);
        break;
    case Kind::Signal:
        kept = queueSignalLocked(msg, in);
        break;
    case Kind::MethodCall:
        kept = routeCallLocked(msg, in, lock);
        break;
    case Kind::Disconnected:
        noteLossLocked();
        break;
    case Kind::Ignore:
        break;
    }
    if (lock.owns_lock())
        lock.unlock();
    if (!kept)
        dbus_message_unref(msg);
}

bool Connection::takeReplyLocked(DBusMessage* msg, const Incoming& in, std::unique_lock<std::mutex>& lock)
{
    const SVCIPC_tError status = in.kind == Kind::Reply ? 0 : SVCIPC_ERR(errorCodeForName(in.errName));
    auto waiter = mWaiters.find(in.replySerial);
    if (waiter != mWaiters.end()) {
        waiter->second->done = true;
        waiter->second->status = status;
        waiter->second->reply = msg;  // the waiter takes our reference
        mWaiters.erase(waiter);
        lock.unlock();
        mCond.notify_all();
        return true;
    }
    auto async = mAsync.find(in.replySerial);
    if (async == mAsync.end())
        return false;  // late, or nobody asked
    Work work;
    work.kind = WorkKind::Result;
    work.msg = msg;
    work.in = in;
    work.pending = async->second;
    work.status = status;
    mAsync.erase(async);
    pushWorkLocked(std::move(work));
    return true;
}

bool Connection::subscribed(const Subscription& s, const Incoming& in)
{
    return s.ownerWatch ? in.ownerChange && s.busName == in.ownerName
                        : in.hasText && s.path == in.path && s.member == in.member;
}

bool Connection::queueSignalLocked(DBusMessage* msg, const Incoming& in)
{
    // The bus matches broadcasts against our rules, which name the sender; a signal aimed at us
    // passes no rule, so only the bus daemon's own count.
    if (dbus_message_get_destination(msg) && !in.ownerChange)
        return false;
    const bool wanted = std::any_of(mSubs.begin(), mSubs.end(), [&](const auto& s) { return subscribed(*s, in); });
    if (!wanted)
        return false;
    Work work;
    work.msg = msg;
    work.in = in;
    pushWorkLocked(std::move(work));
    return true;
}

std::vector<std::string> Connection::registeredPathsLocked() const
{
    std::vector<std::string> all;
    for (const auto& r : mRegs)
        all.push_back(r->objPath);
    return all;
}

bool Connection::routeCallLocked(DBusMessage* msg, const Incoming& in, std::unique_lock<std::mutex>& lock)
{
    std::shared_ptr<Registration> reg;
    for (const auto& r : mRegs)
        if (r->objPath == in.path)
            reg = r;
    const std::string* interfaces = nullptr;
    if (reg && !mDescriptions.empty()) {
        auto d = mDescriptions.find(in.path);
        if (d != mDescriptions.end())
            interfaces = &d->second->xml;
    }
    CallDecision decision = routeCall(in, reg ? &reg->busName : nullptr, interfaces,
                                      [this] { return registeredPathsLocked(); });
    if (decision.route == Route::ToService) {
        Work work;
        work.msg = msg;
        work.in = in;
        work.reg = std::move(reg);
        pushWorkLocked(std::move(work));
        return true;
    }
    lock.unlock();
    answer(msg, in, decision);
    return false;
}

void Connection::answer(DBusMessage* call, const Incoming& in, const CallDecision& decision)
{
    DBusMessage* reply = buildReply(call, in, decision);
    if (reply) {
        sendMessage(reply);
        dbus_message_unref(reply);
    }
}

void Connection::noteLossLocked()
{
    if (!mConnected.exchange(false))
        return;
    // Wakes a poll on the duplicate; ENOTCONN when the bus had closed the socket already.
    (void)shutdown(mPollFd, SHUT_RDWR);
    failWaitersLocked(SVCIPC_ERR_DISCONNECTED);
    failAsyncLocked(SVCIPC_ERR_DISCONNECTED);
    if (!mStopping) {
        mLostOwed = true;
        if (mOnLost) {
            Work work;
            work.kind = WorkKind::Lost;
            pushWorkLocked(std::move(work));
        }
    }
    mCond.notify_all();
}

// ------------------------------------------------------------------------------------------------
// Dispatching

void Connection::handleCall(DBusMessage* msg, const Incoming& in, const std::shared_ptr<Registration>& reg)
{
    // A registration being ended closes its gate before it lets go of its callback.
    if (reg && reg->gate.enter()) {
        auto ctx = std::make_shared<RequestContext>();
        ctx->call = dbus_message_ref(msg);
        ctx->noReply = in.noReply;
        uintptr_t handle = Handles::add(HandleKind::Request, shared_from_this(), ctx);
        reg->onRequest(reinterpret_cast<SVCIPC_tReqContext>(handle), in.member, in.text, in.noReply ? 1 : 0,
                       reg->token);
        reg->gate.leave();
        return;
    }
    // Unregistered since the call was read.
    CallDecision decision = routeCall(in, nullptr, nullptr, [this] {
        std::lock_guard<std::mutex> lock(mMutex);
        return registeredPathsLocked();
    });
    answer(msg, in, decision);
}

void Connection::deliverSignal(const Incoming& in)
{
    std::vector<std::shared_ptr<Subscription>> targets;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& s : mSubs)
            if (subscribed(*s, in))
                targets.push_back(s);
    }
    for (const auto& s : targets) {
        if (!s->gate.enter())
            continue;
        if (s->ownerWatch)
            s->onOwnerChanged(in.ownerName, in.oldOwner, in.newOwner, s->token);
        else
            s->onSignal(in.member, in.text, s->token);
        s->gate.leave();
    }
}

void Connection::runResult(const Pending& p, SVCIPC_tError status, const Incoming* in)
{
    if (!p.onResult)
        return;
    SVCIPC_tCallbackStatus st;
    st.errCode = status == 0 ? 0 : static_cast<SVCIPC_tInt32>(SVCIPC_GET_CODE(status));
    st.status = status;
    st.result = in && status == 0 ? in->text : "";
    st.errName = in ? in->errName : "";
    st.errMsg = in ? in->errMsg : "";
    p.onResult(&st, st.result, p.token);
}

void Connection::runLost()
{
    SVCIPC_tConnectionLostCallback onLost = nullptr;
    void* token = nullptr;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mLostOwed || !mOnLost || mStopping)
            return;
        mLostOwed = false;
        onLost = mOnLost;
        token = mLostToken;
    }
    onLost(token);
}

void Connection::failWaitersLocked(SVCIPC_tError status)
{
    for (auto& w : mWaiters) {
        w.second->done = true;
        w.second->status = status;
    }
    mWaiters.clear();
    mCond.notify_all();
}

void Connection::failAsyncLocked(SVCIPC_tError status)
{
    for (const auto& p : mAsync) {
        Work work;
        work.kind = WorkKind::Result;
        work.pending = p.second;
        work.status = status;
        mWork.push_back(std::move(work));
    }
    if (!mAsync.empty())
        announceWorkLocked();
    mAsync.clear();
}

void Connection::expireLocked()
{
    if (mAsync.empty())
        return;
    const auto now = Clock::now();
    for (auto it = mAsync.begin(); it != mAsync.end();) {
        if (it->second.deadline <= now) {
            Work work;
            work.kind = WorkKind::Result;
            work.pending = it->second;
            work.status = SVCIPC_ERR_TIMEOUT;
            mWork.push_back(std::move(work));
            it = mAsync.erase(it);
        } else {
            ++it;
        }
    }
}

int Connection::msUntilAsyncDeadlineLocked() const
{
    if (mAsync.empty())
        return -1;
    Clock::time_point next = Clock::time_point::max();
    for (const auto& p : mAsync)
        next = std::min(next, p.second.deadline);
    return msUntil(next);
}

// ------------------------------------------------------------------------------------------------
// Operations

void Connection::afterSendLocked()
{
    if (!dbus_connection_get_is_connected(mConn)) {
        wake();  // the reader collects libdbus's note of the loss
        return;
    }
    if (!dbus_connection_has_messages_to_send(mConn))
        return;
    // The socket did not take it all: the reader flushes the rest when the socket drains.
    if (mReading) {
        if (!tlsReading)
            wake();
    } else if (mIdle > 0) {
        mCond.notify_all();
    } else {
        needWorkerLocked();
    }
}

SVCIPC_tError Connection::sendMessage(DBusMessage* msg)
{
    if (!isConnected())
        return SVCIPC_ERR_DISCONNECTED;
    if (!dbus_connection_send(mConn, msg, nullptr))
        return SVCIPC_ERR_NO_MEMORY;
    if (dbus_connection_has_messages_to_send(mConn) || !dbus_connection_get_is_connected(mConn)) {
        std::lock_guard<std::mutex> lock(mMutex);
        afterSendLocked();
    }
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
    DBusMessage* msg = dbus_message_new_signal(reg->objPath.c_str(), reg->busName.c_str(), sigName);
    if (!msg)
        return SVCIPC_ERR_NO_MEMORY;
    SVCIPC_tError status = dbus_message_append_args(msg, DBUS_TYPE_STRING, &data, DBUS_TYPE_INVALID)
                               ? sendMessage(msg)
                               : SVCIPC_ERR_NO_MEMORY;
    dbus_message_unref(msg);
    return status;
}

SVCIPC_tError Connection::call(DBusMessage* msg, int timeoutMs, DBusMessage** reply, CallResult& result)
{
    yieldDispatch();
    Waiter waiter;
    std::unique_lock<std::mutex> lock(mMutex);
    if (!isConnected() || mStopping)
        return SVCIPC_ERR_DISCONNECTED;
    dbus_uint32_t serial = 0;
    if (!dbus_connection_send(mConn, msg, &serial))
        return SVCIPC_ERR_NO_MEMORY;
    mWaiters[serial] = &waiter;
    afterSendLocked();
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    // Read for ourselves whenever nobody else does; else the reader hands the reply over.
    while (!waiter.done && Clock::now() < deadline) {
        if (!mReading && isConnected() && !mStopping) {
            mReading = true;
            lock.unlock();
            readOnce(msUntil(deadline));
            lock.lock();
            mReading = false;
        } else {
            ++mRoleWanted;
            mCond.wait_until(lock, deadline);
            --mRoleWanted;
        }
    }
    const bool offer = readerWantedLocked();
    if (!waiter.done)
        mWaiters.erase(serial);
    lock.unlock();
    if (offer)
        mCond.notify_all();
    if (!waiter.done)
        return SVCIPC_ERR_TIMEOUT;
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

SVCIPC_tError Connection::callAsync(DBusMessage* msg, int timeoutMs, SVCIPC_tResultCallback onResult, void* token)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isConnected() || mStopping)
        return SVCIPC_ERR_DISCONNECTED;
    needWorkerLocked();
    if (mWorkers.empty())
        return SVCIPC_ERR_INTERNAL;  // no thread to complete it on
    dbus_uint32_t serial = 0;
    if (!dbus_connection_send(mConn, msg, &serial))
        return SVCIPC_ERR_NO_MEMORY;
    Pending& p = mAsync[serial];
    p.deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    p.onResult = onResult;
    p.token = token;
    afterSendLocked();
    // Whoever keeps the time-outs must learn an earlier deadline.
    if (mIdle > 0)
        mCond.notify_all();
    if (mReading && mReaderIsWorker && !tlsReading && p.deadline < mReaderDeadline)
        wake();
    return 0;
}

void Connection::complete(SVCIPC_tStatusCallback onStatus, void* token)
{
    if (!onStatus)
        return;
    if (tlsOwner == this && tlsDispatching && tlsAfter) {
        tlsAfter->push_back(Completion{onStatus, token});
        return;
    }
    Work work;
    work.kind = WorkKind::Completion;
    work.completion = Completion{onStatus, token};
    bool wakeReader = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping && mWorkers.empty())
            return;
        const bool first = mWork.empty();
        mWork.push_back(std::move(work));
        // The usual case, a worker waiting for input, is woken after unlocking: it would only
        // block on the lock otherwise.
        wakeReader = first && !mDispatching && mIdle == 0 && mReading && mReaderIsWorker;
        if (first && !wakeReader)
            announceWorkLocked();
    }
    if (wakeReader)
        wake();
}

SVCIPC_tError Connection::addRegistration(const std::shared_ptr<Registration>& reg)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& r : mRegs)
            if (r->objPath == reg->objPath || r->busName == reg->busName)
                return SVCIPC_ERR_ALREADY_REGISTERED;
        mRegs.push_back(reg);  // before the name is ours, so no early call is turned away
        needWorkerLocked();
    }
    SVCIPC_tError status = SVCIPC_ERR_NO_MEMORY;
    DBusMessage* msg = busCall("RequestName");
    if (msg) {
        const char* name = reg->busName.c_str();
        dbus_uint32_t flags = DBUS_NAME_FLAG_DO_NOT_QUEUE;
        DBusMessage* reply = nullptr;
        CallResult result;
        if (dbus_message_append_args(msg, DBUS_TYPE_STRING, &name, DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID))
            status = call(msg, kBusCallTimeoutMs, &reply, result);
        dbus_message_unref(msg);
        if (status != 0) {
            setLastError(result.errName, result.errMsg);
        } else {
            dbus_uint32_t code = 0;
            if (!dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &code, DBUS_TYPE_INVALID))
                status = SVCIPC_ERR_INTERNAL;
            else if (code != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER && code != DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER)
                status = SVCIPC_ERR_NAME_TAKEN;
            dbus_message_unref(reply);
        }
    }
    if (status != 0)
        forget(mRegs, reg);
    return status;
}

template <typename T>
void Connection::forget(std::vector<std::shared_ptr<T>>& all, const std::shared_ptr<T>& one)
{
    std::lock_guard<std::mutex> lock(mMutex);
    eraseFrom(all, one);
}

SVCIPC_tError Connection::callBus(const char* method, const std::string& text)
{
    DBusMessage* msg = busCall(method, text);
    if (!msg)
        return SVCIPC_ERR_NO_MEMORY;
    CallResult result;
    const SVCIPC_tError status = call(msg, kBusCallTimeoutMs, nullptr, result);
    dbus_message_unref(msg);
    if (status != 0)
        setLastError(result.errName, result.errMsg);
    return status;
}

SVCIPC_tError Connection::removeRegistration(const std::shared_ptr<Registration>& reg)
{
    forget(mRegs, reg);
    reg->gate.close(kCallbackGrace);
    if (!isConnected())
        return SVCIPC_ERR_DISCONNECTED;
    return callBus("ReleaseName", reg->busName);
}

SVCIPC_tError Connection::addSubscription(const std::shared_ptr<Subscription>& sub)
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mSubs.push_back(sub);  // before the rule, so nothing the bus sends afterwards is missed
        needWorkerLocked();
    }
    const SVCIPC_tError status = callBus("AddMatch", sub->rule);
    if (status != 0)
        forget(mSubs, sub);
    return status;
}

void Connection::removeSubscription(const std::shared_ptr<Subscription>& sub)
{
    forget(mSubs, sub);
    sub->gate.close(kCallbackGrace);
    DBusMessage* msg = busCall("RemoveMatch", sub->rule);
    if (!msg)
        return;
    dbus_message_set_no_reply(msg, TRUE);
    sendMessage(msg);
    dbus_message_unref(msg);
}

void Connection::setDescription(const char* objPath, std::shared_ptr<const InterfaceDescription> d)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mDescriptions[objPath] = std::move(d);
}

void Connection::answerUnanswered(DBusMessage* call)
{
    std::shared_ptr<const InterfaceDescription> d;
    if (const char* path = dbus_message_get_path(call)) {
        std::lock_guard<std::mutex> lock(mMutex);
        auto it = mDescriptions.find(path);
        if (it != mDescriptions.end())
            d = it->second;
    }
    DBusMessage* reply = buildNoResultReply(call, d && d->hasMethod(dbus_message_get_member(call)));
    if (reply) {
        sendMessage(reply);
        dbus_message_unref(reply);
    }
}

void Connection::setLostCallback(SVCIPC_tConnectionLostCallback onLost, void* token)
{
    std::lock_guard<std::mutex> lock(mMutex);
    mOnLost = onLost;
    mLostToken = token;
    if (!onLost)
        return;
    if (mLostOwed) {
        Work work;
        work.kind = WorkKind::Lost;
        pushWorkLocked(std::move(work));
    } else {
        needWorkerLocked();  // somebody must be reading to notice the loss
    }
}

}  // namespace svcipc
