#include "HeadUnit.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

const char* const HeadUnit::kServiceName = "com.quorin.service.CBRadioService";
const char* const HeadUnit::kServicePath = "/com/quorin/service/CBRadioService";
const char* const HeadUnit::kSuccess = "{\"code\":0,\"description\":\"success\"}\n";
const char* const HeadUnit::kFailure = "{\"code\":1,\"description\":\"failure\"}\n";

namespace
{
const char* const kServiceSignals[] = {
    "CBRadioStatus",         "CBRChannelNumber", "CBRSquelchLevel",           "CBRReceptionSensitivity",
    "CBRHWConnectionStatus", "CBRRxTxStatus",    "CBRWeatherAlertOnOffStatus"};
}

HeadUnit::~HeadUnit()
{
    stop();
}

bool HeadUnit::fail(const std::string& why)
{
    mError = why;
    return false;
}

bool HeadUnit::start(const Options& options)
{
    mOptions = options;
    // A simulator that has gone must fail a command, not end the test.
    ::signal(SIGPIPE, SIG_IGN);
    const std::pair<bool, const char*> programs[] = {{options.startDaemon, "/cbradio/cbradiod"},
                                                     {options.startSimulator, "/tools/v850sim/v850sim"},
                                                     {options.startPeers, "/tools/peersim/peersim"}};
    for (const auto& program : programs)
        if (program.first && ::access((buildDir() + program.second).c_str(), X_OK) != 0)
            return fail(buildDir() + program.second + " is missing (CBRADIO_BUILD_DIR names the build folder)");
    char dir[] = "/tmp/cbradio-headunit-XXXXXX";
    if (::mkdtemp(dir) == nullptr)
        return fail(std::string("mkdtemp: ") + std::strerror(errno));
    mRoot = dir;
    ::mkdir(path("tmp").c_str(), 0755);
    std::ofstream(path("trace.tp")) << options.traceSettings;

    if (!mBus.start())
        return fail("private bus: " + mBus.error());
    if (options.writeEnvars) {
        std::ofstream(path("tmp/envars.sh")) << "export DBUS_SESSION_BUS_ADDRESS='" << mBus.address() << "';\n"
                                             << "export DBUS_SESSION_BUS_PID=" << mBus.pid() << ";\n";
        // The daemon reads it only when group and others cannot write it, whatever our umask.
        ::chmod(path("tmp/envars.sh").c_str(), 0644);
    }
    if (!startClient())
        return false;

    if (options.startSimulator) {
        std::vector<std::string> args = {buildDir() + "/tools/v850sim/v850sim", "--log=" + path("sim.log")};
        if (!launch(mSimulator, args, "sim", {}, {}, &mSimulatorInput))
            return false;
        if (!waitUntil([&] { return ::access(path("dev/ipc/ch6").c_str(), F_OK) == 0; }, 5000))
            return fail("the simulator did not create dev/ipc/ch6:\n" + readFile(path("sim.err")));
    }
    if (options.startPeers) {
        std::vector<std::string> args = {buildDir() + "/tools/peersim/peersim", "--log=" + path("peersim.log")};
        args.insert(args.end(), options.peerArgs.begin(), options.peerArgs.end());
        // Commands run in order, so once "status" answers, the first ones are done and every peer
        // has joined the bus.
        if (!launch(mPeers, args, "peersim", {}, {}, &mPeerInput) || !peers("status") ||
            !waitForFile("peersim.log", "on the bus:", 0, 10000))
            return fail("peersim did not come up:\n" + readFile(path("peersim.err")));
    }

    if (options.beforeDaemon && !options.beforeDaemon(*this))
        return fail(mError.empty() ? "the beforeDaemon hook failed" : mError);
    return !options.startDaemon || startDaemon();
}

