// The bus service end to end against plain libdbus programs in processes of their own, on one
// private bus, on the same path minus the service:
//   - method call to reply: a plain libdbus client calls "reqCBRGetPresetList" on the real
//     cbradiod, against the same client calling a plain echo server process that answers with
//     the very text the service answers;
//   - V850 frame to signal: this program plays the V850, writes a reception sensitivity frame
//     on the daemon's packet-socket channel and waits until a plain subscriber has
//     "CBRReceptionSensitivity", against a plain relay process that reads a frame from a packet
//     socket of its own and emits a signal to the same subscriber. The service's V850 reader
//     pauses 1 ms after every read, by design; on one CPU going to sleep right after the emit
//     competes with the signal's way to the subscriber, so the relay pauses the same way after
//     each frame. The same figure against a relay without that pause follows, for information;
//   - four clients: four client threads call as fast as replies come, in rounds of half a second, on
//     the service and on the plain echo server in turns; calls per second and the server's CPU
//     time per call (user + system, /proc/<pid>/stat) of each round.
// The noise floor: a second plain echo server, identical to the first, measured against it the same
// way; on a busy machine its ratio strays from 1 as far as any figure can stray for nothing.
// Samples of the service and of its baseline are taken in turns (the order alternates), so both
// see the same machine. Every figure is printed as the ratio service / baseline of the medians and
// of the 99th percentiles, with both sides' values.
// The daemon runs with errors-only tracing, so the figures are the service's, not its console's.
#include "Arrival.h"
#include "BenchStats.h"
#include "ClientLoad.h"
#include "HeadUnit.h"
#include "JTDeviceNode.h"
#include "PlainDbus.h"

#include <algorithm>
#include <benchmark/benchmark.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace
{
using Clock = std::chrono::steady_clock;

const std::string kEchoName = "bench.busservice.PlainEcho";
const std::string kEchoPath = "/bench/busservice/PlainEcho";
const std::string kTwinName = "bench.busservice.PlainEchoTwin";
const std::string kLibEchoName = "bench.busservice.LibraryEcho";
const std::string kThreadedEchoName = "bench.busservice.ThreadedEcho";
const std::string kRelayName = "bench.busservice.PlainRelay";
const std::string kRelayPath = "/bench/busservice/PlainRelay";
const std::string kBareRelayName = "bench.busservice.PlainBareRelay";
const std::string kBareRelayPath = "/bench/busservice/PlainBareRelay";
const char* const kReaderPauseUs = "1000";  // the service's V850 reader's pause after each read
const char* const kSignal = "CBRReceptionSensitivity";
const char* const kMethod = "reqCBRGetPresetList";
const int kClients = 4;
const std::chrono::milliseconds kRound(500);

const BenchStats::Subject kService = {"service", "service"};
const BenchStats::Subject kEcho = {"plain", "plain echo process"};
const BenchStats::Subject kTwin = {"twin", "identical plain echo process"};
const BenchStats::Subject kLibEcho = {"lib", "library echo process"};
const BenchStats::Subject kThreadedEcho = {"threaded", "plain echo process with an idle second thread"};
const BenchStats::Subject kRelay = {"plain", "plain relay process pausing 1 ms after each read"};
const BenchStats::Subject kBareRelay = {"plain", "plain relay process without the pause"};
const int kWarmUps = 30;

// A packet socket the daemon or the relay connects to; the accepted end is the V850's.
int acceptOne(int listening)
{
    pollfd pfd = {listening, POLLIN, 0};
    if (::poll(&pfd, 1, 5000) != 1)
        return -1;
    return ::accept(listening, nullptr, nullptr);
}

struct Setup
{
    HeadUnit unit;
    int v850Listen = -1;
    int v850 = -1;  // the daemon's channel, as the V850 sees it
    int relayListen = -1;
    int relay = -1;  // the relay's channel
    int bareRelayListen = -1;
    int bareRelay = -1;
    pid_t echoPid = -1;
    pid_t libEchoPid = -1;
    pid_t threadedEchoPid = -1;
    DBusConnection* client = nullptr;
    PlainDbus::SignalWatch subscriber;
    Arrival serviceSignals;
    Arrival relaySignals;
    Arrival bareRelaySignals;
    ClientLoad load;
    std::string error;

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
        if ((v850 = acceptOne(v850Listen)) < 0)
            return fail("the daemon did not connect to the V850 channel");
        client = PlainDbus::openConnection(unit.bus().address());
        if (client == nullptr)
            return fail("no client connection");
        // The start frames take 3 s; the service is on the bus once it answers.
        std::string reply;
        const bool up = HeadUnit::waitUntil(
            [&] {
                reply = unit.call(kMethod, "", 500).text;
                return reply.find("CBRadioPresetList") != std::string::npos;
            },
            15000);
        if (!up)
            return fail("the service did not answer:\n" + unit.daemonOutput() + unit.daemonErrors());

        const std::string peer = BENCH_PLAINPEER;
        echoPid = unit.spawn({peer, "echo", kEchoName, kEchoPath, reply}, "plainecho");
        unit.spawn({peer, "echo", kTwinName, kEchoPath, reply}, "plaintwin");
        libEchoPid = unit.spawn({BENCH_LIBPEER, kLibEchoName, kEchoPath, reply}, "libraryecho");
        threadedEchoPid = unit.spawn({peer, "threaded-echo", kThreadedEchoName, kEchoPath, reply}, "threadedecho");
        for (const std::string& name : {kEchoName, kTwinName, kLibEchoName, kThreadedEchoName}) {
            if (!HeadUnit::waitUntil([&] { return PlainDbus::call(client, name, kEchoPath, kMethod, ""); }, 5000))
                return fail("a plain echo server did not answer: " + HeadUnit::readFile(unit.path("plainecho.err")) +
                            HeadUnit::readFile(unit.path("plaintwin.err")));
        }
        const std::string relaySocket = unit.path("relay");
        relayListen = JTDeviceNode::listenHost(relaySocket.c_str());
        unit.spawn({peer, "relay", relaySocket, kRelayPath, kRelayName, kSignal, kReaderPauseUs}, "plainrelay");
        if (relayListen < 0 || (relay = acceptOne(relayListen)) < 0)
            return fail("the plain relay did not connect: " + HeadUnit::readFile(unit.path("plainrelay.err")));
        const std::string bareRelaySocket = unit.path("barerelay");
        bareRelayListen = JTDeviceNode::listenHost(bareRelaySocket.c_str());
        unit.spawn({peer, "relay", bareRelaySocket, kBareRelayPath, kBareRelayName, kSignal}, "plainbarerelay");
        if (bareRelayListen < 0 || (bareRelay = acceptOne(bareRelayListen)) < 0)
            return fail("the bare relay did not connect: " + HeadUnit::readFile(unit.path("plainbarerelay.err")));

        subscriber.watch(HeadUnit::kServicePath, kSignal, &serviceSignals);
        subscriber.watch(kRelayPath, kSignal, &relaySignals);
        subscriber.watch(kBareRelayPath, kSignal, &bareRelaySignals);
        if (!subscriber.start(unit.bus().address()))
            return fail("subscriber");
        if (!load.start(unit.bus().address(), kClients))
            return fail("client connections");
        return true;
    }

    void stop()
    {
        load.stop();
        subscriber.stop();
        PlainDbus::closeConnection(client);
        for (int fd : {bareRelay, bareRelayListen, relay, relayListen, v850, v850Listen})
            if (fd >= 0)
                ::close(fd);
        unit.stop();
    }
};

