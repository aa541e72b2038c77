// The daemon is never wedged: calls from several clients at once are all answered, a trace server
// that stops reading holds up neither the calls nor the stop, and a termination signal ends the
// process with exit 0 within two seconds at any moment (during the start frames, under load).
// Bounds are there to catch a hang; no figure here is about speed.
#include "HeadUnit.h"
#include "LoadClients.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <thread>

namespace
{
const int kStopLimitMs = 2000;

// Sends `signal` once; the exit status, or -1 when the daemon still runs after the limit.
int stopDaemonWith(HeadUnit& unit, int signal)
{
    ::kill(unit.daemonPid(), signal);
    return unit.waitDaemon(kStopLimitMs);
}
}

// tracesrv is stopped (SIGSTOP) once the daemon has connected to it, so every record the daemon
// sends from then on stays unread; the console keeps tracing too. (The same load without a stopped
// server asks less of the daemon.)
TEST(Robustness, TraceServerThatStopsReadingHoldsUpNeitherCallsNorTheStop)
{
    HeadUnit unit;
    HeadUnit::Options options;
    options.recordSignals = false;
    options.traceSettings = "JTTracePersistence 1.1.0\n* 7f 9\n";
    pid_t server = -1;
    options.beforeDaemon = [&](HeadUnit& u) {
        server = u.spawn({HeadUnit::buildDir() + "/tools/tracesrv/tracesrv", "--no-stdin"}, "tracesrv");
        return server > 0 &&
               HeadUnit::waitUntil([&] { return ::access(u.path("dev/mv2trace/register").c_str(), F_OK) == 0; }, 5000);
    };
    ASSERT_TRUE(unit.start(options)) << unit.error();
    ASSERT_TRUE(unit.waitForFile("tracesrv.out", "CBRadio connected"));
    ASSERT_EQ(0, ::kill(server, SIGSTOP));

    // Four clients call the whole mix for three seconds: every call is answered; then SIGTERM,
    // with the clients still calling, ends the daemon cleanly in time.
    LoadClients::Options load;
    load.clients = 4;
    load.timeoutMs = 3000;
    LoadClients clients(load);
    ASSERT_TRUE(clients.start()) << clients.error();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    clients.endCount();
    const LoadFigures f = clients.figures();
    const int status = stopDaemonWith(unit, SIGTERM);
    clients.stop();
    ::kill(server, SIGCONT);

    EXPECT_GT(f.calls, 0u);
    const std::string firstFailure = f.errorKinds.empty() ? "" : f.errorKinds.begin()->first;
    EXPECT_EQ(0u, f.timeouts) << f.calls << " calls; " << firstFailure;
    EXPECT_EQ(0u, f.errors) << firstFailure;
    EXPECT_EQ(0u, f.failureResults);
    EXPECT_GT(f.signals, 0u);
    EXPECT_EQ(0, clients.stuckClients());
    EXPECT_EQ(0, status) << "SIGTERM under load: not ended within " << kStopLimitMs << " ms\n" << unit.daemonErrors();
}

// The start sequence writes three frames one second apart (hardware version, software version,
// weather alert on); each of the three termination signals comes right after another of them, to
// a daemon started anew each time under the same simulator.
TEST(Robustness, SignalDuringTheStartFramesEndsTheDaemonWithExit0InTime)
{
    HeadUnit unit;
    HeadUnit::Options options;
    options.recordSignals = false;
    options.startDaemon = false;
    options.readyTrace = "";
    ASSERT_TRUE(unit.start(options)) << unit.error();
    const std::pair<int, const char*> moments[] = {{SIGTERM, "07 00"}, {SIGINT, "08 00"}, {SIGHUP, "0C 01 01"}};
    for (const auto& moment : moments) {
        SCOPED_TRACE(moment.second);
        const size_t frames = unit.frameMark();
        ASSERT_TRUE(unit.startDaemon()) << unit.error();
        ASSERT_TRUE(unit.waitForFrame(moment.second, frames, 8000));
        ASSERT_FALSE(unit.traced("[CBRadio] Up and Running..."));

        EXPECT_EQ(0, stopDaemonWith(unit, moment.first)) << "not ended within " << kStopLimitMs << " ms\n"
                                                         << unit.daemonErrors();
        EXPECT_TRUE(unit.traced("rcvd signal to exit (" + std::to_string(moment.first) + ")\n"));
    }
}