bool HeadUnit::startDaemon()
{
    std::map<std::string, std::string> env = mOptions.daemonEnv;
    // The daemon learns the bus only from envars.sh, as on the target.
    const std::vector<std::string> unset = {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SESSION_BUS_PID"};
    env.emplace("CBRADIO_FOREGROUND", "1");
    if (!launch(mDaemon, {buildDir() + "/cbradio/cbradiod", "--tp=" + path("trace.tp")}, "daemon", env, unset))
        return false;
    if (!mOptions.readyTrace.empty() && !waitForTrace(mOptions.readyTrace, 0, 15000))
        return fail("the daemon did not come up:\n" + daemonOutput() + daemonErrors());
    return true;
}

bool HeadUnit::launch(ChildProcess& child, const std::vector<std::string>& argv, const std::string& name,
                      std::map<std::string, std::string> env, const std::vector<std::string>& unset, int* input)
{
    int pipeFds[2] = {-1, -1};
    if (input != nullptr && ::pipe2(pipeFds, O_CLOEXEC) != 0)
        return fail("pipe for " + name);
    env.emplace("CBRADIO_ROOT", mRoot);
    ChildProcess::Io io;
    io.in = pipeFds[0];
    io.outPath = path(name + ".out");
    io.errPath = path(name + ".err");
    const bool started = child.start(argv, ChildProcess::environmentWith(env, unset), io);
    if (input != nullptr) {
        ::close(pipeFds[0]);
        *input = pipeFds[1];
    }
    return started || fail("cannot start " + argv[0]);
}

bool HeadUnit::startClient()
{
    if (SVCIPC_initialize() != 0)
        return fail("SVCIPC_initialize");
    mSvcIpcStarted = true;
    ::setenv("DBUS_SESSION_BUS_ADDRESS", mBus.address().c_str(), 1);
    SVCIPC_tError status = SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 1, &mClient);
    if (status != 0)
        return fail(std::string("client connection: ") + SVCIPC_errorText(status));
    for (const char* name : kServiceSignals)
        if (mOptions.recordSignals && !listen(kServicePath, name))
            return false;
    return true;
}

bool HeadUnit::listen(const std::string& path, const std::string& signal)
{
    SVCIPC_tSigSubHnd sub = nullptr;
    return subscribed(SVCIPC_subscribe(mClient, path.c_str(), signal.c_str(), &HeadUnit::onSignal, this, &sub), sub,
                      signal);
}

bool HeadUnit::watchOwner(const std::string& name)
{
    SVCIPC_tSigSubHnd sub = nullptr;
    return subscribed(SVCIPC_subscribeOwnerChanged(mClient, name.c_str(), &HeadUnit::onOwner, this, &sub), sub, name);
}

bool HeadUnit::subscribed(SVCIPC_tError status, SVCIPC_tSigSubHnd sub, const std::string& what)
{
    if (status != 0)
        return fail("subscribe " + what + ": " + SVCIPC_errorText(status));
    mSubscriptions.push_back(sub);
    return true;
}

void HeadUnit::onSignal(const char* sigName, const char* data, SVCIPC_tUserToken token)
{
    static_cast<HeadUnit*>(token)->record(Signal{sigName ? sigName : "", data ? data : ""});
}

void HeadUnit::onOwner(const char* name, const char*, const char* newOwner, SVCIPC_tUserToken token)
{
    static_cast<HeadUnit*>(token)->record(Signal{name, *newOwner ? "joined" : "left"});
}

void HeadUnit::record(const Signal& signal)
{
    std::lock_guard<std::mutex> lock(mSignalMutex);
    mSignals.push_back(signal);
    mSignalArrived.notify_all();
}

bool HeadUnit::stopDaemon()
{
    return !mDaemon.running() || mDaemon.stop() >= 0;
}

void HeadUnit::stop()
{
    stopDaemon();
    for (auto& child : mSpawned)
        child->stop(1000);
    mSpawned.clear();
    for (int* input : {&mSimulatorInput, &mPeerInput}) {
        if (*input >= 0)
            ::close(*input);
        *input = -1;
    }
    mSimulator.stop(1000);
    mPeers.stop(1000);
    for (SVCIPC_tSigSubHnd sub : mSubscriptions)
        SVCIPC_unsubscribe(sub);
    mSubscriptions.clear();
    if (mClient != nullptr) {
        SVCIPC_closeConnection(mClient);
        mClient = nullptr;
    }
    if (mSvcIpcStarted) {
        SVCIPC_shutdown();
        mSvcIpcStarted = false;
    }
    mBus.stop();
    std::error_code ignored;
    if (!mRoot.empty() && std::getenv("CBRADIO_KEEP_ROOT") == nullptr)
        std::filesystem::remove_all(mRoot, ignored);
    mRoot.clear();
}

