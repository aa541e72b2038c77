// The real cbradiod as a process: start frames, console, daemon mode, a service manager's
// notifications, stop signals, and faults at its edges (the V850 side or the daemon restarted
// under the other). The bus going away is a bus service gate (BusService_test).
#include "HeadUnit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <csignal>
#include <filesystem>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
const std::string SUCCESS = HeadUnit::kSuccess;
const char* const EXITING = "@ ----- Exiting CBRadio Service ----- @";
std::string (*const body)(const std::string&, int) = HeadUnit::body;

// Finds a console trace line "[KIND]@<ms> (<pid>.<tid>): <body>" and returns its process id,
// or 0 when there is none.
unsigned findConsoleLine(const std::string& text, const std::string& kind, const std::string& body)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        char k[4] = {};
        unsigned ms, pid, tid;
        int bodyAt = -1;
        if (std::sscanf(line.c_str(), "[%3[^]]]@%u (%u.%u): %n", k, &ms, &pid, &tid, &bodyAt) == 4 && bodyAt > 0 &&
            kind == k && line.compare(static_cast<size_t>(bodyAt), std::string::npos, body) == 0)
            return pid;
    }
    return 0;
}

// The value of a /proc status field ("SigBlk:", "ctxt_switches:") summed over the lines that
// hold it, for every thread of the process other than the main one; keyed by the thread's name.
std::vector<std::pair<std::string, unsigned long long>> threadField(pid_t pid, const std::string& field, int base)
{
    std::vector<std::pair<std::string, unsigned long long>> threads;
    std::error_code gone;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", gone)) {
        if (task.path().filename() == std::to_string(pid))
            continue;
        std::istringstream status(HeadUnit::readFile(task.path() / "status"));
        unsigned long long value = 0;
        for (std::string line; std::getline(status, line);)
            if (line.find(field) != std::string::npos)
                value += std::stoull(line.substr(line.find(':') + 1), nullptr, base);
        threads.emplace_back(HeadUnit::readFile(task.path() / "comm"), value);
    }
    return threads;
}

// The worker drops a wake-up that comes before it first waits (by design); a second signal is
// harmless, so a test that misses the window simply signals again.
void stopWith(HeadUnit& unit, pid_t pid, int sig)
{
    ASSERT_TRUE(unit.waitForTrace("[CBR run] Req processing thread running...", 0, 5000));
    for (int attempt = 0; attempt < 3 && !unit.waitForTrace(EXITING, 0, attempt == 0 ? 0 : 1500); ++attempt)
        ::kill(pid, sig);
    EXPECT_TRUE(unit.waitForTrace(EXITING, 0, 1500));
}

// A head unit without a bus for the daemon; tracesrv, when asked for, keeps the trace thread
// connected.
HeadUnit::Options withoutBus(bool simulator, bool traceServer)
{
    HeadUnit::Options options;
    options.writeEnvars = false;
    options.startSimulator = simulator;
    options.recordSignals = false;
    if (traceServer)
        options.beforeDaemon = [](HeadUnit& u) {
            return u.spawn({HeadUnit::buildDir() + "/tools/tracesrv/tracesrv", "--no-stdin"}, "tracesrv") > 0 &&
                   HeadUnit::waitUntil([&] { return ::access(u.path("dev/mv2trace/register").c_str(), F_OK) == 0; },
                                       3000);
        };
    return options;
}
}

