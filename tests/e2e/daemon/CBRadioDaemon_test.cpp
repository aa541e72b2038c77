// The real cbradiod against the real v850sim in a private CBRADIO_ROOT, with the trace console on.
#include "ChildProcess.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
    typedef std::chrono::steady_clock Clock;

    // Finds a console trace line "[KIND]@<ms> (<pid>.<tid>): <body>" and returns its process id,
    // or 0 when there is none.
    unsigned findConsoleLine(const std::string& text, const std::string& kind, const std::string& body)
    {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            char k[4] = {};
            unsigned ms, pid, tid;
            int bodyAt = -1;
            if (std::sscanf(line.c_str(), "[%3[^]]]@%u (%u.%u): %n", k, &ms, &pid, &tid, &bodyAt) == 4 &&
                bodyAt > 0 && kind == k && line.compare(static_cast<size_t>(bodyAt), std::string::npos, body) == 0)
                return pid;
        }
        return 0;
    }

    bool alive(pid_t pid)
    {
        return ::kill(pid, 0) == 0;
    }

    class HeadUnit : public testing::Test
    {
    protected:
        void SetUp() override
        {
            ASSERT_TRUE(mRoot.ok());
            std::ofstream(mRoot.path("tp.txt")) << "JTTracePersistence 1.1.0\n* 7f 8\n";
        }

        void TearDown() override
        {
            for (pid_t pid : mDetached)
                ::kill(pid, SIGKILL);
        }

        // Starts a program with the root prefix set and no bus in its environment; its standard
        // output and error go to files under the root.
        ChildProcess& start(const std::vector<std::string>& args, const std::string& name, bool foreground,
                            const std::map<std::string, std::string>& env = {})
        {
            std::map<std::string, std::string> set = env;
            set.emplace("CBRADIO_ROOT", mRoot.path());
            std::vector<std::string> unset = {"DBUS_SESSION_BUS_ADDRESS"};
            if (foreground)
                set.emplace("CBRADIO_FOREGROUND", "1");
            else
                unset.push_back("CBRADIO_FOREGROUND");
            ChildProcess::Io io;
            io.outPath = mRoot.path(name + ".out");
            io.errPath = mRoot.path(name + ".err");
            mStarted.push_back(std::make_unique<ChildProcess>());
            EXPECT_TRUE(mStarted.back()->start(args, ChildProcess::environmentWith(set, unset), io));
            return *mStarted.back();
        }

        ChildProcess& startSimulator()
        {
            ChildProcess& sim = start({buildDir() + "/tools/v850sim/v850sim", "--no-stdin", "--log=" + mRoot.path("sim.log")},
                              "sim", true);
            EXPECT_TRUE(waitUntil([&] { return ::access(mRoot.path("dev/ipc/ch6").c_str(), F_OK) == 0; }, 3000));
            return sim;
        }

        void startTraceServer()
        {
            start({buildDir() + "/tools/tracesrv/tracesrv", "--no-stdin"}, "tracesrv", true);
            EXPECT_TRUE(waitUntil([&] { return ::access(mRoot.path("dev/mv2trace/register").c_str(), F_OK) == 0; },
                                  3000));
        }

        ChildProcess& startDaemon(bool foreground, const std::map<std::string, std::string>& env = {})
        {
            return start({buildDir() + "/cbradio/cbradiod", "--tp=" + mRoot.path("tp.txt")}, "daemon", foreground, env);
        }

        std::string out(const std::string& name) { return readFile(mRoot.path(name + ".out")); }
        std::string err(const std::string& name) { return readFile(mRoot.path(name + ".err")); }

        bool waitForOutput(const std::string& name, const std::string& text, int timeoutMs)
        {
            return waitUntil([&] { return out(name).find(text) != std::string::npos; }, timeoutMs);
        }

        // The worker drops a wake-up that comes before it first waits (by design); a second
        // signal is harmless, so a test that misses the window simply signals again.
        void stopWith(pid_t pid, int sig)
        {
            ASSERT_TRUE(waitForOutput("daemon", "[CBR run] Req processing thread running...", 5000));
            for (int attempt = 0; attempt < 3; ++attempt) {
                ::kill(pid, sig);
                if (waitForOutput("daemon", "@ ----- Exiting CBRadio Service ----- @", 1500))
                    break;
            }
        }

        // Receive times of the frames the simulator logged from the head unit, by frame text.
        std::vector<std::pair<double, std::string>> receivedFrames()
        {
            std::vector<std::pair<double, std::string>> frames;
            std::istringstream log(readFile(mRoot.path("sim.log")));
            for (std::string line; std::getline(log, line);) {
                double seconds;
                char bytes[400];
                if (std::sscanf(line.c_str(), "%lf RX %399[^\n]", &seconds, bytes) == 2)
                    frames.emplace_back(seconds, bytes);
            }
            return frames;
        }

        // The start frames, in order, among the answers to the simulator's announcement.
        void expectStartFramesOneSecondApart()
        {
            const std::vector<std::string> expected = {"07 00", "08 00", "0C 01 01"};
            std::vector<double> times;
            ASSERT_TRUE(waitUntil([&] {
                times.clear();
                for (const auto& frame : receivedFrames())
                    if (times.size() < expected.size() && frame.second == expected[times.size()])
                        times.push_back(frame.first);
                return times.size() == expected.size();
            }, 6000));
            for (int i = 1; i < 3; ++i) {
                const double gap = times[i] - times[i - 1];
                EXPECT_GE(gap, 0.95) << i;
                EXPECT_LE(gap, 1.5) << i;
            }
        }

        TempRoot mRoot{TempRoot::Export::No};
        std::vector<std::unique_ptr<ChildProcess>> mStarted;
        std::vector<pid_t> mDetached;   // daemons that are no children of ours
    };

    // Threads of the process, other than its main thread, that can be interrupted by SIGINT, SIGHUP
    // or SIGTERM; "task TID" each.
    std::vector<std::string> threadsTakingTerminationSignals(pid_t pid)
    {
        std::vector<std::string> open;
        const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(tasks.c_str()), ::closedir);
        for (dirent* e; dir && (e = ::readdir(dir.get())) != nullptr;) {
            if (e->d_name[0] == '.' || std::to_string(pid) == e->d_name)
                continue;
            std::istringstream status(readFile(tasks + "/" + e->d_name + "/status"));
            unsigned long long blocked = 0;
            for (std::string line; std::getline(status, line);)
                if (line.compare(0, 7, "SigBlk:") == 0)
                    blocked = std::stoull(line.substr(7), nullptr, 16);
            const unsigned long long termination = (1ull << (SIGINT - 1)) | (1ull << (SIGHUP - 1)) | (1ull << (SIGTERM - 1));
            if ((blocked & termination) != termination)
                open.push_back(std::string("task ") + e->d_name);
        }
        return open;
    }

}