Setup* gSetup = nullptr;

Clock::duration timedCall(const std::string& name, const std::string& path)
{
    const auto start = Clock::now();
    PlainDbus::call(gSetup->client, name, path, kMethod, "");
    return Clock::now() - start;
}

Clock::duration serviceCall()
{
    return timedCall(HeadUnit::kServiceName, HeadUnit::kServicePath);
}

Clock::duration plainCall()
{
    return timedCall(kEchoName, kEchoPath);
}

Clock::duration twinCall()
{
    return timedCall(kTwinName, kEchoPath);
}

// Writes a sensitivity frame (a new value each time) and waits for the signal it causes.
Clock::duration frameToSignal(int channel, Arrival& signals)
{
    static unsigned char raw = 0;
    unsigned char frame[3] = {0x09, 0x01, ++raw};
    const auto start = Clock::now();
    if (::send(channel, frame, sizeof(frame), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(frame)))
        return Clock::duration::zero();
    Clock::time_point at;
    const bool arrived = signals.wait(at);
    // The service's reader pauses 1 ms after each read; keep the frames further apart than that.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return arrived ? at - start : Clock::duration::zero();
}

Clock::duration serviceFrameToSignal()
{
    return frameToSignal(gSetup->v850, gSetup->serviceSignals);
}

Clock::duration plainFrameToSignal()
{
    return frameToSignal(gSetup->relay, gSetup->relaySignals);
}

Clock::duration bareFrameToSignal()
{
    return frameToSignal(gSetup->bareRelay, gSetup->bareRelaySignals);
}

// One round of the four clients on one server: calls per second and CPU microseconds per call.
struct Round
{
    double callsPerSecond = 0;
    double cpuPerCallUs = 0;
    long calls = 0;
    double cpuSeconds = 0;
};

Round loadRound(const std::string& name, const std::string& path, pid_t server)
{
    Round round;
    const double cpuBefore = processCpuSeconds(server);
    const auto start = Clock::now();
    round.calls = gSetup->load.run(name, path, kMethod, kRound);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    round.cpuSeconds = processCpuSeconds(server) - cpuBefore;
    round.callsPerSecond = round.calls / seconds;
    round.cpuPerCallUs = round.calls > 0 ? round.cpuSeconds * 1e6 / static_cast<double>(round.calls) : 0;
    return round;
}

