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
#include "Arrival.h"
#include "BenchStats.h"
#include "HeadUnit.h"
#include "JTDeviceNode.h"
#include "PlainDbus.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{
using Clock = std::chrono::steady_clock;

// About the size of the service's preset list reply.
const std::string kPlainReply(220, 'x');
const PlainDbus::Names kPlain = {"bench.busservice.Plain", "/bench/busservice", "/bench/busservice"};

struct Setup
{
    HeadUnit unit;
    int v850Listen = -1;
    int v850 = -1;               // the daemon's end of the channel, as the V850 sees it
    SVCIPC_tConnection subscriber = nullptr;
    SVCIPC_tSigSubHnd sub = nullptr;
    Arrival serviceSignals;
    PlainDbus::EchoPeer plain;
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
        plainClient = PlainDbus::openConnection(unit.bus().address());
        if (plainClient == nullptr || !plain.start(unit.bus().address(), kPlain, &plainSignals, kPlainReply))
            return fail("plain libdbus peer");
        return true;
    }

    void stop()
    {
        plain.stop(plainClient);
        PlainDbus::closeConnection(plainClient);
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

const BenchStats::Subject kService = {"service", "service"};
const int kWarmUps = 30;

Clock::duration serviceCall()
{
    const auto start = Clock::now();
    gSetup->unit.call("reqCBRGetPresetList");
    return Clock::now() - start;
}

Clock::duration plainCall()
{
    return PlainDbus::roundTrip(gSetup->plainClient, kPlain, "reqCBRGetPresetList", "");
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
    const Clock::duration d = PlainDbus::tick(gSetup->plainClient, kPlain, "{\"Sensitivity\":3}\n", gSetup->plainSignals);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return d;
}

// Whether the head unit is up is checked per benchmark, so a failed start reports as an error.
void interleaved(benchmark::State& state, const char* what, Clock::duration (*service)(),
                 Clock::duration (*plain)())
{
    if (gSetup == nullptr)
        state.SkipWithError("no head unit");
    else
        BenchStats::interleaved(state, what, kService, service, plain, kWarmUps);
}

void BM_MethodCallToReply(benchmark::State& state)
{
    interleaved(state, "method call to reply (reqCBRGetPresetList)", serviceCall, plainCall);
}

void BM_V850FrameToSignal(benchmark::State& state)
{
    interleaved(state, "V850 frame to signal (CBRReceptionSensitivity)", serviceFrameToSignal, plainSignal);
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
