// cbradioload: N clients calling the CB radio service at once, a signal listener, and the figures
// that show whether the service keeps answering: calls, errors, time-outs, calls/s, p50/p99
// latency, the daemon's resident memory before and after, and how long a SIGTERM under load takes.
// Either against a running daemon (the bus from DBUS_SESSION_BUS_ADDRESS) or, with --bench,
// against a head unit the tool starts itself. See docs/load.md.
//
// Exit status: 0 when every call was answered (no time-out, no error) and a measured stop ended
// with exit 0 within two seconds; 1 otherwise; 2 for a bad command line or a bench that did not
// come up.
#include "LoadBench.h"
#include "LoadClients.h"
#include "ProcessInfo.h"
#include "ToolProcess.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace
{
const int kStopLimitMs = 2000;

volatile std::sig_atomic_t gInterrupted = 0;

void onInterrupt(int)
{
    gInterrupted = 1;
}

struct Settings
{
    LoadClients::Options load;
    int seconds = 10;
    bool bench = false;
    LoadBench::Options benchOptions;
    pid_t pid = 0;
    std::string name = "cbradiod";
    bool stop = false;
};

void usage(FILE* out)
{
    std::fprintf(
        out, "usage: cbradioload [options]\n"
             "  --clients=N             calling clients, each on its own bus connection (4)\n"
             "  --seconds=S             how long the clients call (10)\n"
             "  --timeout-ms=T          time-out of each call (2000)\n"
             "  --no-state-change       leave reqCBRStateChange out of the mix\n"
             "  --bench                 start a head unit of its own: private bus, v850sim, cbradiod\n"
             "    --peers               ... with peersim for the peer services\n"
             "    --stalled-trace-server ... with a trace server that stops reading once the daemon is connected\n"
             "    --no-console          ... the daemon traces nothing to its console\n"
             "    --keep                ... keep the bench's root folder with its logs\n"
             "  --pid=PID | --name=PROG the running daemon to watch (default: the one process named cbradiod)\n"
             "  --stop                  end the running daemon with SIGTERM under load (always done with --bench)\n");
}

bool number(const char* arg, const char* prefix, int& value)
{
    const size_t n = std::strlen(prefix);
    if (std::strncmp(arg, prefix, n) != 0)
        return false;
    char* end = nullptr;
    const long v = std::strtol(arg + n, &end, 10);
    if (*end != '\0' || end == arg + n || v <= 0 || v > INT_MAX) {
        std::fprintf(stderr, "cbradioload: bad value in %s\n", arg);
        std::exit(2);
    }
    value = static_cast<int>(v);
    return true;
}

Settings parse(int argc, char** argv)
{
    Settings s;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        int pid = 0;
        if (number(a, "--clients=", s.load.clients) || number(a, "--seconds=", s.seconds) ||
            number(a, "--timeout-ms=", s.load.timeoutMs))
            continue;
        if (number(a, "--pid=", pid)) {
            s.pid = pid;
        } else if (std::strncmp(a, "--name=", 7) == 0) {
            s.name = a + 7;
        } else if (std::strcmp(a, "--no-state-change") == 0) {
            s.load.mix.clear();
            for (const LoadCall& c : defaultLoadMix())
                if (c.method != "reqCBRStateChange")
                    s.load.mix.push_back(c);
        } else if (std::strcmp(a, "--bench") == 0) {
            s.bench = true;
        } else if (std::strcmp(a, "--peers") == 0) {
            s.benchOptions.peers = true;
        } else if (std::strcmp(a, "--stalled-trace-server") == 0) {
            s.benchOptions.stalledTraceServer = true;
        } else if (std::strcmp(a, "--no-console") == 0) {
            s.benchOptions.console = false;
        } else if (std::strcmp(a, "--keep") == 0) {
            s.benchOptions.keepRoot = true;
        } else if (std::strcmp(a, "--stop") == 0) {
            s.stop = true;
        } else if (std::strcmp(a, "--help") == 0) {
            usage(stdout);
            std::exit(0);
        } else {
            std::fprintf(stderr, "cbradioload: unknown option %s\n", a);
            usage(stderr);
            std::exit(2);
        }
    }
    return s;
}

// The bench's programs are next to this one: <build>/tools/cbradioload/cbradioload.
void locateBuildFolder()
{
    if (std::getenv("CBRADIO_BUILD_DIR") != nullptr)
        return;
    char exe[PATH_MAX] = {};
    if (::readlink("/proc/self/exe", exe, sizeof exe - 1) <= 0)
        return;
    std::string dir = exe;
    for (int up = 0; up < 3 && dir.rfind('/') != std::string::npos; ++up)
        dir.erase(dir.rfind('/'));
    ::setenv("CBRADIO_BUILD_DIR", dir.c_str(), 1);
}

