// The service-IPC library against a real, private dbus-daemon: services, calls, signals, owner
// watches, threads, and a bus that dies. Raw libdbus peers check the wire form from outside.
#include "PrivateBus.h"
#include "TestService.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace
{
const char* const kName = "com.quorin.service.Test";
const char* const kPath = "/com/quorin/service/Test";

const auto onSignal = &CallbackLog::onSignal;
const auto onOwner = &CallbackLog::onOwner;

void onResult(const SVCIPC_tCallbackStatus* st, const char* result, SVCIPC_tUserToken token)
{
    static_cast<CallbackLog*>(token)->add(std::to_string(st->errCode) + ":" + result + ":" + st->errName);
}

// A plain libdbus peer, to see the library from outside.
struct RawPeer
{
    DBusConnection* conn = nullptr;
    std::thread server;
    std::atomic<bool> stopServing{false};
    CallbackLog seen;  // "<member> <sender>" of every call and signal received while serving

    explicit RawPeer(const std::string& address)
    {
        conn = dbus_connection_open_private(address.c_str(), nullptr);
        if (conn && !dbus_bus_register(conn, nullptr)) {
            dbus_connection_close(conn);
            dbus_connection_unref(conn);
            conn = nullptr;
        }
    }
    ~RawPeer()
    {
        stopServing = true;
        if (server.joinable())
            server.join();
        if (conn) {
            dbus_connection_close(conn);
            dbus_connection_unref(conn);
        }
    }
    // Sends `msg` and returns "reply:<first string>" or "error:<name>".
    std::string call(DBusMessage* msg, int timeoutMs = 3000)
    {
        DBusError err;
        dbus_error_init(&err);
        DBusMessage* reply = dbus_connection_send_with_reply_and_block(conn, msg, timeoutMs, &err);
        dbus_message_unref(msg);
        if (!reply) {
            std::string out = std::string("error:") + (err.name ? err.name : "?");
            dbus_error_free(&err);
            return out;
        }
        const char* s = "";
        dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &s, DBUS_TYPE_INVALID);  // "" when none
        std::string out = std::string("reply:") + s;
        dbus_message_unref(reply);
        return out;
    }
    std::string ownerOf(const char* name)
    {
        DBusMessage* ask = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                                        "GetNameOwner");
        dbus_message_append_args(ask, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
        std::string answer = call(ask);
        return answer.compare(0, 6, "reply:") == 0 ? answer.substr(6) : answer;
    }
    // Sends a broadcast signal, or one aimed at `destination`, whose argument is `text` (or an
    // integer when `text` is null).
    void signal(const char* path, const char* member, const char* text, const char* destination = nullptr)
    {
        DBusMessage* sig = dbus_message_new_signal(path, "com.quorin.test.Any", member);
        dbus_int32_t number = 3;
        if (text)
            dbus_message_append_args(sig, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        else
            dbus_message_append_args(sig, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
        if (destination)
            dbus_message_set_destination(sig, destination);
        dbus_connection_send(conn, sig, nullptr);
        dbus_message_unref(sig);
        dbus_connection_flush(conn);
    }
    // From now on a thread of its own owns the connection: it answers every call with "raw" and
    // notes who sent what. Names and match rules must be in place before.
    void serve()
    {
        server = std::thread([this] {
            while (!stopServing) {
                dbus_connection_read_write(conn, 50);
                while (DBusMessage* m = dbus_connection_pop_message(conn)) {
                    const char* iface = dbus_message_get_interface(m);
                    if (!iface || std::string(iface) != DBUS_INTERFACE_DBUS)
                        seen.add(std::string(dbus_message_get_member(m) ? dbus_message_get_member(m) : "") + " " +
                                 dbus_message_get_sender(m));
                    if (dbus_message_get_type(m) == DBUS_MESSAGE_TYPE_METHOD_CALL && !dbus_message_get_no_reply(m)) {
                        DBusMessage* r = dbus_message_new_method_return(m);
                        const char* text = "raw";
                        dbus_message_append_args(r, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
                        dbus_connection_send(conn, r, nullptr);
                        dbus_message_unref(r);
                    }
                    dbus_message_unref(m);
                }
            }
        });
    }
};

class SvcIpc : public ::testing::Test
{
protected:
    PrivateBus bus;
    SVCIPC_tConnection conn = nullptr;

    void SetUp() override
    {
        ASSERT_TRUE(bus.start()) << bus.error();
        bus.exportAddress();
        ASSERT_EQ(0, SVCIPC_initialize());
        ASSERT_EQ(0, SVCIPC_getConnection(0, 0, &conn));
    }
    void TearDown() override { SVCIPC_shutdown(); }

    SVCIPC_tConnection privateConnection()
    {
        SVCIPC_tConnection c = nullptr;
        EXPECT_EQ(0, SVCIPC_getConnection(0, 1, &c));
        return c;
    }
    std::string invoke(SVCIPC_tConnection c, const char* method, const char* parms, SVCIPC_tError* status = nullptr,
                       unsigned timeoutMs = 3000, const char* name = kName, const char* path = kPath)
    {
        SVCIPC_tResponse* resp = nullptr;
        SVCIPC_tError st = SVCIPC_invoke(c, name, path, method, parms, 0, timeoutMs, &resp);
        if (status)
            *status = st;
        if (st != 0)
            return "<" + std::string(SVCIPC_errorText(st)) + ">";
        std::string out = resp->result;
        EXPECT_EQ(0, SVCIPC_freeResponse(resp));
        return out;
    }
};

TEST_F(SvcIpc, MethodCallsReachTheServiceAndResultsComeBack)
{
    TestService svc;
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    SVCIPC_tConnection client = privateConnection();
    const auto before = threads();

    EXPECT_EQ("echo:{\"a\":1}", invoke(client, "doIt", "{\"a\":1}"));
    EXPECT_EQ("echo:", invoke(client, "doIt", nullptr));
    EXPECT_EQ(before, threads());  // blocking calls alone start no library thread

    // Asynchronous form: completion on a library thread, not on the caller's.
    CallbackLog log;
    ASSERT_EQ(0, SVCIPC_asyncInvoke(client, kName, kPath, "later", "x", 0, 3000, &onResult, &log));
    ASSERT_TRUE(log.waitFor(1));
    EXPECT_EQ("0:echo:x:", log.snapshot()[0]);
    EXPECT_NE(std::this_thread::get_id(), log.threads[0]);

    // No-reply form: delivered with the flag, nothing comes back.
    ASSERT_EQ(0, SVCIPC_invoke(client, kName, kPath, "fire", "f", 1, 0, nullptr));
    ASSERT_TRUE(svc.log.waitFor(4));
    EXPECT_EQ("fire(f) noreply", svc.log.snapshot()[3]);

    // From outside: no arguments, and no interface at all, are both accepted.
    RawPeer raw(bus.address());
    ASSERT_NE(nullptr, raw.conn);
    EXPECT_EQ("reply:echo:", raw.call(dbus_message_new_method_call(kName, kPath, kName, "bare")));
    DBusMessage* noIface = dbus_message_new_method_call(kName, kPath, nullptr, "noIface");
    const char* arg = "t";
    dbus_message_append_args(noIface, DBUS_TYPE_STRING, &arg, DBUS_TYPE_INVALID);
    EXPECT_EQ("reply:echo:t", raw.call(noIface));
    EXPECT_NE(std::this_thread::get_id(), svc.log.threads[0]);
}

// A call left without a result is answered at once by whether its method is described: NoResult
// (Radio.PresetsAreStoredInMemorySelectedByFrameAndCleared, cbradioctl's "presets clear") or
// UnknownMethod (Radio.VersionsComeFromTheV850AndFallThroughToTheRadioMethods).
TEST_F(SvcIpc, IntrospectionAndWrongShapesFollowTheDescription)
{
    const char* const description =
        "<?xml version=\"1.0\"?>\n"
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
        "<node>\n"
        "  <!-- the test service -->\n"
        "  <interface name=\"com.quorin.service.Test\">\n"
        "    <method name=\"described\">\n"
        "      <annotation name=\"org.freedesktop.DBus.Description\" value=\"Says &quot;no&quot;.\"/>\n"
        "      <arg name=\"parms\" type=\"s\" direction=\"in\"/>\n"
        "      <arg name=\"result\" type=\"s\" direction=\"out\"/>\n"
        "    </method>\n"
        "    <signal name=\"changed\"><arg type=\"s\"/></signal>\n"
        "  </interface>\n"
        "  <node name=\"child\"/>\n"
        "</node>\n";
    for (const char* bad :
         {"", "<node>", "<interface name=\"a.b\"><method name=\"m\"></interface>",
          "<node><interface name=\"nodot\"/></node>", "<!DOCTYPE x [<!ENTITY e \"boom\">]><interface name=\"a.b\"/>",
          "<interface name=\"a.b\" doc=\"&bad\"/>"})
        EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_setInterfaceDescription(conn, kPath, bad)) << bad;
    ASSERT_EQ(0, SVCIPC_setInterfaceDescription(conn, kPath, description));
    TestService svc;
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    RawPeer raw(bus.address());
    auto introspect = [&](const char* path) {
        return raw.call(dbus_message_new_method_call(kName, path, "org.freedesktop.DBus.Introspectable", "Introspect"));
    };

    std::string xml = introspect(kPath);
    EXPECT_EQ(0u, xml.find("reply:<!DOCTYPE node"));
    for (const char* part :
         {"<interface name=\"org.freedesktop.DBus.Introspectable\">", "<interface name=\"org.freedesktop.DBus.Peer\">",
          "<method name=\"described\">", "<signal name=\"changed\">", "value=\"Says &quot;no&quot;.\""})
        EXPECT_NE(std::string::npos, xml.find(part)) << part;
    EXPECT_EQ(std::string::npos, xml.find("child"));
    // What the library serves is a valid description in turn.
    EXPECT_EQ(0, SVCIPC_setInterfaceDescription(conn, "/elsewhere", xml.substr(6).c_str()));
    EXPECT_NE(std::string::npos, introspect("/com").find("<node name=\"quorin\"/>"));
    EXPECT_EQ("reply:", raw.call(dbus_message_new_method_call(kName, kPath, "org.freedesktop.DBus.Peer", "Ping")));

    // Calls of the wrong shape are refused before the callback.
    dbus_int32_t i = 5;
    const char* a = "a";
    DBusMessage* withInt = dbus_message_new_method_call(kName, kPath, kName, "m");
    dbus_message_append_args(withInt, DBUS_TYPE_INT32, &i, DBUS_TYPE_INVALID);
    DBusMessage* twoStrings = dbus_message_new_method_call(kName, kPath, kName, "m");
    dbus_message_append_args(twoStrings, DBUS_TYPE_STRING, &a, DBUS_TYPE_STRING, &a, DBUS_TYPE_INVALID);
    EXPECT_EQ("error:org.freedesktop.DBus.Error.InvalidArgs", raw.call(withInt));
    EXPECT_EQ("error:org.freedesktop.DBus.Error.InvalidArgs", raw.call(twoStrings));
    EXPECT_EQ("error:org.freedesktop.DBus.Error.UnknownInterface",
              raw.call(dbus_message_new_method_call(kName, kPath, "other.Iface", "m")));
    EXPECT_TRUE(svc.log.snapshot().empty());
}

TEST_F(SvcIpc, NameOwnedElsewhereOrTwiceIsRefusedAndOwnerChangesAreTold)
{
    CallbackLog owners;
    SVCIPC_tSigSubHnd watch = nullptr;
    ASSERT_EQ(0, SVCIPC_subscribeOwnerChanged(conn, kName, onOwner, &owners, &watch));
    TestService first, second;
    ASSERT_EQ(0, first.registerOn(conn, kName, kPath));
    SVCIPC_tConnection other = privateConnection();
    EXPECT_EQ(SVCIPC_ERR_NAME_TAKEN, second.registerOn(other, kName, kPath));
    EXPECT_EQ(nullptr, second.reg);
    EXPECT_EQ(SVCIPC_ERR_ALREADY_REGISTERED, second.registerOn(conn, "com.quorin.service.X", kPath));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, second.registerOn(other, ":1.5", kPath));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, second.registerOn(other, kName, "no/slash"));

    // Once released, the name is free for the other connection at once.
    ASSERT_EQ(0, SVCIPC_unregisterService(first.reg));
    ASSERT_EQ(0, second.registerOn(other, kName, kPath));
    EXPECT_EQ("echo:z", invoke(conn, "m", "z"));
    EXPECT_EQ(1u, second.log.snapshot().size());

    // Came, went and came again, each owner by its unique name.
    ASSERT_TRUE(owners.waitFor(3));
    const std::vector<std::string> seen = owners.snapshot();
    const std::string one = seen[0].substr(seen[0].rfind('|') + 1);
    EXPECT_EQ(std::string(kName) + "||" + one, seen[0]);
    EXPECT_EQ(':', one[0]);
    EXPECT_EQ(std::string(kName) + "|" + one + "|", seen[1]);
    EXPECT_EQ(0u, seen[2].find(std::string(kName) + "||:"));
    EXPECT_NE(seen[0], seen[2]);
    EXPECT_EQ(0, SVCIPC_unsubscribe(watch));
}