TEST_F(HeadUnit, ForegroundServiceSendsStartFramesTracesToConsoleAndOutlivesTheSimulator)
{
    startTraceServer();   // keeps the trace thread running
    ChildProcess& sim = startSimulator();
    ChildProcess& daemon = startDaemon(true);
    ASSERT_TRUE(waitForOutput("daemon", "[CBRadio] Up and Running...", 8000));
    expectStartFramesOneSecondApart();

    const std::string text = out("daemon");
    EXPECT_EQ(static_cast<unsigned>(daemon.pid()), findConsoleLine(text, "MSG", "[CBRadio] Up and Running..."));
    EXPECT_EQ(static_cast<unsigned>(daemon.pid()), findConsoleLine(text, "-->", "CBRadio_main_main"));
    EXPECT_NE(std::string::npos, text.find("\n[CBR]reqCBR_WA_OnOffRequest WriteOut c 1 1 \n"));
    EXPECT_NE(std::string::npos, text.find("\n[CBR] initializing State machine...\n"));
    EXPECT_EQ(std::string::npos, err("daemon").find("Error opening"));
    // The termination handler traces: only the main thread, waiting in a join, may run it.
    EXPECT_EQ(std::vector<std::string>(), threadsTakingTerminationSignals(daemon.pid()));

    // The microcontroller going away does not take the service with it.
    ::kill(sim.pid(), SIGTERM);
    EXPECT_EQ(0, sim.wait(3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(alive(daemon.pid()));

    stopWith(daemon.pid(), SIGTERM);
    EXPECT_EQ(0, daemon.wait(5000)) << err("daemon");
    EXPECT_NE(std::string::npos, out("daemon").find("[CBRadio] CAUTION!!! - CBRadio Service rcvd signal to exit (15)\n"));
}

TEST_F(HeadUnit, DaemonDetachesIntoItsOwnSessionAtTheRootDirectory)
{
    startSimulator();
    ChildProcess& starter = startDaemon(false);
    const pid_t parent = starter.pid();
    EXPECT_EQ(0, starter.wait(2000));   // the parent leaves at once

    ASSERT_TRUE(waitForOutput("daemon", "CBRadio_main_main", 3000));
    const pid_t daemon = static_cast<pid_t>(findConsoleLine(out("daemon"), "-->", "CBRadio_main_main"));
    ASSERT_NE(0, daemon);
    mDetached.push_back(daemon);
    EXPECT_NE(parent, daemon);
    EXPECT_EQ(daemon, ::getsid(daemon));
    char cwd[256] = {};
    EXPECT_GT(::readlink(("/proc/" + std::to_string(daemon) + "/cwd").c_str(), cwd, sizeof(cwd) - 1), 0);
    EXPECT_STREQ("/", cwd);

    ASSERT_TRUE(waitForOutput("daemon", "[CBRadio] Up and Running...", 8000));
    expectStartFramesOneSecondApart();
    stopWith(daemon, SIGINT);
    EXPECT_TRUE(waitUntil([&] { return !alive(daemon); }, 5000));
    EXPECT_NE(std::string::npos, out("daemon").find("rcvd signal to exit (2)\n"));
}

// Each termination signal is taken during the start frames in the robustness tests. Here the
// daemon runs as a service manager would start it: its readiness and its stop are announced on
// NOTIFY_SOCKET, and an envars.sh that others may write is refused in the system log, even though
// the environment names a bus.
TEST_F(HeadUnit, UnderAServiceManagerRefusesAnEnvarsFileOthersCanWriteAndReportsReadinessAndStop)
{
    ::mkdir(mRoot.path("tmp").c_str(), 0755);
    std::ofstream(mRoot.path("tmp/envars.sh")) << "export DBUS_SESSION_BUS_ADDRESS='unix:path=/nowhere';\n";
    ::chmod(mRoot.path("tmp/envars.sh").c_str(), 0666);
    const int notify = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", mRoot.path("notify").c_str());
    ASSERT_EQ(0, ::bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    auto nextNotice = [&] {
        pollfd readable = {notify, POLLIN, 0};
        char text[256] = {};
        if (::poll(&readable, 1, 5000) != 1 || ::recv(notify, text, sizeof(text) - 1, 0) <= 0)
            return std::string("<none>");
        return std::string(text);
    };

    ChildProcess& daemon = startDaemon(true, {{"NOTIFY_SOCKET", mRoot.path("notify")},
                                              {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere/either"},
                                              {"CBRADIO_SYSLOG_STDERR", "1"}});
    EXPECT_EQ("READY=1", nextNotice());
    ASSERT_TRUE(waitForOutput("daemon", "[CBRadio] Up and Running...", 3000));
    EXPECT_NE(std::string::npos, err("daemon").find("\n[CBRadio] Error opening /dev/ipc/ch6!\n"));
    EXPECT_NE(std::string::npos, out("daemon").find("\n[CBR] Error Opening /dev/ipc/ch6\n"));
    EXPECT_NE(std::string::npos, err("daemon").find("[CBR] ERROR: not reading " + mRoot.path("tmp/envars.sh") +
                                                    ": it is writable by group or others (mode 666); running "
                                                    "without a bus"));
    EXPECT_NE(std::string::npos, out("daemon").find("\n[CBR] DBUS not started on the target\n"));
    EXPECT_EQ(std::string::npos, out("daemon").find("DBUS_SESSION_BUS_ADDRESS now available"));

    stopWith(daemon.pid(), SIGTERM);
    EXPECT_EQ("STOPPING=1", nextNotice());
    EXPECT_EQ(0, daemon.wait(5000)) << err("daemon");
    ::close(notify);
    const std::string text = out("daemon");
    EXPECT_NE(std::string::npos, text.find("rcvd signal to exit (" + std::to_string(SIGTERM) + ")\n"));
    EXPECT_NE(std::string::npos, text.find("\n[CBR run] exiting Req processing thread...\n"));
    EXPECT_LT(text.find("[CBR run] exiting"), text.find("@ ----- Exiting CBRadio Service ----- @"));
}

TEST_F(HeadUnit, SignalsDuringTheShutdownAreHarmless)
{
    startTraceServer();   // its connection makes the trace thread's end take a while
    ChildProcess& daemon = startDaemon(true);
    ASSERT_TRUE(waitForOutput("daemon", "[CBRadio] Up and Running...", 3000));
    ASSERT_TRUE(waitForOutput("daemon", "[CBR run] Req processing thread running...", 3000));
    int status = -1;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (int i = 0; Clock::now() < deadline && daemon.running() && (status = daemon.wait(0)) == -1; ++i) {
        ::kill(daemon.pid(), i % 2 ? SIGINT : SIGTERM);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    ASSERT_EQ(0, status) << err("daemon");
    // Once the service object is gone no handler may run: it would post to a destroyed queue.
    const std::string text = out("daemon");
    const size_t exiting = text.find("@ ----- Exiting CBRadio Service ----- @");
    ASSERT_NE(std::string::npos, exiting);
    EXPECT_EQ(std::string::npos, text.find("rcvd signal to exit", exiting));
}
