#include "PeerBus.h"

#include <dbus/dbus.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace
{
const char* const kIntrospectable = "org.freedesktop.DBus.Introspectable";
const char* const kPeerInterface = "org.freedesktop.DBus.Peer";

std::string orEmpty(const char* text)
{
    return text ? text : "";
}

bool isText(const std::string& text)
{
    return dbus_validate_utf8(text.c_str(), nullptr);
}
}

PeerBus::PeerBus(PeerLog& log, CallHandler onCall) : mLog(log), mOnCall(std::move(onCall))
{
    for (auto& joined : mJoined)
        joined.store(false, std::memory_order_relaxed);
}

PeerBus::~PeerBus()
{
    stop();
    if (mThread.joinable())
        mThread.join();
    if (mConnection) {
        dbus_connection_close(mConnection);
        dbus_connection_unref(mConnection);
    }
    for (int fd : mWake)
        if (fd >= 0)
            ::close(fd);
}

bool PeerBus::connect(std::string& error)
{
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr || *address == '\0') {
        error = "DBUS_SESSION_BUS_ADDRESS is not set";
        return false;
    }
    if (::pipe2(mWake, O_CLOEXEC | O_NONBLOCK) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    dbus_threads_init_default();
    DBusError err;
    dbus_error_init(&err);
    mConnection = dbus_connection_open_private(address, &err);
    if (mConnection && !dbus_bus_register(mConnection, &err)) {
        dbus_connection_close(mConnection);
        dbus_connection_unref(mConnection);
        mConnection = nullptr;
    }
    if (!mConnection) {
        error = std::string("cannot reach the bus at ") + address + ": " + orEmpty(err.message);
        dbus_error_free(&err);
        return false;
    }
    dbus_connection_set_exit_on_disconnect(mConnection, FALSE);
    mLog.note(std::string("connected to ") + address + " as " + dbus_bus_get_unique_name(mConnection));
    return true;
}

bool PeerBus::join(Peer peer)
{
    bool joined = false;
    if (!onLoop([&] { joined = joinNow(peer); }))
        return false;
    return joined;
}

void PeerBus::leave(Peer peer)
{
    onLoop([=] { leaveNow(peer); });
}

void PeerBus::emit(const PeerSignal& signal)
{
    onLoop([&] { emitNow(signal); });
}

bool PeerBus::start()
{
    if (!mConnection)
        return false;
    std::lock_guard<std::mutex> lock(mMutex);
    mLoopStarted = true;
    mThread = std::thread([this] { loop(); });
    return true;
}

void PeerBus::stop()
{
    mStop.store(true, std::memory_order_relaxed);
    if (mWake[1] >= 0) {
        char c = 's';
        ssize_t ignored = ::write(mWake[1], &c, 1);
        (void)ignored;
    }
}

int PeerBus::wait()
{
    if (mThread.joinable())
        mThread.join();
    return mConnectionLost ? 1 : 0;
}

// Runs `task` on the loop and waits for it; before start() it runs here and now. False when the
// loop has ended (or no connection was made) and the task was not run.
bool PeerBus::onLoop(const std::function<void()>& task)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mLoopEnded || !mConnection)
        return false;
    if (!mLoopStarted) {
        task();
        return true;
    }
    mTasks.push_back(task);
    const unsigned long ticket = ++mPosted;
    char c = 't';
    ssize_t ignored = ::write(mWake[1], &c, 1);
    (void)ignored;
    mDone.wait(lock, [&] { return mFinished >= ticket || mLoopEnded; });
    return mFinished >= ticket;
}

void PeerBus::runTasks()
{
    for (;;) {
        std::function<void()> task;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            if (mTasks.empty())
                return;
            task = std::move(mTasks.front());
            mTasks.pop_front();
        }
        task();
        std::lock_guard<std::mutex> lock(mMutex);
        ++mFinished;
        mDone.notify_all();
    }
}

void PeerBus::runTimers()
{
    while (!mTimers.empty() && mTimers.begin()->first <= Clock::now()) {
        std::function<void()> due = std::move(mTimers.begin()->second);
        mTimers.erase(mTimers.begin());
        due();
    }
}

int PeerBus::nextTimeoutMs() const
{
    if (mTimers.empty())
        return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(mTimers.begin()->first - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left) + 1;
}