// Whether the head unit is up is checked per benchmark, so a failed start reports as an error.
bool ready(benchmark::State& state)
{
    if (gSetup == nullptr)
        state.SkipWithError("no head unit");
    return gSetup != nullptr;
}

void BM_MethodCallToReply(benchmark::State& state)
{
    if (ready(state))
        BenchStats::interleaved(state, "method call to reply (reqCBRGetPresetList)", kService, kEcho, serviceCall,
                                plainCall, kWarmUps);
}

void BM_NoiseFloor(benchmark::State& state)
{
    if (ready(state))
        BenchStats::interleaved(state, "noise floor: plain echo against an identical one", kTwin, kEcho, twinCall,
                                plainCall, kWarmUps);
}

void BM_V850FrameToSignal(benchmark::State& state)
{
    if (ready(state))
        BenchStats::interleaved(state, "V850 frame to signal (CBRReceptionSensitivity)", kService, kRelay,
                                serviceFrameToSignal, plainFrameToSignal, kWarmUps);
}

void BM_V850FrameToSignalBare(benchmark::State& state)
{
    if (ready(state))
        BenchStats::interleaved(state, "V850 frame to signal, for information: against a relay without the pause",
                                kService, kBareRelay, serviceFrameToSignal, bareFrameToSignal, kWarmUps);
}

// One server's rounds: its rates and CPU per call, and the sums over the whole run.
struct Series
{
    Series(std::string name, pid_t pid) : name(std::move(name)), pid(pid) {}

    std::string name;
    pid_t pid;
    std::vector<double> rate, cpu;
    Round total;

    void add(const Round& round)
    {
        rate.push_back(round.callsPerSecond);
        cpu.push_back(round.cpuPerCallUs);
        total.calls += round.calls;
        total.cpuSeconds += round.cpuSeconds;
    }
    double wholeCpuPerCall() const { return total.calls > 0 ? total.cpuSeconds * 1e6 / total.calls : 0; }
};

void BM_FourClients(benchmark::State& state)
{
    if (!ready(state))
        return;
    // Two servers tell where the service's cost comes from: the library's echo server, and the
    // plain echo in a threaded process (libdbus takes about 80 mutexes per call, which glibc
    // makes cheap only while a process has a single thread).
    Series service{HeadUnit::kServiceName, gSetup->unit.daemonPid()};
    Series plain{kEchoName, gSetup->echoPid};
    Series library{kLibEchoName, gSetup->libEchoPid};
    Series threaded{kThreadedEchoName, gSetup->threadedEchoPid};
    std::vector<Series*> order = {&service, &plain, &library, &threaded};
    for (auto _ : state) {
        for (Series* s : order)
            s->add(loadRound(s->name, s == &service ? HeadUnit::kServicePath : kEchoPath, s->pid));
        std::rotate(order.begin(), order.begin() + 1, order.end());  // none always goes first
    }
    BenchStats::report(state, {"calls", "4 clients: calls per second", "/s"}, kService, kEcho, service.rate,
                       plain.rate);
    BenchStats::report(state, {"cpu", "4 clients: server CPU per call", "us"}, kService, kEcho, service.cpu, plain.cpu);
    BenchStats::report(state, {"libcalls", "4 clients, for information: library echo calls per second", "/s"}, kLibEcho,
                       kEcho, library.rate, plain.rate);
    BenchStats::report(state, {"libcpu", "4 clients, for information: library echo CPU per call", "us"}, kLibEcho,
                       kEcho, library.cpu, plain.cpu);
    BenchStats::report(state, {"thrcalls", "4 clients, for information: threaded plain echo calls per second", "/s"},
                       kThreadedEcho, kEcho, threaded.rate, plain.rate);
    BenchStats::report(state, {"thrcpu", "4 clients, for information: threaded plain echo CPU per call", "us"},
                       kThreadedEcho, kEcho, threaded.cpu, plain.cpu);
    BenchStats::report(state,
                       {"svcthrcpu", "4 clients, for information: service CPU per call against the threaded echo",
                        "us"},
                       kService, kThreadedEcho, service.cpu, threaded.cpu);
    const double plainWhole = plain.wholeCpuPerCall();
    std::fprintf(stderr,
                 "4 clients: server CPU per call over the run: ratio %.3f | service %.2f us | plain echo %.2f us"
                 " | library echo %.2f us | threaded plain echo %.2f us (%ld, %ld, %ld and %ld calls)\n",
                 plainWhole > 0 ? service.wholeCpuPerCall() / plainWhole : 0, service.wholeCpuPerCall(), plainWhole,
                 library.wholeCpuPerCall(), threaded.wholeCpuPerCall(), service.total.calls, plain.total.calls,
                 library.total.calls, threaded.total.calls);
}

BENCHMARK(BM_MethodCallToReply)->Iterations(2000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_NoiseFloor)->Iterations(2000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_V850FrameToSignal)->Iterations(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_V850FrameToSignalBare)->Iterations(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FourClients)->Iterations(20)->Unit(benchmark::kMillisecond);
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