pid_t HeadUnit::spawn(const std::vector<std::string>& argv, const std::string& name,
                      std::map<std::string, std::string> env)
{
    env.emplace("DBUS_SESSION_BUS_ADDRESS", mBus.address());
    mSpawned.push_back(std::make_unique<ChildProcess>());
    launch(*mSpawned.back(), argv, name, env);
    return mSpawned.back()->pid();
}

bool HeadUnit::writeLine(int fd, const std::string& command)
{
    const std::string line = command + "\n";
    return fd >= 0 && ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

bool HeadUnit::simulator(const std::string& command)
{
    return writeLine(mSimulatorInput, command);
}

bool HeadUnit::peers(const std::string& command)
{
    return writeLine(mPeerInput, command);
}

bool HeadUnit::waitForFile(const std::string& relative, const std::string& text, size_t from, int timeoutMs) const
{
    return waitUntil([&] { return readFile(path(relative)).find(text, from) != std::string::npos; }, timeoutMs);
}

std::vector<std::string> HeadUnit::framesFromHeadUnit() const
{
    // "   5.126 RX 01 01 01": the seconds, the direction, the bytes.
    std::vector<std::string> frames;
    std::istringstream lines(simulatorLog());
    for (std::string line; std::getline(lines, line);)
        if (line.find(" RX ") != std::string::npos)
            frames.push_back(line.substr(line.find(" RX ") + 4));
    return frames;
}

std::vector<std::string> HeadUnit::framesSince(size_t mark) const
{
    std::vector<std::string> frames = framesFromHeadUnit();
    frames.erase(frames.begin(), frames.begin() + std::min(mark, frames.size()));
    return frames;
}

bool HeadUnit::waitForFrame(const std::string& frame, size_t from, int timeoutMs) const
{
    return waitUntil(
        [&] {
            const std::vector<std::string> frames = framesSince(from);
            return std::find(frames.begin(), frames.end(), frame) != frames.end();
        },
        timeoutMs);
}

HeadUnit::Reply HeadUnit::callOf(const std::string& name, const std::string& path, const std::string& method,
                                 const std::string& params, int timeoutMs) const
{
    Reply reply;
    SVCIPC_tResponse* response = nullptr;
    reply.status = SVCIPC_invoke(mClient, name.c_str(), path.c_str(), method.c_str(), params.c_str(), 0,
                                 static_cast<SVCIPC_tUInt32>(timeoutMs), &response);
    if (reply.status == 0 && response != nullptr) {
        reply.text = response->result != nullptr ? response->result : "";
        SVCIPC_freeResponse(response);
    }
    return reply;
}

size_t HeadUnit::signalMark() const
{
    std::lock_guard<std::mutex> lock(mSignalMutex);
    return mSignals.size();
}

std::vector<HeadUnit::Signal> HeadUnit::signalsSince(size_t mark) const
{
    std::lock_guard<std::mutex> lock(mSignalMutex);
    return std::vector<Signal>(mSignals.begin() + std::min(mark, mSignals.size()), mSignals.end());
}

bool HeadUnit::waitForSignal(const std::string& name, std::string& data, size_t from, int timeoutMs) const
{
    std::unique_lock<std::mutex> lock(mSignalMutex);
    auto found = mSignals.end();
    mSignalArrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        found = std::find_if(mSignals.begin() + std::min(from, mSignals.size()), mSignals.end(),
                             [&](const Signal& s) { return s.name == name; });
        return found != mSignals.end();
    });
    if (found != mSignals.end())
        data = found->data;
    return found != mSignals.end();
}
