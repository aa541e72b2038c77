// The service-IPC library against plain libdbus, measured in the same run on the same private
// bus, interleaved sample by sample (the order alternates) so that both see the same machine:
//   - method round trip: client invoke -> service callback -> result -> client has the reply;
//   - signal latency: emit -> the subscriber's callback runs.
// Each benchmark reports the ratios library / plain of the medians and of the 99th percentiles,
// and both sides' figures in microseconds.
#include "Arrival.h"
#include "BenchStats.h"
#include "PlainDbus.h"
#include "PrivateBus.h"
#include "svcipc.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace
{
using Clock = std::chrono::steady_clock;

const char* const kLibName = "bench.svcipc.Lib";
const char* const kPath = "/bench/svcipc/Lib";  // spells kLibName: subscriptions hear only its owner
const char* const kPayload = "{\"channel\":12,\"squelch\":8}";
const PlainDbus::Names kPlain = {"bench.svcipc.Plain", kPath, "/bench/plain"};

struct Setup
{
    PrivateBus bus;
    bool ok = false;
    SVCIPC_tConnection service = nullptr;
    SVCIPC_tConnection client = nullptr;
    SVCIPC_tSvcRegHnd reg = nullptr;
    SVCIPC_tSigSubHnd sub = nullptr;
    PlainDbus::EchoPeer plain;
    DBusConnection* plainClient = nullptr;
    Arrival libSignals;
    Arrival plainSignals;

    static void echo(SVCIPC_tReqContext ctx, const char*, const char* parms, SVCIPC_tBool, SVCIPC_tUserToken)
    {
        SVCIPC_asyncReturnResult(ctx, parms, nullptr, nullptr);
        SVCIPC_freeReqContext(ctx);
    }
    static void onTick(const char*, const char*, SVCIPC_tUserToken token) { static_cast<Arrival*>(token)->signal(); }

    bool start()
    {
        if (!bus.start())
            return false;
        bus.exportAddress();
        if (SVCIPC_initialize() != 0 || SVCIPC_getConnection(0, 1, &service) != 0 ||
            SVCIPC_getConnection(0, 1, &client) != 0 ||
            SVCIPC_registerService(service, kLibName, kPath, 0, &Setup::echo, nullptr, &reg) != 0 ||
            SVCIPC_subscribe(client, kPath, "tick", &Setup::onTick, &libSignals, &sub) != 0)
            return false;
        plainClient = PlainDbus::openConnection(bus.address());
        ok = plainClient && plain.start(bus.address(), kPlain, &plainSignals);
        return ok;
    }
    void stop()
    {
        plain.stop(plainClient);
        PlainDbus::closeConnection(plainClient);
        SVCIPC_shutdown();
        bus.stop();
    }
};

Setup* gSetup = nullptr;
const BenchStats::Subject kLibrary = {"lib", "library"};
const int kWarmUps = 50;

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
    return PlainDbus::roundTrip(gSetup->plainClient, kPlain, "echo", kPayload);
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
    return PlainDbus::tick(gSetup->plainClient, kPlain, kPayload, gSetup->plainSignals);
}

void BM_MethodRoundTrip(benchmark::State& state)
{
    BenchStats::interleaved(state, "method round trip", kLibrary, libRoundTrip, plainRoundTrip, kWarmUps);
}

void BM_SignalLatency(benchmark::State& state)
{
    BenchStats::interleaved(state, "signal latency", kLibrary, libSignal, plainSignal, kWarmUps);
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
        fprintf(stderr, "svcipc_bench: could not set up the private bus and peers (%s)\n", setup.bus.error().c_str());
        setup.stop();
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    setup.stop();
    return 0;
}
