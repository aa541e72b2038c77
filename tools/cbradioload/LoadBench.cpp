#include "LoadBench.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace
{
typedef std::chrono::steady_clock Clock;
}

LoadBench::~LoadBench()
{
    stop();
}

bool LoadBench::fail(const std::string& why)
{
    mError = why;
    return false;
}

bool LoadBench::start(const Options& options)
{
    mOptions = options;
    HeadUnit::Options unit;
    unit.recordSignals = false;
    // Readiness is seen on the bus, whatever the console says.
    unit.readyTrace = "";
    const int media = (options.console ? 8 : 0) | (options.stalledTraceServer ? 1 : 0);
    unit.traceSettings = "JTTracePersistence 1.1.0\n* 7f " + std::to_string(media) + "\n";
    unit.beforeDaemon = [this](HeadUnit& u) {
        if (mOptions.peers) {
            const std::string peersim = HeadUnit::buildDir() + "/tools/peersim/peersim";
            if (u.spawn({peersim, "--no-stdin", "--log=" + u.path("peersim.log")}, "peersim") <= 0)
                return fail("cannot start " + peersim);
            if (!HeadUnit::waitUntil(
                    [&] { return HeadUnit::readFile(u.path("peersim.log")).find("# ready") != std::string::npos; },
                    10000))
                return fail("peersim did not come up:\n" + HeadUnit::readFile(u.path("peersim.err")));
        }
        if (mOptions.stalledTraceServer) {
            const std::string tracesrv = HeadUnit::buildDir() + "/tools/tracesrv/tracesrv";
            mTraceServer = u.spawn({tracesrv, "--no-stdin"}, "tracesrv");
            if (mTraceServer <= 0)
                return fail("cannot start " + tracesrv);
            if (!HeadUnit::waitUntil([&] { return ::access(u.path("dev/mv2trace/register").c_str(), F_OK) == 0; },
                                     5000))
                return fail("tracesrv did not create its register node:\n" +
                            HeadUnit::readFile(u.path("tracesrv.err")));
        }
        return true;
    };
    const bool started = mUnit.start(unit);
    mRoot = mUnit.root();
    if (!started)
        return fail(mUnit.error());
    if (options.stalledTraceServer) {
        if (!HeadUnit::waitUntil(
                [&] {
                    return HeadUnit::readFile(mUnit.path("tracesrv.out")).find("CBRadio connected") !=
                           std::string::npos;
                },
                5000))
            return fail("the daemon did not connect to tracesrv:\n" + HeadUnit::readFile(mUnit.path("tracesrv.out")));
        ::kill(mTraceServer, SIGSTOP);
    }
    if (!waitUntilServing(15000))
        return fail("the service did not answer with its data initialised:\n" + mUnit.daemonErrors());
    return true;
}

bool LoadBench::waitUntilServing(int timeoutMs)
{
    // Before registration a call finds no owner; before the settings are in it answers failure.
    return HeadUnit::waitUntil(
        [&] {
            const HeadUnit::Reply reply = mUnit.call("reqCBRGetPresetList", "", 1000);
            if (reply.ok() && reply.text.find("CBRadioPresetList") != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            return false;
        },
        timeoutMs);
}

LoadBench::StopResult LoadBench::stopDaemon(int timeoutMs)
{
    StopResult result;
    const pid_t pid = mUnit.daemonPid();
    if (pid <= 0)
        return result;
    const Clock::time_point t0 = Clock::now();
    ::kill(pid, SIGTERM);
    result.exitStatus = mUnit.waitDaemon(timeoutMs);
    result.ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    return result;
}

void LoadBench::stop()
{
    if (mTraceServer > 0)
        ::kill(mTraceServer, SIGCONT);
    mTraceServer = -1;
    if (mOptions.keepRoot)
        ::setenv("CBRADIO_KEEP_ROOT", "1", 1);
    mUnit.stop();
}