// The blocking form's failures (no service, time-out, a remote error and its name) are met through
// cbradioctl's exit codes and peersim's slow read-out; here the asynchronous form's completions.
TEST_F(SvcIpc, AsynchronousCallsCompleteWithTimeOutsAndNamedRemoteErrors)
{
    TestService svc;
    svc.hold = true;  // no result: the caller must run into its time-out
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    SVCIPC_tConnection client = privateConnection();
    CallbackLog log;
    ASSERT_EQ(0, SVCIPC_asyncInvoke(client, kName, kPath, "silent", "", 0, 300, &onResult, &log));
    ASSERT_EQ(0, SVCIPC_asyncInvoke(client, kName, "/not/served", "m", "", 0, 1000, &onResult, &log));
    ASSERT_TRUE(log.waitFor(2, 3000ms));
    std::vector<std::string> seen = log.snapshot(), expected = {std::to_string(SVCIPC_ERROR_REMOTE) +
                                                                    "::org.freedesktop.DBus.Error.UnknownObject",
                                                                std::to_string(SVCIPC_ERROR_TIMEOUT) + "::"};
    std::sort(seen.begin(), seen.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, seen);
}

TEST_F(SvcIpc, SignalsComeFromTheOwnerOnlyUntilUnsubscribed)
{
    EXPECT_EQ(SVCIPC_ERR_NOT_REGISTERED, SVCIPC_asyncEmit(conn, "s", "", nullptr, nullptr));
    TestService subscriber, emitting;
    ASSERT_EQ(0, subscriber.registerOn(conn, kName, kPath));
    const char* const emitterPath = "/com/quorin/service/Emitter";
    SVCIPC_tConnection emitter = privateConnection();
    ASSERT_EQ(0, emitting.registerOn(emitter, "com.quorin.service.Emitter", emitterPath));
    RawPeer raw(bus.address()), spoofer(bus.address());
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER,
              dbus_bus_request_name(raw.conn, "com.quorin.test.Raw", 0, nullptr));

    CallbackLog log, marker;
    SVCIPC_tSigSubHnd sub = nullptr, rawSub = nullptr, mark = nullptr;
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_subscribe(conn, "/nodots", "status", onSignal, &log, &sub));
    ASSERT_EQ(0, SVCIPC_subscribe(conn, emitterPath, "status", onSignal, &log, &sub));
    ASSERT_EQ(0, SVCIPC_subscribe(conn, "/com/quorin/test/Raw", "status", onSignal, &log, &rawSub));
    ASSERT_EQ(0, SVCIPC_subscribe(conn, emitterPath, "marker", onSignal, &marker, &mark));

    // Others posing as the emitter, broadcasting or aiming at the subscriber, are not heard; the
    // owner is, unless the first argument is not a string. (A call to the subscriber after each
    // peer's signals proves they were read before the emitter's marker.)
    auto ping = [](RawPeer& peer) {
        return peer.call(dbus_message_new_method_call(kName, kPath, "org.freedesktop.DBus.Peer", "Ping"));
    };
    spoofer.signal(emitterPath, "status", "spoofed");
    spoofer.signal(emitterPath, "status", "aimed", raw.ownerOf(kName).c_str());
    ASSERT_EQ("reply:", ping(spoofer));
    raw.signal("/com/quorin/test/Raw", "status", nullptr);
    raw.signal("/com/quorin/test/Raw", "status", "raw");
    ASSERT_EQ("reply:", ping(raw));
    ASSERT_EQ(0, SVCIPC_asyncEmit(emitter, "status", "{\"on\":1}", nullptr, nullptr));
    ASSERT_EQ(0, SVCIPC_asyncEmit(emitter, "other", "x", nullptr, nullptr));
    ASSERT_EQ(0, SVCIPC_asyncEmit(emitter, "marker", "1", nullptr, nullptr));
    ASSERT_TRUE(marker.waitFor(1));
    EXPECT_EQ((std::vector<std::string>{"status=raw", "status={\"on\":1}"}), log.snapshot());

    ASSERT_EQ(0, SVCIPC_unsubscribe(sub));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_unsubscribe(sub));
    ASSERT_EQ(0, SVCIPC_asyncEmit(emitter, "status", "after", nullptr, nullptr));
    ASSERT_EQ(0, SVCIPC_asyncEmit(emitter, "marker", "2", nullptr, nullptr));
    ASSERT_TRUE(marker.waitFor(2));
    EXPECT_EQ(2u, log.snapshot().size());
}

