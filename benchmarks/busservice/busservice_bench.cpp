// The bus service end to end against plain libdbus, on one private bus, interleaved sample by
// sample (the order alternates) so both see the same machine:
//   - method: a client calls "reqCBRGetPresetList" on the real cbradiod and has the reply,
//     against a plain libdbus client calling a plain libdbus echo peer;
//   - frame to signal: this program plays the V850 on the daemon's channel, writes a reception
//     sensitivity frame and waits until a subscriber has "CBRReceptionSensitivity", against a
//     plain libdbus signal from one connection to another.
// The daemon runs with errors-only tracing, so the figures are the service's, not its console's.
// Medians and 99th percentiles in microseconds and the ratio of the medians (service / plain) are
// reported as counters and printed.
#include "HeadUnit.h"
#include "JTDeviceNode.h"

#include <benchmark/benchmark.h>
#include <dbus/dbus.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

const char* const kPlainName = "bench.busservice.Plain";
const char* const kPlainPath = "/bench/busservice";
// About the size of the service's preset list reply.
const std::string kPlainPayload(220, 'x');

// One delivery at a time: the receiving side stamps the time and wakes the measuring thread.
struct Arrival
{
    std::mutex mutex;
    std::condition_variable cond;
    bool arrived = false;
    Clock::time_point at;

    void signal()
    {
        const auto now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex);
        at = now;
        arrived = true;
        cond.notify_one();
    }
    bool wait(Clock::time_point& when)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const bool ok = cond.wait_for(lock, std::chrono::seconds(5), [&] { return arrived; });
        arrived = false;
        when = at;
        return ok;
    }
};

DBusConnection* plainConnection(const std::string& address)
{
    DBusConnection* c = dbus_connection_open_private(address.c_str(), nullptr);
    if (c != nullptr && !dbus_bus_register(c, nullptr)) {
        dbus_connection_close(c);
        dbus_connection_unref(c);
        return nullptr;
    }
    return c;
}

void closePlain(DBusConnection* c)
{
    if (c != nullptr) {
        dbus_connection_close(c);
        dbus_connection_unref(c);
    }
}

// The baseline peer: a single-threaded libdbus program that echoes method calls and notes
// signals, dispatching on its own thread.
struct PlainPeer
{
    DBusConnection* conn = nullptr;
    std::thread thread;
    std::atomic<bool> running{true};
    Arrival* signals = nullptr;

    static DBusHandlerResult filter(DBusConnection* c, DBusMessage* msg, void* data)
    {
        PlainPeer* self = static_cast<PlainPeer*>(data);
        if (dbus_message_is_signal(msg, kPlainName, "tick")) {
            self->signals->signal();
            return DBUS_HANDLER_RESULT_HANDLED;
        }
        if (dbus_message_get_type(msg) != DBUS_MESSAGE_TYPE_METHOD_CALL || !dbus_message_has_path(msg, kPlainPath))
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        const char* text = "";
        dbus_message_get_args(msg, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        DBusMessage* reply = dbus_message_new_method_return(msg);
        const char* answer = kPlainPayload.c_str();
        dbus_message_append_args(reply, DBUS_TYPE_STRING, &answer, DBUS_TYPE_INVALID);
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
        if (conn == nullptr)
            return false;
        dbus_bus_request_name(conn, kPlainName, DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr);
        DBusError error;
        dbus_error_init(&error);
        dbus_bus_add_match(conn, "type='signal',path='/bench/busservice',member='tick'", &error);
        dbus_error_free(&error);
        dbus_connection_add_filter(conn, &PlainPeer::filter, this, nullptr);
        thread = std::thread([this] {
            while (running && dbus_connection_read_write_dispatch(conn, -1)) {
            }
        });
        return true;
    }

    void stop(DBusConnection* client)
    {
        DBusMessage* quit = dbus_message_new_method_call(kPlainName, kPlainPath, kPlainName, "quit");
        DBusMessage* reply = dbus_connection_send_with_reply_and_block(client, quit, 2000, nullptr);
        if (reply != nullptr)
            dbus_message_unref(reply);
        dbus_message_unref(quit);
        if (thread.joinable())
            thread.join();
        closePlain(conn);
    }
};

struct Setup
{
    HeadUnit unit;
    int v850Listen = -1;
    int v850 = -1;               // the daemon's end of the channel, as the V850 sees it
    SVCIPC_tConnection subscriber = nullptr;
    SVCIPC_tSigSubHnd sub = nullptr;
    Arrival serviceSignals;
    PlainPeer plain;
    DBusConnection* plainClient = nullptr;
    Arrival plainSignals;
    std::string error;

    static void onSensitivity(const char*, const char*, SVCIPC_tUserToken token)
    {
        static_cast<Arrival*>(token)->signal();
    }

    bool fail(const std::string& why)
    {
        error = why;
        return false;
    }

    bool start()
    {
        HeadUnit::Options options;
        options.startSimulator = false;
        options.recordSignals = false;
        options.traceSettings = "JTTracePersistence 1.1.0\n* 2 8\n";
        options.readyTrace.clear();
        options.beforeDaemon = [this](HeadUnit& u) {
            v850Listen = JTDeviceNode::listenHost(u.path("dev/ipc/ch6").c_str());
            return v850Listen >= 0;
        };
        if (!unit.start(options))
            return fail(unit.error());
        pollfd pfd = {v850Listen, POLLIN, 0};
        if (::poll(&pfd, 1, 5000) != 1 || (v850 = ::accept(v850Listen, nullptr, nullptr)) < 0)
            return fail("the daemon did not connect to the V850 channel");
        // The start frames take 3 s; the service is on the bus once it answers.
        const bool up = HeadUnit::waitUntil([&] {
            return unit.call("reqCBRGetPresetList", "", 500).text.find("CBRadioPresetList") != std::string::npos;
        }, 15000);
        if (!up)
            return fail("the service did not answer:\n" + unit.daemonOutput() + unit.daemonErrors());
        if (SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 1, &subscriber) != 0
            || SVCIPC_subscribe(subscriber, HeadUnit::kServicePath, "CBRReceptionSensitivity", &Setup::onSensitivity,
                                &serviceSignals, &sub) != 0)
            return fail("subscriber");
        plainClient = plainConnection(unit.bus().address());
        if (plainClient == nullptr || !plain.start(unit.bus().address(), &plainSignals))
            return fail("plain libdbus peer");
        return true;
    }