TEST(Daemon, ForegroundServiceSendsStartFramesAndTracesToConsoleFromTheMainThreadOnly)
{
    HeadUnit unit;
    ASSERT_TRUE(unit.start(withoutBus(true, true))) << unit.error();
    // The start frames (hardware version, software version, weather alert on), in order among the
    // answers to the simulator's announcement, one second apart.
    const std::vector<std::string> expected = {"07 00", "08 00", "0C 01 01"};
    std::vector<double> times;
    ASSERT_TRUE(HeadUnit::waitUntil(
        [&] {
            times.clear();
            std::istringstream log(unit.simulatorLog());
            for (std::string line; std::getline(log, line);) {
                double seconds;
                char bytes[400];
                if (std::sscanf(line.c_str(), "%lf RX %399[^\n]", &seconds, bytes) == 2 &&
                    times.size() < expected.size() && bytes == expected[times.size()])
                    times.push_back(seconds);
            }
            return times.size() == expected.size();
        },
        6000));
    for (int i = 1; i < 3; ++i) {
        EXPECT_GE(times[i] - times[i - 1], 0.95) << i;
        EXPECT_LE(times[i] - times[i - 1], 1.5) << i;
    }

    const std::string text = unit.daemonOutput();
    const unsigned pid = static_cast<unsigned>(unit.daemonPid());
    EXPECT_EQ(pid, findConsoleLine(text, "MSG", "[CBRadio] Up and Running..."));
    EXPECT_EQ(pid, findConsoleLine(text, "-->", "CBRadio_main_main"));
    EXPECT_NE(std::string::npos, text.find("\n[CBR]reqCBR_WA_OnOffRequest WriteOut c 1 1 \n"));
    EXPECT_NE(std::string::npos, text.find("\n[CBR] initializing State machine...\n"));
    EXPECT_EQ(std::string::npos, unit.daemonErrors().find("Error opening"));
    EXPECT_TRUE(unit.traced("\n[CBR] DBUS not started on the target\n"));  // no envars.sh at all
    // The termination handler traces: only the main thread, waiting in a join, may run it.
    const unsigned long long termination = (1ull << (SIGINT - 1)) | (1ull << (SIGHUP - 1)) | (1ull << (SIGTERM - 1));
    for (const auto& thread : threadField(unit.daemonPid(), "SigBlk:", 16))
        EXPECT_EQ(termination, thread.second & termination) << thread.first;

    // Signals all through the shutdown (the trace server's connection makes the trace thread's
    // end take a while) are harmless.
    ASSERT_TRUE(unit.waitForTrace("[CBR run] Req processing thread running..."));
    int status = -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (int i = 0; std::chrono::steady_clock::now() < deadline && (status = unit.waitDaemon(0)) == -1; ++i) {
        ::kill(unit.daemonPid(), i % 2 ? SIGINT : SIGTERM);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    ASSERT_EQ(0, status) << unit.daemonErrors();
    // Once the service object is gone no handler may run: it would post to a destroyed queue.
    const std::string end = unit.daemonOutput();
    const size_t exiting = end.find(EXITING);
    ASSERT_NE(std::string::npos, exiting);
    EXPECT_NE(std::string::npos, end.find("[CBRadio] CAUTION!!! - CBRadio Service rcvd signal to exit ("));
    EXPECT_EQ(std::string::npos, end.find("rcvd signal to exit", exiting));
}

TEST(Daemon, DetachesIntoItsOwnSessionAtTheRootDirectory)
{
    HeadUnit unit;
    HeadUnit::Options options = withoutBus(false, false);
    options.daemonEnv = {{"CBRADIO_FOREGROUND", "0"}};
    ASSERT_TRUE(unit.start(options)) << unit.error();
    const pid_t parent = unit.daemonPid();
    EXPECT_EQ(0, unit.waitDaemon(2000));  // the parent leaves at once

    const pid_t daemon = static_cast<pid_t>(findConsoleLine(unit.daemonOutput(), "-->", "CBRadio_main_main"));
    ASSERT_NE(0, daemon);
    struct KillAtEnd
    {
        pid_t pid;
        ~KillAtEnd() { ::kill(pid, SIGKILL); }
    } detached{daemon};
    EXPECT_NE(parent, daemon);
    EXPECT_EQ(daemon, ::getsid(daemon));
    char cwd[256] = {};
    EXPECT_GT(::readlink(("/proc/" + std::to_string(daemon) + "/cwd").c_str(), cwd, sizeof(cwd) - 1), 0);
    EXPECT_STREQ("/", cwd);

    stopWith(unit, daemon, SIGINT);
    EXPECT_TRUE(HeadUnit::waitUntil([&] { return ::kill(daemon, 0) != 0; }, 5000));
    EXPECT_TRUE(unit.traced("rcvd signal to exit (2)\n"));
}

// As a service manager would start it: its readiness and its stop are announced on NOTIFY_SOCKET,
// and an envars.sh that others may write is refused in the system log, even though the
// environment names a bus.
TEST(Daemon, UnderAServiceManagerRefusesAnEnvarsFileOthersCanWriteAndReportsReadinessAndStop)
{
    HeadUnit unit;
    HeadUnit::Options options = withoutBus(false, false);
    int notify = -1;
    options.beforeDaemon = [&](HeadUnit& u) {
        std::ofstream(u.path("tmp/envars.sh")) << "export DBUS_SESSION_BUS_ADDRESS='unix:path=/nowhere';\n";
        ::chmod(u.path("tmp/envars.sh").c_str(), 0666);
        notify = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", u.path("notify").c_str());
        u.options().daemonEnv = {{"NOTIFY_SOCKET", u.path("notify")},
                                 {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere/either"},
                                 {"CBRADIO_SYSLOG_STDERR", "1"}};
        return ::bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    };
    ASSERT_TRUE(unit.start(options)) << unit.error();
    auto nextNotice = [&] {
        pollfd readable = {notify, POLLIN, 0};
        char text[256] = {};
        if (::poll(&readable, 1, 5000) != 1 || ::recv(notify, text, sizeof(text) - 1, 0) <= 0)
            return std::string("<none>");
        return std::string(text);
    };
    EXPECT_EQ("READY=1", nextNotice());
    const std::string errors = unit.daemonErrors();
    EXPECT_NE(std::string::npos, errors.find("\n[CBRadio] Error opening /dev/ipc/ch6!\n"));
    EXPECT_TRUE(unit.traced("\n[CBR] Error Opening /dev/ipc/ch6\n"));
    EXPECT_NE(std::string::npos, errors.find("[CBR] ERROR: not reading " + unit.path("tmp/envars.sh") +
                                             ": it is writable by group or others (mode 666); running without a bus"));
    EXPECT_TRUE(unit.traced("\n[CBR] DBUS not started on the target\n"));
    EXPECT_FALSE(unit.traced("DBUS_SESSION_BUS_ADDRESS now available"));
    // Without a bus the service runs on silently: no clients, no signals.
    EXPECT_FALSE(unit.traced("registering Clients"));
    EXPECT_TRUE(unit.traced("\n[CBR] sendCBRHWConnectionStatus: Service Not initialized\n"));

    stopWith(unit, unit.daemonPid(), SIGTERM);
    EXPECT_EQ("STOPPING=1", nextNotice());
    EXPECT_EQ(0, unit.waitDaemon(5000)) << unit.daemonErrors();
    ::close(notify);
    const std::string text = unit.daemonOutput();
    EXPECT_NE(std::string::npos, text.find("\n[CBR run] exiting Req processing thread...\n"));
    EXPECT_LT(text.find("[CBR run] exiting"), text.find(EXITING));
}

// Whoever restarts, the daemon learns the module's state from the announcement on the new
// connection: a restarted daemon knows the radio is on and seeks at once; after a restarted
// simulator (radio off) it follows the simulator, and its next frame reaches the new connection.
// Meanwhile the daemon lives on and its reader waits for the simulator's return without spinning.
TEST(Faults, RestartedDaemonOrSimulatorFollowsTheAnnouncedState)
{
    HeadUnit unit;
    ASSERT_TRUE(unit.start(HeadUnit::Options())) << unit.error();
    unit.simulator("hw back");
    unit.simulator("on");
    ASSERT_TRUE(unit.waitForTrace("\n[CBRadio] [CH6] CBR_ON_OFF state = 1\n"));

    ASSERT_TRUE(unit.stopDaemon());
    ASSERT_TRUE(unit.startDaemon()) << unit.error();
    const size_t frames = unit.frameMark();
    size_t signals = unit.signalMark();
    std::string data;
    EXPECT_EQ(SUCCESS, unit.call("reqCBRStartSeek", "{\"seekDirection\":1}").text);
    EXPECT_TRUE(unit.waitForFrame("02 01 02", frames));
    EXPECT_TRUE(unit.waitForSignal("CBRChannelNumber", data, signals));
    EXPECT_EQ(body("ChannelNumber", 2), data);

    // It used to read 0 bytes a thousand times a second while the simulator was away.
    ::kill(unit.simulatorPid(), SIGTERM);
    ASSERT_TRUE(HeadUnit::waitUntil([&] { return ::access(unit.path("dev/ipc/ch6").c_str(), F_OK) != 0; }, 3000));
    auto readerSwitches = [&] {
        for (const auto& thread : threadField(unit.daemonPid(), "ctxt_switches:", 10))
            if (thread.first == "/dev/ipc/ch6\n")
                return static_cast<long>(thread.second);
        return -1L;
    };
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long before = readerSwitches();
    ASSERT_GE(before, 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_LT(readerSwitches() - before, 100);
    EXPECT_EQ(0, ::kill(unit.daemonPid(), 0)) << "the daemon ended";

    // The simulator restarted on the same node: reconnected, radio off as announced.
    signals = unit.signalMark();
    unit.spawn({HeadUnit::buildDir() + "/tools/v850sim/v850sim", "--no-stdin", "--log=" + unit.path("sim2.log")},
               "sim2");
    EXPECT_TRUE(unit.waitForSignal("CBRadioStatus", data, signals, 5000));
    EXPECT_EQ(body("Status", 0), data);
    signals = unit.signalMark();
    EXPECT_EQ(SUCCESS, unit.call("reqCBRStateChange", "{\"CBRState\":1}").text);
    EXPECT_TRUE(unit.waitForFile("sim2.log", " RX 01 01 01\n")) << HeadUnit::readFile(unit.path("sim2.log"));
    EXPECT_TRUE(unit.waitForSignal("CBRadioStatus", data, signals));
    EXPECT_EQ(body("Status", 1), data);
}