TEST_F(SvcIpc, BlockingCallsFromCallbacksDoNotDeadlock)
{
    // Both services live on the same shared connection: the inner call can only be answered if
    // the library keeps dispatching while the outer callback blocks. Subscribing and asking for
    // an owner from the callback need the bus as well.
    static const char* const kInner = "/com/quorin/service/Inner";
    TestService inner, outer;
    CallbackLog nested;
    outer.onRequest = [&](SVCIPC_tReqContext ctx, const std::string&, const std::string& parms) {
        SVCIPC_tResponse* resp = nullptr;
        SVCIPC_tError st = SVCIPC_invoke(conn, "com.quorin.service.Inner", kInner, "m", parms.c_str(), 0, 3000, &resp);
        std::string text = st == 0 ? std::string("outer+") + resp->result : "failed";
        if (resp)
            SVCIPC_freeResponse(resp);
        SVCIPC_tSigSubHnd sub = nullptr;
        SVCIPC_tBool owned = 0;
        if (SVCIPC_subscribe(conn, kInner, "s", onSignal, &nested, &sub) != 0 ||
            SVCIPC_nameHasOwner(conn, kName, &owned, 0) != 0 || !owned)
            text = "failed";
        TestService::reply(ctx, text);
    };
    ASSERT_EQ(0, inner.registerOn(conn, "com.quorin.service.Inner", kInner));
    ASSERT_EQ(0, outer.registerOn(conn, kName, kPath));
    EXPECT_EQ("outer+echo:q", invoke(privateConnection(), "m", "q"));
    // Signals of this connection come from its earliest registration, Inner.
    ASSERT_EQ(0, SVCIPC_asyncEmit(conn, "s", "ok", nullptr, nullptr));
    EXPECT_TRUE(nested.waitFor(1));
}