// libdbus is only called when there is work, never while this thread blocks in poll(), so a
// blocking call made here (requesting a name) cannot stall on the connection's I/O lock.
void PeerBus::loop()
{
    int fd = -1;
    dbus_connection_get_unix_fd(mConnection, &fd);
    while (!mStop.load(std::memory_order_relaxed)) {
        runTasks();
        runTimers();
        if (!dbus_connection_read_write(mConnection, 0)) {
            mConnectionLost = true;
            break;
        }
        while (DBusMessage* message = dbus_connection_pop_message(mConnection)) {
            handle(message);
            dbus_message_unref(message);
        }
        dbus_connection_flush(mConnection);
        if (!dbus_connection_get_is_connected(mConnection)) {
            mConnectionLost = true;
            break;
        }
        pollfd fds[2] = {{mWake[0], POLLIN, 0}, {fd, POLLIN, 0}};
        if (::poll(fds, 2, nextTimeoutMs()) < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN) {
            char drain[64];
            while (::read(mWake[0], drain, sizeof(drain)) > 0) {
            }
        }
    }
    if (mConnectionLost)
        mLog.note("the bus connection was lost");
    // Delayed answers still due are dropped with the loop; their callers time out.
    mTimers.clear();
    std::lock_guard<std::mutex> lock(mMutex);
    mLoopEnded = true;
    mTasks.clear();
    mDone.notify_all();
}

void PeerBus::handle(DBusMessage* message)
{
    if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        mConnectionLost = true;
        mStop.store(true, std::memory_order_relaxed);
        return;
    }
    if (dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameLost")) {
        const char* name = nullptr;
        if (dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) {
            Peer peer;
            if (findPeer(name, peer) && isJoined(peer)) {
                mJoined[static_cast<int>(peer)].store(false, std::memory_order_relaxed);
                mLog.note(std::string(peerName(peer)) + " lost its bus name " + name);
            }
        }
        return;
    }
    if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL)
        handleCall(message);
}

void PeerBus::handleCall(DBusMessage* call)
{
    const std::string path = orEmpty(dbus_message_get_path(call));
    const std::string interface = orEmpty(dbus_message_get_interface(call));
    const std::string member = orEmpty(dbus_message_get_member(call));
    const std::string signature = orEmpty(dbus_message_get_signature(call));
    auto refuse = [&](const char* name, const std::string& text) {
        if (dbus_message_get_no_reply(call))
            return;
        DBusMessage* error = dbus_message_new_error(call, name, text.c_str());
        if (error) {
            send(error);
            dbus_message_unref(error);
        }
    };

    Peer peer;
    if (!findPeerByPath(path, peer) || !isJoined(peer)) {
        refuse(DBUS_ERROR_UNKNOWN_OBJECT, "No such object path '" + path + "'");
        return;
    }
    if (interface == kPeerInterface && member == "Ping") {
        DBusMessage* pong = dbus_message_new_method_return(call);
        if (pong) {
            send(pong);
            dbus_message_unref(pong);
        }
        return;
    }
    if (interface == kIntrospectable || interface == kPeerInterface) {
        refuse(DBUS_ERROR_UNKNOWN_METHOD, "Unknown method '" + member + "' of interface " + interface);
        return;
    }
    if (!interface.empty() && interface != peerBusName(peer)) {
        refuse(DBUS_ERROR_UNKNOWN_INTERFACE, "No such interface '" + interface + "' at object path '" + path + "'");
        return;
    }
    const char* text = "";
    if (!signature.empty() &&
        !(signature == "s" && dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID))) {
        refuse(DBUS_ERROR_INVALID_ARGS,
               "Call to '" + member + "' has wrong args (expected \"s\", got \"" + signature + "\")");
        return;
    }
    const std::string params = text;
    const bool noReply = dbus_message_get_no_reply(call);
    mLog.line(std::string("CALL ") + peerName(peer) + "." + member + (params.empty() ? "" : " " + params) +
              (noReply ? " (no reply expected)" : ""));
    PeerAnswer a = mOnCall(peer, member, params);
    if (a.delayMs <= 0) {
        answer(call, peer, member, a);
        return;
    }
    dbus_message_ref(call);
    mTimers.emplace(Clock::now() + std::chrono::milliseconds(a.delayMs), [this, call, peer, member, a] {
        answer(call, peer, member, a);
        dbus_message_unref(call);
    });
}

