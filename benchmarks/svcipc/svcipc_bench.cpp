// The service-IPC library against plain libdbus, measured in the same run on the same private
// bus, interleaved sample by sample (the order alternates) so that both see the same machine:
//   - method round trip: client invoke -> service callback -> result -> client has the reply;
//   - signal latency: emit -> the subscriber's callback runs.
// Each benchmark reports medians and 99th percentiles of both in microseconds and the ratio of
// the medians (library / plain) as counters.
#include "PrivateBus.h"
#include "svcipc.h"

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

const char* const kLibName = "bench.svcipc.Lib";
const char* const kPlainName = "bench.svcipc.Plain";
const char* const kPath = "/bench/svcipc";
const char* const kPayload = "{\"channel\":12,\"squelch\":8}";

// One delivery at a time: the receiving side stamps the time and wakes the measuring thread.
struct Arrival
{
    std::mutex mutex;
    std::condition_variable cond;
    bool arrived = false;
    Clock::time_point at;

    void signal()
    {
        auto now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        at = now;
        arrived = true;
        cond.notify_one();
    }
    bool wait(Clock::time_point& when)
    {
        std::unique_lock<std::mutex> lock(mutex);
        bool ok = cond.wait_for(lock, std::chrono::seconds(5), [&] { return arrived; });
        arrived = false;
        when = at;
        return ok;
    }
};

DBusConnection* plainConnection(const std::string& address)
{
    DBusConnection* c = dbus_connection_open_private(address.c_str(), nullptr);
    if (c && !dbus_bus_register(c, nullptr)) {
        dbus_connection_close(c);
        dbus_connection_unref(c);
        return nullptr;
    }
    return c;
}

void closePlain(DBusConnection* c)
{
    if (c) {
        dbus_connection_close(c);
        dbus_connection_unref(c);
    }
}

// A plain libdbus service and signal receiver: one thread blocked in read_write_dispatch, the
// usual shape of a single-threaded libdbus program.
struct PlainPeer
{
    DBusConnection* conn = nullptr;
    std::thread thread;
    std::atomic<bool> running{true};
    Arrival* signals = nullptr;