TEST_F(SvcIpc, PeersSeeOneSenderForCallsSignalsAndTheName)
{
    const char* const rawName = "com.quorin.test.Raw";
    TestService svc;
    svc.onRequest = [&](SVCIPC_tReqContext ctx, const std::string&, const std::string&) {
        TestService::reply(ctx, invoke(conn, "fromCallback", "", nullptr, 3000, rawName, "/raw"));
    };
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    RawPeer raw(bus.address());
    ASSERT_NE(nullptr, raw.conn);
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, dbus_bus_request_name(raw.conn, rawName, 0, nullptr));
    dbus_bus_add_match(raw.conn, "type='signal',path='/com/quorin/service/Test'", nullptr);
    const std::string owner = raw.ownerOf(kName);
    ASSERT_EQ(':', owner[0]);
    raw.serve();

    EXPECT_EQ("raw", invoke(conn, "fromTest", "", nullptr, 3000, rawName, "/raw"));
    std::thread([&] { invoke(conn, "fromThread", "", nullptr, 3000, rawName, "/raw"); }).join();
    ASSERT_EQ(0, SVCIPC_asyncInvoke(conn, rawName, "/raw", "async", "", 0, 3000, nullptr, nullptr));
    ASSERT_EQ(0, SVCIPC_asyncEmit(conn, "signal", "", nullptr, nullptr));
    EXPECT_EQ("raw", invoke(privateConnection(), "m", ""));
    ASSERT_TRUE(raw.seen.waitFor(5));
    for (const std::string& line : raw.seen.snapshot())
        EXPECT_EQ(owner, line.substr(line.find(' ') + 1)) << line;
}

