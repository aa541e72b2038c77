// Faults at the daemon's edges with a whole simulated head unit: the V850 side or the daemon
// restarted under the other, and the bus going away under the daemon.
#include "HeadUnit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <dirent.h>
#include <memory>
#include <thread>
#include <unistd.h>
#include <sstream>

namespace
{
    const std::string SUCCESS = "{\"code\":0,\"description\":\"success\"}\n";

    std::string body(const std::string& key, int value)
    {
        return "{\"" + key + "\":" + std::to_string(value) + "}\n";
    }

    bool waitForSignalData(const HeadUnit& unit, const std::string& name, const std::string& data, size_t from)
    {
        return HeadUnit::waitUntil([&] {
            for (const HeadUnit::Signal& s : unit.signalsSince(from))
                if (s.name == name && s.data == data)
                    return true;
            return false;
        }, 5000);
    }

    // Context switches so far of the process's V850 reader thread (named after its node); -1 when
    // there is none.
    long readerWakeUps(pid_t pid)
    {
        const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(tasks.c_str()), ::closedir);
        for (dirent* e; dir && (e = ::readdir(dir.get())) != nullptr;) {
            const std::string task = tasks + "/" + e->d_name;
            if (e->d_name[0] == '.' || HeadUnit::readFile(task + "/comm") != "/dev/ipc/ch6\n")
                continue;
            std::istringstream status(HeadUnit::readFile(task + "/status"));
            long switches = 0;
            for (std::string line; std::getline(status, line);)
                if (line.find("ctxt_switches:") != std::string::npos)
                    switches += std::stol(line.substr(line.find(':') + 1));
            return switches;
        }
        return -1;
    }

    std::string daemonCommand(const HeadUnit&)
    {
        return HeadUnit::buildDir() + "/cbradio/cbradiod";
    }
}

// Whoever restarts, the daemon learns the module's state from the announcement on the new
// connection: a restarted daemon knows the radio is on and seeks at once; after a restarted
// simulator (radio off) it follows the simulator, and its next frame reaches the new connection.
// Meanwhile the reader waits for the simulator's return without spinning.
TEST(Faults, RestartedDaemonOrSimulatorFollowsTheAnnouncedState)
{
    HeadUnit unit;
    ASSERT_TRUE(unit.start()) << unit.error();
    unit.simulator("hw back");
    unit.simulator("on");
    ASSERT_TRUE(unit.waitForTrace("\n[CBRadio] [CH6] CBR_ON_OFF state = 1\n"));

    ASSERT_TRUE(unit.stopDaemon());
    const pid_t daemon2 =
        unit.spawn({daemonCommand(unit), "--tp=" + unit.path("trace.tp")}, "daemon2", {{"CBRADIO_FOREGROUND", "1"}});
    ASSERT_TRUE(HeadUnit::waitUntil([&] {
        return HeadUnit::readFile(unit.path("daemon2.out")).find("[CBRadio] Up and Running...") != std::string::npos;
    }, 15000)) << HeadUnit::readFile(unit.path("daemon2.err"));
    size_t frames = unit.frameMark();
    size_t signals = unit.signalMark();
    EXPECT_EQ(SUCCESS, unit.call("reqCBRStartSeek", "{\"seekDirection\":1}").text);
    EXPECT_TRUE(unit.waitForFrame("02 01 02", frames));
    EXPECT_TRUE(waitForSignalData(unit, "CBRChannelNumber", body("ChannelNumber", 2), signals));

    // While the simulator is away the reader waits for it without spinning (it used to read 0
    // bytes a thousand times a second).
    ::kill(unit.simulatorPid(), SIGTERM);
    ASSERT_TRUE(HeadUnit::waitUntil([&] { return ::access(unit.path("dev/ipc/ch6").c_str(), F_OK) != 0; }, 3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const long before = readerWakeUps(daemon2);
    ASSERT_GE(before, 0);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_LT(readerWakeUps(daemon2) - before, 100);

    // The simulator restarted on the same node: reconnected, radio off as announced.
    signals = unit.signalMark();
    unit.spawn({HeadUnit::buildDir() + "/tools/v850sim/v850sim", "--no-stdin", "--log=" + unit.path("sim2.log")},
               "sim2");
    EXPECT_TRUE(waitForSignalData(unit, "CBRadioStatus", body("Status", 0), signals));
    EXPECT_EQ(SUCCESS, unit.call("reqCBRStateChange", "{\"CBRState\":1}").text);
    EXPECT_TRUE(HeadUnit::waitUntil([&] {
        return HeadUnit::readFile(unit.path("sim2.log")).find(" RX 01 01 01\n") != std::string::npos;
    }, 3000)) << HeadUnit::readFile(unit.path("sim2.log"));
    EXPECT_TRUE(waitForSignalData(unit, "CBRadioStatus", body("Status", 1), signals));
}

// Without a bus the daemon is of no use and nothing brings the connection back: it says so once
// and exits with a failure, so that its service manager restarts it.
TEST(Faults, BusKilledUnderTheDaemonEndsItWithAFailureWithinTwoSeconds)
{
    HeadUnit unit;
    HeadUnit::Options options;
    options.startSimulator = false;
    options.startDaemon = false;
    options.recordSignals = false;
    ASSERT_TRUE(unit.start(options)) << unit.error();
    ChildProcess daemon;
    ChildProcess::Io io;
    io.outPath = unit.path("daemon.out");
    io.errPath = unit.path("daemon.err");
    ASSERT_TRUE(daemon.start({daemonCommand(unit), "--tp=" + unit.path("trace.tp")},
                             ChildProcess::environmentWith({{"CBRADIO_ROOT", unit.root()},
                                                            {"CBRADIO_FOREGROUND", "1"},
                                                            {"CBRADIO_SYSLOG_STDERR", "1"}},
                                                           {"DBUS_SESSION_BUS_ADDRESS"}),
                             io));
    ASSERT_TRUE(unit.waitForTrace("[CBRadio] Up and Running...", 0, 5000)) << unit.daemonOutput();
    ASSERT_TRUE(unit.traced("\n[CBR] registering Clients...\n"));

    unit.bus().kill();
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_EQ(1, daemon.wait(5000)) << unit.daemonErrors();
    EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(2));
    std::istringstream log(unit.daemonErrors());
    int lines = 0;
    for (std::string line; std::getline(log, line);)
        lines += line.find("[CBR] ERROR: bus connection lost; exiting with status 1") != std::string::npos;
    EXPECT_EQ(1, lines) << unit.daemonErrors();
    EXPECT_TRUE(unit.traced("\n@ ----- Exiting CBRadio Service ----- @\n"));
}
