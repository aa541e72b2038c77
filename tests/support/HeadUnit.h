// HeadUnit: a whole simulated head unit for end-to-end tests and benchmarks.
//
// start() builds, in a fresh temporary CBRADIO_ROOT: a PrivateBus and tmp/envars.sh naming it;
// the real v850sim on dev/ipc/ch6 (sim.log; commands through simulator()); with startPeers, the
// real peersim (peersim.log; commands through peers()), ready once its first commands are done
// and every peer is on the bus; the beforeDaemon hook (e.g. a name owner made with client()); then
// the real cbradiod (startDaemon()), which learns the bus only from envars.sh. A service-IPC
// client of the test's own (client()) records the service's signals from the start, in order.
//
// Waiting is polling with a deadline, never a fixed sleep. Marks (traceMark, frameMark,
// signalMark) let a test look only at what came after a point. stop() (or destruction) ends the
// daemon with SIGTERM (SIGKILL after a few seconds), then everything else, and removes the root.
//
// Not thread-safe, except that signals are recorded on service-IPC threads.
#ifndef HEADUNIT_H
#define HEADUNIT_H

#include "ChildProcess.h"
#include "PrivateBus.h"
#include "svcipc.h"

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class HeadUnit
{
public:
    struct Options
    {
        bool writeEnvars = true;
        bool startSimulator = true;
        bool startPeers = false;
        bool startDaemon = true;
        std::vector<std::string> peerArgs;             // e.g. {"--cmd", "silent all"}
        std::map<std::string, std::string> daemonEnv;  // CBRADIO_FOREGROUND=1 unless set here
        // Trace settings file text; the default switches every scope on, to the console.
        std::string traceSettings = "JTTracePersistence 1.1.0\n* 7f 8\n";
        std::function<bool(HeadUnit&)> beforeDaemon;  // false: start() fails
        // startDaemon() waits for this console line (15 s at most); empty: it returns once the
        // daemon is launched (for trace settings that keep the console quiet).
        std::string readyTrace = "[CBRadio] Up and Running...";
        bool recordSignals = true;  // subscribe the client to the service's signals
    };

    struct Signal
    {
        std::string name;
        std::string data;
    };

    struct Reply
    {
        SVCIPC_tError status = 0;  // 0, or the failure status of the call (time-out, ...)
        std::string text;
        bool ok() const { return status == 0; }
    };

    static const char* const kServiceName;
    static const char* const kServicePath;
    // The service's standard replies, and its one-member signal texts ({"Status":1}).
    static const char* const kSuccess;
    static const char* const kFailure;
    static std::string body(const std::string& key, int value)
    {
        return "{\"" + key + "\":" + std::to_string(value) + "}\n";
    }

    HeadUnit() = default;
    ~HeadUnit();
    HeadUnit(const HeadUnit&) = delete;
    HeadUnit& operator=(const HeadUnit&) = delete;

    bool start(const Options& options);
    void stop();
    // Starts the daemon (again, after stopDaemon(): daemon.out and daemon.err start anew, so
    // older trace marks no longer apply) and waits for Options::readyTrace.
    bool startDaemon();
    // Ends the daemon alone (SIGTERM, repeated; SIGKILL after 3 s). True when it ended by itself.
    bool stopDaemon();
    // Waits for the daemon to end after a signal the caller sent: its exit status (128 + signal
    // when a signal ended it), or -1 when it is still running after timeoutMs.
    int waitDaemon(int timeoutMs) { return mDaemon.wait(timeoutMs); }
    const std::string& error() const { return mError; }
    // The options start() was given; a beforeDaemon hook may still change the daemon's.
    Options& options() { return mOptions; }

    // ---- places and processes -------------------------------------------------------------
    const std::string& root() const { return mRoot; }
    std::string path(const std::string& relative) const { return mRoot + "/" + relative; }
    PrivateBus& bus() { return mBus; }
    pid_t daemonPid() const { return mDaemon.pid(); }
    pid_t simulatorPid() const { return mSimulator.pid(); }
    static std::string buildDir() { return ::buildDir(); }
    // Starts a program with CBRADIO_ROOT, the bus address and `env` set; standard output and
    // error go to <name>.out / <name>.err under the root. Ended by stop() with SIGTERM.
    pid_t spawn(const std::vector<std::string>& argv, const std::string& name,
                std::map<std::string, std::string> env = {});
    static std::string readFile(const std::string& path) { return ::readFile(path); }
    // Whether the file under the root holds `text` at or after `from` within timeoutMs.
    bool waitForFile(const std::string& relative, const std::string& text, size_t from = 0, int timeoutMs = 5000) const;

    // ---- the daemon's console -------------------------------------------------------------
    std::string daemonOutput() const { return readFile(path("daemon.out")); }
    std::string daemonErrors() const { return readFile(path("daemon.err")); }
    size_t traceMark() const { return daemonOutput().size(); }
    bool traced(const std::string& text, size_t from = 0) const
    {
        return daemonOutput().find(text, from) != std::string::npos;
    }
    bool waitForTrace(const std::string& text, size_t from = 0, int timeoutMs = 3000) const
    {
        return waitForFile("daemon.out", text, from, timeoutMs);
    }
    // How often `text` occurs in the console output after `from`.
    size_t traceCount(const std::string& text, size_t from = 0) const { return countOf(daemonOutput(), text, from); }

    // ---- the V850 simulator and the peers -------------------------------------------------
    // Sends one command line to the simulator's standard input (e.g. "on", "raw 02 02 05 A0").
    bool simulator(const std::string& command);
    std::string simulatorLog() const { return readFile(path("sim.log")); }
    // Frames the head unit wrote, as logged ("02 01 02"), in order.
    std::vector<std::string> framesFromHeadUnit() const;
    size_t frameMark() const { return framesFromHeadUnit().size(); }
    std::vector<std::string> framesSince(size_t mark) const;
    bool waitForFrame(const std::string& frame, size_t from = 0, int timeoutMs = 3000) const;
    // Sends one command line to peersim (e.g. "power 1").
    bool peers(const std::string& command);
    std::string peerLog() const { return readFile(path("peersim.log")); }

    // ---- the bus client -------------------------------------------------------------------
    SVCIPC_tConnection client() const { return mClient; }
    Reply call(const std::string& method, const std::string& params = "", int timeoutMs = 3000) const
    {
        return callOf(kServiceName, kServicePath, method, params, timeoutMs);
    }
    // A call of another service (a peer's).
    Reply callOf(const std::string& name, const std::string& path, const std::string& method,
                 const std::string& params = "", int timeoutMs = 3000) const;
    // Records the signal `signal` of the object at `path` as well.
    bool listen(const std::string& path, const std::string& signal);
    // Records owner changes of a bus name as signals named after it, carrying "joined" or "left".
    bool watchOwner(const std::string& name);
    std::vector<Signal> signals() const { return signalsSince(0); }
    size_t signalMark() const;
    // The first signal named `name` at or after index `from`; false on time-out.
    bool waitForSignal(const std::string& name, std::string& data, size_t from = 0, int timeoutMs = 3000) const;
    std::vector<Signal> signalsSince(size_t mark) const;

    static bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
    {
        return ::waitUntil(condition, timeoutMs);
    }

private:
    bool fail(const std::string& why);
    bool startClient();
    // Starts a program with CBRADIO_ROOT and `env` set, `unset` removed, its output in <name>.out
    // and <name>.err; with `input`, its standard input is a pipe whose writing end goes there.
    bool launch(ChildProcess& child, const std::vector<std::string>& argv, const std::string& name,
                std::map<std::string, std::string> env, const std::vector<std::string>& unset = {},
                int* input = nullptr);
    bool subscribed(SVCIPC_tError status, SVCIPC_tSigSubHnd sub, const std::string& what);
    static bool writeLine(int fd, const std::string& line);
    static void onSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onOwner(const char* name, const char* oldOwner, const char* newOwner, SVCIPC_tUserToken token);
    void record(const Signal& signal);

    Options mOptions;
    std::string mRoot;
    std::string mError;
    PrivateBus mBus;
    ChildProcess mDaemon;
    ChildProcess mSimulator;
    ChildProcess mPeers;
    int mSimulatorInput = -1;
    int mPeerInput = -1;
    std::vector<std::unique_ptr<ChildProcess>> mSpawned;
    bool mSvcIpcStarted = false;
    SVCIPC_tConnection mClient = nullptr;
    std::vector<SVCIPC_tSigSubHnd> mSubscriptions;

    mutable std::mutex mSignalMutex;
    mutable std::condition_variable mSignalArrived;
    std::vector<Signal> mSignals;
};

#endif