TEST_F(SvcIpc, AStuckCallbackBlocksNeitherCallsNorTheStop)
{
    // The only dispatch thread of `conn` hangs in a request callback, as in a device write.
    std::mutex mutex;
    std::condition_variable cond;
    bool release = false;
    std::atomic<int> finished{0};
    TestService svc;
    svc.onRequest = [&](SVCIPC_tReqContext ctx, const std::string&, const std::string&) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            cond.wait_for(lock, 10s, [&] { return release; });
        }
        SVCIPC_asyncReturnResult(ctx, "late", nullptr, nullptr);  // the handle may be stale
        SVCIPC_freeReqContext(ctx);
        ++finished;
    };
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    TestService other;
    ASSERT_EQ(0, other.registerOn(privateConnection(), "com.quorin.service.Other", "/other"));
    SVCIPC_tConnection client = privateConnection();
    ASSERT_EQ(0, SVCIPC_asyncInvoke(client, kName, kPath, "hang", "", 0, 20000, nullptr, nullptr));
    ASSERT_TRUE(svc.log.waitFor(1));

    // The stuck connection still completes blocking calls, from any thread.
    EXPECT_EQ("echo:a", invoke(conn, "m", "a", nullptr, 3000, "com.quorin.service.Other", "/other"));
    SVCIPC_tBool owned = 0;
    std::thread([&] { EXPECT_EQ(0, SVCIPC_nameHasOwner(conn, "com.quorin.service.Other", &owned, 3000)); }).join();
    EXPECT_EQ(1, owned);

    // Ending the service and then the connection waits for the stuck callback only briefly.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, SVCIPC_unregisterService(svc.reg));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    ASSERT_EQ(0, SVCIPC_nameHasOwner(client, kName, &owned, 3000));
    EXPECT_EQ(0, owned);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, SVCIPC_closeConnection(conn));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);

    // Once let go, the late callback runs to its end without harm.
    {
        std::lock_guard<std::mutex> lock(mutex);
        release = true;
    }
    cond.notify_all();
    EXPECT_TRUE(waitUntil([&] { return finished == 1; }, 5000));
}