void PeerBus::answer(DBusMessage* call, Peer peer, const std::string& method, const PeerAnswer& a)
{
    const std::string what = std::string(peerName(peer)) + "." + method;
    const bool noReply = dbus_message_get_no_reply(call);
    if (a.kind == PeerAnswer::NONE) {
        mLog.line("NO ANSWER " + what);
    } else if (noReply) {
        // The caller is not listening; the work and the signals still happen.
    } else if (a.kind == PeerAnswer::REPLY && !isText(a.text)) {
        mLog.note("reply to " + what + " is not UTF-8 and cannot be sent; no answer");
    } else if (a.kind == PeerAnswer::REPLY) {
        sendText(dbus_message_new_method_return(call), a.text, "REPLY " + what + " " + a.text);
    } else {
        const std::string message = isText(a.errorMessage) ? a.errorMessage : std::string("failed");
        DBusMessage* error = dbus_message_new_error(call, a.errorName.c_str(), message.c_str());
        if (error) {
            send(error);
            dbus_message_unref(error);
            mLog.line("ERROR " + what + " " + a.errorName + ": " + message);
        }
    }
    for (const PeerSignal& s : a.signals)
        emitNow(s);
}

void PeerBus::sendText(DBusMessage* message, const std::string& text, const std::string& logLine)
{
    std::unique_ptr<DBusMessage, void (*)(DBusMessage*)> owned(message, dbus_message_unref);
    const char* chars = text.c_str();
    if (owned && dbus_message_append_args(message, DBUS_TYPE_STRING, &chars, DBUS_TYPE_INVALID)) {
        send(message);
        mLog.line(logLine);
    }
}

void PeerBus::send(DBusMessage* message)
{
    if (!dbus_connection_send(mConnection, message, nullptr))
        mLog.note("out of memory sending a message");
}

bool PeerBus::joinNow(Peer peer)
{
    const std::string name = peerBusName(peer);
    DBusError err;
    dbus_error_init(&err);
    int rc = dbus_bus_request_name(mConnection, name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, &err);
    if (rc == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER || rc == DBUS_REQUEST_NAME_REPLY_ALREADY_OWNER) {
        mJoined[static_cast<int>(peer)].store(true, std::memory_order_relaxed);
        mLog.note(std::string(peerName(peer)) + " is on the bus as " + name);
        return true;
    }
    if (rc == DBUS_REQUEST_NAME_REPLY_EXISTS)
        mLog.note("error: " + name + " is owned by another connection");
    else
        mLog.note("error: cannot request " + name + ": " + orEmpty(err.message));
    dbus_error_free(&err);
    return false;
}

void PeerBus::leaveNow(Peer peer)
{
    const std::string name = peerBusName(peer);
    mJoined[static_cast<int>(peer)].store(false, std::memory_order_relaxed);
    DBusError err;
    dbus_error_init(&err);
    int rc = dbus_bus_release_name(mConnection, name.c_str(), &err);
    if (rc == DBUS_RELEASE_NAME_REPLY_RELEASED)
        mLog.note(std::string(peerName(peer)) + " left the bus");
    else if (rc == DBUS_RELEASE_NAME_REPLY_NOT_OWNER || rc == DBUS_RELEASE_NAME_REPLY_NON_EXISTENT)
        mLog.note(std::string(peerName(peer)) + " was not on the bus");
    else
        mLog.note("error: cannot release " + name + ": " + orEmpty(err.message));
    dbus_error_free(&err);
}

void PeerBus::emitNow(const PeerSignal& s)
{
    const std::string what = std::string(peerName(s.peer)) + "." + s.name;
    if (!isJoined(s.peer)) {
        mLog.note(std::string(peerName(s.peer)) + " is not on the bus; " + s.name + " not sent");
        return;
    }
    if (!isText(s.payload)) {
        mLog.note("payload of " + what + " is not UTF-8; not sent");
        return;
    }
    const std::string path = peerObjectPath(s.peer), interface = peerBusName(s.peer);
    sendText(dbus_message_new_signal(path.c_str(), interface.c_str(), s.name.c_str()), s.payload,
             "SIGNAL " + what + " " + s.payload);
}