    void stop()
    {
        if (plainClient != nullptr)
            plain.stop(plainClient);
        closePlain(plainClient);
        if (subscriber != nullptr)
            SVCIPC_closeConnection(subscriber);
        unit.stop();
        if (v850 >= 0)
            ::close(v850);
        if (v850Listen >= 0)
            ::close(v850Listen);
    }
};

Setup* gSetup = nullptr;

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t i = static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

double us(Clock::duration d)
{
    return std::chrono::duration<double, std::micro>(d).count();
}

void report(benchmark::State& state, const char* what, const std::vector<double>& service,
            const std::vector<double>& plain)
{
    const double serviceMedian = percentile(service, 0.5);
    const double plainMedian = percentile(plain, 0.5);
    const double ratio = plainMedian > 0 ? serviceMedian / plainMedian : 0;
    state.counters["service_median_us"] = serviceMedian;
    state.counters["plain_median_us"] = plainMedian;
    state.counters["service_p99_us"] = percentile(service, 0.99);
    state.counters["plain_p99_us"] = percentile(plain, 0.99);
    state.counters["ratio"] = ratio;
    std::fprintf(stderr, "%s: service median %.1f us p99 %.1f us | plain libdbus median %.1f us p99 %.1f us"
                         " | ratio %.2f (%zu samples each)\n",
                 what, serviceMedian, percentile(service, 0.99), plainMedian, percentile(plain, 0.99), ratio,
                 service.size());
}

Clock::duration serviceCall()
{
    const auto start = Clock::now();
    gSetup->unit.call("reqCBRGetPresetList");
    return Clock::now() - start;
}

Clock::duration plainCall()
{
    const auto start = Clock::now();
    DBusMessage* call = dbus_message_new_method_call(kPlainName, kPlainPath, kPlainName, "reqCBRGetPresetList");
    const char* text = "";
    dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(gSetup->plainClient, call, 5000, nullptr);
    if (reply != nullptr)
        dbus_message_unref(reply);
    dbus_message_unref(call);
    return Clock::now() - start;
}

Clock::duration serviceFrameToSignal()
{
    static unsigned char raw = 0;
    unsigned char frame[3] = {0x09, 0x01, ++raw};
    const auto start = Clock::now();
    if (::send(gSetup->v850, frame, sizeof(frame), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(frame)))
        return Clock::duration::zero();
    Clock::time_point at;
    gSetup->serviceSignals.wait(at);
    // The reader pauses 1 ms after each read; keep the frames further apart than that.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return at - start;
}

Clock::duration plainSignal()
{
    const auto start = Clock::now();
    DBusMessage* sig = dbus_message_new_signal(kPlainPath, kPlainName, "tick");
    const char* text = "{\"Sensitivity\":3}\n";
    dbus_message_append_args(sig, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(gSetup->plainClient, sig, nullptr);
    dbus_connection_flush(gSetup->plainClient);
    dbus_message_unref(sig);
    Clock::time_point at;
    gSetup->plainSignals.wait(at);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return at - start;
}

template <Clock::duration (*Service)(), Clock::duration (*Plain)()>
void interleaved(benchmark::State& state, const char* what)
{
    if (gSetup == nullptr) {
        state.SkipWithError("no head unit");
        return;
    }
    std::vector<double> service, plain;
    for (int i = 0; i < 30; ++i) {   // warm-up
        Service();
        Plain();
    }
    bool serviceFirst = true;
    for (auto _ : state) {
        Clock::duration s, p;
        if (serviceFirst) {
            s = Service();
            p = Plain();
        } else {
            p = Plain();
            s = Service();
        }
        serviceFirst = !serviceFirst;
        service.push_back(us(s));
        plain.push_back(us(p));
        state.SetIterationTime(std::chrono::duration<double>(s).count());
    }
    report(state, what, service, plain);
}

void BM_MethodCallToReply(benchmark::State& state)
{
    interleaved<serviceCall, plainCall>(state, "method call to reply (reqCBRGetPresetList)");
}

void BM_V850FrameToSignal(benchmark::State& state)
{
    interleaved<serviceFrameToSignal, plainSignal>(state, "V850 frame to signal (CBRReceptionSensitivity)");
}

BENCHMARK(BM_MethodCallToReply)->Iterations(2000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_V850FrameToSignal)->Iterations(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);
}

int main(int argc, char** argv)
{
    if (std::getenv("CBRADIO_BUILD_DIR") == nullptr)
        ::setenv("CBRADIO_BUILD_DIR", CBRADIO_BUILD_DIR, 1);
    benchmark::Initialize(&argc, argv);
    Setup setup;
    if (!setup.start()) {
        std::fprintf(stderr, "busservice_bench: %s\n", setup.error.c_str());
        setup.stop();
        return 1;
    }
    gSetup = &setup;
    benchmark::RunSpecifiedBenchmarks();
    gSetup = nullptr;
    setup.stop();
    benchmark::Shutdown();
    return 0;
}