TEST_F(SvcIpc, ManyThreadsCallAtOnceUntilTheBusDiesAndEverythingTurnsIntoFailures)
{
    TestService svc;
    svc.onRequest = [&](SVCIPC_tReqContext ctx, const std::string& method, const std::string& parms) {
        if (method != "slow")
            return TestService::reply(ctx, "echo:" + parms);
        svc.keep(ctx);  // never answered: the bus goes first
    };
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    SVCIPC_tConnection client = privateConnection();
    // Told once on a library thread when the bus goes; never for a connection closed before.
    CallbackLog lost;
    auto onLost = [](SVCIPC_tUserToken token) { static_cast<CallbackLog*>(token)->add("lost"); };
    ASSERT_EQ(0, SVCIPC_setConnectionLostCallback(conn, onLost, &lost));
    SVCIPC_tConnection closed = privateConnection();
    ASSERT_EQ(0, SVCIPC_setConnectionLostCallback(closed, onLost, &lost));
    ASSERT_EQ(0, SVCIPC_closeConnection(closed));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_setConnectionLostCallback(closed, onLost, &lost));

    // Blocking calls from several threads on the connection that also serves them, with
    // asynchronous ones in between: every answer goes to its own caller.
    std::atomic<bool> stop{false};
    std::atomic<int> good{0}, wrong{0}, failures{0};
    std::vector<std::thread> load;
    for (int t = 0; t < 4; ++t) {
        load.emplace_back([&, t] {
            for (int i = 0; !stop; ++i) {
                const std::string arg = std::to_string(t) + "/" + std::to_string(i);
                SVCIPC_tError st = 0;
                const std::string result = invoke(conn, "m", arg.c_str(), &st, 20000);
                if (st != 0) {
                    ++failures;
                    std::this_thread::sleep_for(5ms);
                } else {
                    ++(result == "echo:" + arg ? good : wrong);
                }
            }
        });
    }
    CallbackLog answered;
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(0, SVCIPC_asyncInvoke(conn, kName, kPath, "a", "", 0, 5000, &onResult, &answered));
    ASSERT_TRUE(answered.waitFor(40));
    EXPECT_TRUE(waitUntil([&] { return good >= 300; }, 10000)) << good;
    EXPECT_EQ(0, wrong.load());

    CallbackLog pending;
    ASSERT_EQ(0, SVCIPC_asyncInvoke(client, kName, kPath, "slow", "", 0, 20000, &onResult, &pending));
    std::this_thread::sleep_for(200ms);
    auto killed = std::chrono::steady_clock::now();
    bus.kill();
    ASSERT_TRUE(lost.waitFor(1, 2000ms));
    EXPECT_NE(std::this_thread::get_id(), lost.threads[0]);

    ASSERT_TRUE(pending.waitFor(1, 5000ms));
    EXPECT_EQ(std::to_string(SVCIPC_ERROR_DISCONNECTED) + "::", pending.snapshot()[0]);
    waitUntil([&] { return failures >= 20; }, 5000);
    stop = true;
    for (auto& t : load)
        t.join();
    EXPECT_LT(std::chrono::steady_clock::now() - killed, 6s);
    EXPECT_GE(failures.load(), 20);
    EXPECT_EQ(0, wrong.load());

    EXPECT_LT(SVCIPC_asyncEmit(conn, "s", "", nullptr, nullptr), 0);
    SVCIPC_tBool owned = 0;
    EXPECT_EQ(SVCIPC_ERR_DISCONNECTED, SVCIPC_nameHasOwner(client, kName, &owned, 1000));
    SVCIPC_tSigSubHnd sub = nullptr;
    EXPECT_EQ(SVCIPC_ERR_DISCONNECTED, SVCIPC_subscribe(conn, kPath, "x", onSignal, &pending, &sub));
    EXPECT_EQ(SVCIPC_ERR_DISCONNECTED, SVCIPC_unregisterService(svc.reg));
    EXPECT_EQ(0, SVCIPC_closeConnection(client));
    SVCIPC_tConnection again = nullptr;
    EXPECT_EQ(SVCIPC_ERR_NO_CONNECTION, SVCIPC_getConnection(0, 0, &again));
    EXPECT_EQ(1u, lost.snapshot().size());
}

