// LoadBench: a whole head unit for a load run, started by the load tool itself.
//
// start() brings up, in a fresh temporary CBRADIO_ROOT: a private dbus-daemon, v850sim, peersim
// when asked for, the trace server when asked for, and cbradiod (in the foreground, its console in
// daemon.out under the root), and returns once the service answers methods with its data
// initialised. With a stalled trace server, tracesrv is started before the daemon and stopped
// (SIGSTOP) as soon as the daemon has connected to it: from then on nobody reads the daemon's
// trace records. Afterwards DBUS_SESSION_BUS_ADDRESS names the private bus in this process.
//
// stopDaemon() sends SIGTERM once and waits; stop() ends everything and removes the root (kept
// with keepRoot). The programs are taken from the build folder in CBRADIO_BUILD_DIR.
//
// Not thread-safe: one controlling thread.
#ifndef LOADBENCH_H
#define LOADBENCH_H

#include "HeadUnit.h"

#include <sys/types.h>

#include <string>

class LoadBench
{
public:
    struct Options
    {
        bool peers = false;
        bool stalledTraceServer = false;
        bool console = true;  // the daemon traces every scope to its console
        bool keepRoot = false;
    };

    struct StopResult
    {
        int exitStatus = -1;  // -1: still running at the deadline (then killed)
        double ms = 0;        // from SIGTERM until it ended (or the deadline)
    };

    LoadBench() = default;
    ~LoadBench();
    LoadBench(const LoadBench&) = delete;
    LoadBench& operator=(const LoadBench&) = delete;

    bool start(const Options& options);
    pid_t daemonPid() const { return mUnit.daemonPid(); }
    const std::string& root() const { return mRoot; }
    const std::string& error() const { return mError; }
    StopResult stopDaemon(int timeoutMs);
    void stop();

private:
    bool fail(const std::string& why);
    bool waitUntilServing(int timeoutMs);

    HeadUnit mUnit;
    Options mOptions;
    pid_t mTraceServer = -1;
    std::string mRoot;
    std::string mError;
};

#endif