    static DBusHandlerResult filter(DBusConnection* c, DBusMessage* msg, void* data)
    {
        auto* self = static_cast<PlainPeer*>(data);
        if (dbus_message_is_signal(msg, kLibName, "tick")
            || dbus_message_is_signal(msg, kPlainName, "tick")) {
            self->signals->signal();
            return DBUS_HANDLER_RESULT_HANDLED;
        }
        if (dbus_message_get_type(msg) != DBUS_MESSAGE_TYPE_METHOD_CALL
            || !dbus_message_has_path(msg, kPath))
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        const char* text = "";
        dbus_message_get_args(msg, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        DBusMessage* reply = dbus_message_new_method_return(msg);
        dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        dbus_connection_send(c, reply, nullptr);
        dbus_message_unref(reply);
        if (dbus_message_has_member(msg, "quit"))
            self->running = false;
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    bool start(const std::string& address, Arrival* arrivals)
    {
        signals = arrivals;
        conn = plainConnection(address);
        if (!conn)
            return false;
        dbus_bus_request_name(conn, kPlainName, DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr);
        dbus_bus_add_match(conn, "type='signal',path='/bench/plain',member='tick'", nullptr);
        dbus_connection_add_filter(conn, &PlainPeer::filter, this, nullptr);
        thread = std::thread([this] {
            while (running && dbus_connection_read_write_dispatch(conn, -1)) {
            }
        });
        return true;
    }
    void stop(const std::string& address)
    {
        DBusConnection* c = plainConnection(address);
        DBusMessage* quit = dbus_message_new_method_call(kPlainName, kPath, kPlainName, "quit");
        DBusMessage* reply = dbus_connection_send_with_reply_and_block(c, quit, 2000, nullptr);
        if (reply)
            dbus_message_unref(reply);
        dbus_message_unref(quit);
        closePlain(c);
        if (thread.joinable())
            thread.join();
        closePlain(conn);
    }
};

struct Setup
{
    PrivateBus bus;
    bool ok = false;
    SVCIPC_tConnection service = nullptr;
    SVCIPC_tConnection client = nullptr;
    SVCIPC_tSvcRegHnd reg = nullptr;
    SVCIPC_tSigSubHnd sub = nullptr;
    PlainPeer plain;
    DBusConnection* plainClient = nullptr;
    Arrival libSignals;
    Arrival plainSignals;

    static void echo(SVCIPC_tReqContext ctx, const char*, const char* parms, SVCIPC_tBool,
                     SVCIPC_tUserToken)
    {
        SVCIPC_asyncReturnResult(ctx, parms, nullptr, nullptr);
        SVCIPC_freeReqContext(ctx);
    }
    static void onTick(const char*, const char*, SVCIPC_tUserToken token)
    {
        static_cast<Arrival*>(token)->signal();
    }

    bool start()
    {
        if (!bus.start())
            return false;
        bus.exportAddress();
        if (SVCIPC_initialize() != 0 || SVCIPC_getConnection(0, 1, &service) != 0
            || SVCIPC_getConnection(0, 1, &client) != 0
            || SVCIPC_registerService(service, kLibName, kPath, 0, &Setup::echo, nullptr, &reg)
                   != 0
            || SVCIPC_subscribe(client, kPath, "tick", &Setup::onTick, &libSignals, &sub) != 0)
            return false;
        plainClient = plainConnection(bus.address());
        ok = plainClient && plain.start(bus.address(), &plainSignals);
        return ok;
    }
    void stop()
    {
        if (ok)
            plain.stop(bus.address());
        closePlain(plainClient);
        SVCIPC_shutdown();
        bus.stop();
    }
};

Setup* gSetup = nullptr;

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

double us(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

void report(benchmark::State& state, const char* what, const std::vector<double>& lib,
            const std::vector<double>& plain)
{
    const double libMedian = percentile(lib, 0.5), plainMedian = percentile(plain, 0.5);
    state.counters["lib_median_us"] = libMedian;
    state.counters["plain_median_us"] = plainMedian;
    state.counters["lib_p99_us"] = percentile(lib, 0.99);
    state.counters["plain_p99_us"] = percentile(plain, 0.99);
    state.counters["ratio"] = plainMedian > 0 ? libMedian / plainMedian : 0;
    fprintf(stderr, "%s: library median %.1f us p99 %.1f us | plain libdbus median %.1f us p99 %.1f us"
                    " | ratio %.3f (%zu samples each)\n",
            what, libMedian, percentile(lib, 0.99), plainMedian, percentile(plain, 0.99),
            plainMedian > 0 ? libMedian / plainMedian : 0, lib.size());
}

Clock::duration libRoundTrip()
{
    auto start = Clock::now();
    SVCIPC_tResponse* resp = nullptr;
    if (SVCIPC_invoke(gSetup->client, kLibName, kPath, "echo", kPayload, 0, 5000, &resp) == 0)
        SVCIPC_freeResponse(resp);
    return Clock::now() - start;
}

Clock::duration plainRoundTrip()
{
    auto start = Clock::now();
    DBusMessage* call = dbus_message_new_method_call(kPlainName, kPath, kPlainName, "echo");
    const char* text = kPayload;
    dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    DBusMessage* reply =
        dbus_connection_send_with_reply_and_block(gSetup->plainClient, call, 5000, nullptr);
    if (reply) {
        const char* result = nullptr;
        dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &result, DBUS_TYPE_INVALID);
        dbus_message_unref(reply);
    }
    dbus_message_unref(call);
    return Clock::now() - start;
}

Clock::duration libSignal()
{
    auto start = Clock::now();
    SVCIPC_asyncEmit(gSetup->service, "tick", kPayload, nullptr, nullptr);
    Clock::time_point at;
    gSetup->libSignals.wait(at);
    return at - start;
}

Clock::duration plainSignal()
{
    auto start = Clock::now();
    DBusMessage* sig = dbus_message_new_signal("/bench/plain", kPlainName, "tick");
    const char* text = kPayload;
    dbus_message_append_args(sig, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(gSetup->plainClient, sig, nullptr);
    dbus_connection_flush(gSetup->plainClient);
    dbus_message_unref(sig);
    Clock::time_point at;
    gSetup->plainSignals.wait(at);
    return at - start;
}

template <Clock::duration (*Lib)(), Clock::duration (*Plain)()>
void interleaved(benchmark::State& state, const char* what)
{
    std::vector<double> lib, plain;
    for (int i = 0; i < 50; ++i) {  // warm-up: private connections, caches, page faults
        Lib();
        Plain();
    }
    bool libFirst = true;
    for (auto _ : state) {
        Clock::duration l, p;
        if (libFirst) {
            l = Lib();
            p = Plain();
        } else {
            p = Plain();
            l = Lib();
        }
        libFirst = !libFirst;
        lib.push_back(us(l));
        plain.push_back(us(p));
        state.SetIterationTime(std::chrono::duration<double>(l).count());
    }
    report(state, what, lib, plain);
}

void BM_MethodRoundTrip(benchmark::State& state)
{
    interleaved<libRoundTrip, plainRoundTrip>(state, "method round trip");
}

void BM_SignalLatency(benchmark::State& state)
{
    interleaved<libSignal, plainSignal>(state, "signal latency");
}

BENCHMARK(BM_MethodRoundTrip)->Iterations(3000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SignalLatency)->Iterations(3000)->UseManualTime()->Unit(benchmark::kMicrosecond);
}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    Setup setup;
    gSetup = &setup;
    if (!setup.start()) {
        fprintf(stderr, "svcipc_bench: could not set up the private bus and peers (%s)\n",
                setup.bus.error().c_str());
        setup.stop();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    setup.stop();
    return 0;
}