// SIGTERM to a daemon that is not our child: it has ended when its /proc entry is gone.
LoadBench::StopResult stopForeign(pid_t pid)
{
    LoadBench::StopResult result;
    const auto t0 = std::chrono::steady_clock::now();
    ::kill(pid, SIGTERM);
    const bool ended = waitUntil([&] { return ::kill(pid, 0) != 0; }, kStopLimitMs * 2);
    result.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    result.exitStatus = ended ? 0 : -1;  // ended; the status itself goes to its parent
    return result;
}

void printFigures(const LoadFigures& f, int clients)
{
    std::printf("calls        %llu  (%.1f/s over %.1f s, %d clients)\n", static_cast<unsigned long long>(f.calls),
                f.callsPerSecond(), f.seconds, clients);
    std::printf("answered     %llu  (of them failure results: %llu)\n", static_cast<unsigned long long>(f.answered),
                static_cast<unsigned long long>(f.failureResults));
    std::printf("time-outs    %llu\n", static_cast<unsigned long long>(f.timeouts));
    std::printf("errors       %llu\n", static_cast<unsigned long long>(f.errors));
    if (!f.errorKinds.empty())
        std::printf("time-outs and errors by call:\n");
    for (const auto& kind : f.errorKinds)
        std::printf("  %llu x %s\n", static_cast<unsigned long long>(kind.second), kind.first.c_str());
    std::printf("latency      p50 %.3f ms  p99 %.3f ms  max %.3f ms\n", f.p50Us / 1000.0, f.p99Us / 1000.0,
                f.maxUs / 1000.0);
    std::printf("signals      %llu  (%.1f/s)\n", static_cast<unsigned long long>(f.signals),
                f.seconds > 0 ? f.signals / f.seconds : 0.0);
}
}

int main(int argc, char** argv)
{
    Settings s = parse(argc, argv);
    catchStopSignals(onInterrupt);

    LoadBench bench;
    pid_t pid = s.pid;
    if (s.bench) {
        locateBuildFolder();
        std::fprintf(stderr, "cbradioload: starting the bench\n");
        if (!bench.start(s.benchOptions)) {
            std::fprintf(stderr, "cbradioload: bench: %s\n", bench.error().c_str());
            return 2;
        }
        pid = bench.daemonPid();
        s.stop = true;
    } else if (pid == 0) {
        pid = findProcess(s.name);
        if (pid <= 0) {
            std::fprintf(stderr, "cbradioload: %s %s; give --pid\n", s.name.c_str(),
                         pid == 0 ? "is not running" : "runs more than once");
            return 2;
        }
    }

    std::printf("cbradioload: %d clients x %d s against pid %d%s%s\n", s.load.clients, s.seconds, static_cast<int>(pid),
                s.bench ? (" (bench in " + bench.root() + ")").c_str() : "",
                s.benchOptions.stalledTraceServer ? ", trace server stopped" : "");
    const long rssBefore = residentKb(pid);
    LoadClients clients(s.load);
    if (!clients.start()) {
        std::fprintf(stderr, "cbradioload: %s\n", clients.error().c_str());
        return 2;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(s.seconds);
    while (gInterrupted == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    clients.endCount();
    const long rssAfter = residentKb(pid);
    const long rssPeak = peakKb(pid);
    const LoadFigures figures = clients.figures();

    // The clients keep calling while the daemon is told to stop.
    LoadBench::StopResult stopped;
    if (s.stop && gInterrupted == 0)
        stopped = s.bench ? bench.stopDaemon(kStopLimitMs * 2) : stopForeign(pid);
    clients.stop();
    bench.stop();

    printFigures(figures, s.load.clients);
    std::printf("daemon RSS   before %ld kB  after %ld kB  (peak %ld kB)\n", rssBefore, rssAfter, rssPeak);
    bool clean = figures.timeouts == 0 && figures.errors == 0 && clients.stuckClients() == 0 && figures.calls > 0;
    if (clients.stuckClients() > 0)
        std::printf("stuck        %d clients did not come back from their call\n", clients.stuckClients());
    if (s.stop && gInterrupted == 0) {
        if (stopped.exitStatus < 0)
            std::printf("stop         still running %.0f ms after SIGTERM under load\n", stopped.ms);
        else if (s.bench)
            std::printf("stop         exit %d after %.1f ms (SIGTERM under load)\n", stopped.exitStatus, stopped.ms);
        else
            std::printf("stop         ended after %.1f ms (SIGTERM under load; its exit status goes to its parent)\n",
                        stopped.ms);
        clean = clean && stopped.exitStatus == 0 && stopped.ms <= kStopLimitMs;
    }
    std::printf("result       %s\n", clean ? "clean" : "NOT CLEAN");
    return clean ? 0 : 1;
}