TEST_F(SvcIpc, StaleAndInvalidHandlesGiveFailures)
{
    auto fake = reinterpret_cast<SVCIPC_tConnection>(uintptr_t{0x1234});
    SVCIPC_tSigSubHnd sub = nullptr;
    SVCIPC_tResponse* resp = nullptr;
    SVCIPC_tBool owned = 0;
    CallbackLog log;
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_closeConnection(nullptr));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_closeConnection(fake));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_unregisterService(nullptr));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_unsubscribe(reinterpret_cast<SVCIPC_tSigSubHnd>(conn)));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_freeReqContext(conn));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_freeResponse(nullptr));
    SVCIPC_tResponse notOurs = {"x"};
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_freeResponse(&notOurs));

    // Bad arguments on a good handle.
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_getConnection(7, 0, &fake));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_invoke(conn, "bad name", "/p", "m", "", 0, 0, &resp));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_invoke(conn, kName, kPath, "m", "", 0, 0, nullptr));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_invoke(conn, kName, kPath, "m", "\xff\xfe", 0, 0, &resp));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_subscribe(conn, kPath, "a.b", onSignal, &log, &sub));
    EXPECT_EQ(SVCIPC_ERR_BAD_ARGUMENT, SVCIPC_nameHasOwner(conn, kName, nullptr, 0));

    // A request's context is stale once freed; results after the first are dropped, and the
    // first one's completion is told.
    CallbackLog done;
    TestService svc;
    svc.onRequest = [&](SVCIPC_tReqContext ctx, const std::string&, const std::string&) {
        auto status = [](const SVCIPC_tCallbackStatus* st, SVCIPC_tUserToken token) {
            static_cast<CallbackLog*>(token)->add("done " + std::to_string(st->errCode));
        };
        EXPECT_EQ(0, SVCIPC_asyncReturnResult(ctx, "first", status, &done));
        EXPECT_EQ(0, SVCIPC_asyncReturnResult(ctx, "second", nullptr, nullptr));
        EXPECT_EQ(0, SVCIPC_freeReqContext(ctx));
        EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_freeReqContext(ctx));
        EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_asyncReturnResult(ctx, "late", nullptr, nullptr));
    };
    ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    ASSERT_EQ(0, SVCIPC_invoke(conn, kName, kPath, "m", "", 0, 0, &resp));
    EXPECT_STREQ("first", resp->result);
    ASSERT_TRUE(done.waitFor(1));
    EXPECT_EQ("done 0", done.snapshot()[0]);

    // Everything that hung off a closed connection is stale.
    ASSERT_EQ(0, SVCIPC_subscribe(conn, kPath, "s", onSignal, &log, &sub));
    ASSERT_EQ(0, SVCIPC_closeConnection(conn));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_closeConnection(conn));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_unregisterService(svc.reg));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_unsubscribe(sub));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_asyncEmit(conn, "s", "", nullptr, nullptr));
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_nameHasOwner(conn, kName, &owned, 0));
    EXPECT_EQ(0, SVCIPC_freeResponse(resp));  // replies belong to the caller, not the connection
    EXPECT_EQ(SVCIPC_ERR_BAD_HANDLE, SVCIPC_freeResponse(resp));

    // After the last shutdown nothing works until the next initialize.
    ASSERT_EQ(0, SVCIPC_shutdown());
    EXPECT_EQ(SVCIPC_ERR_NOT_INITIALIZED, SVCIPC_shutdown());
    EXPECT_EQ(SVCIPC_ERR_NOT_INITIALIZED, SVCIPC_getConnection(0, 0, &conn));
    ASSERT_EQ(0, SVCIPC_initialize());
}

}  // namespace
