// cbradioctl as a script would use it: the real binary against a small CB radio service built on
// the service-IPC library inside the test, on a private dbus-daemon.
#include "HeadUnit.h"
#include "TempRoot.h"
#include "TestService.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace
{
const char* const kName = HeadUnit::kServiceName;
const char* const kPath = HeadUnit::kServicePath;
const char* const kSuccess = HeadUnit::kSuccess;
const char* const kFailure = HeadUnit::kFailure;
const char* const kHwVersion = "{\"CBRadioHWVersion\":\"A1\",\"code\":0,\"description\":\"success\"}\n";
const char* const kDescription =
    "<interface name=\"com.quorin.service.CBRadioService\">"
    "<method name=\"reqCBRClearPreset\"><arg type=\"s\" direction=\"in\"/>"
    "<arg type=\"s\" direction=\"out\"/></method>"
    "<method name=\"slow\"><arg type=\"s\" direction=\"in\"/><arg type=\"s\" direction=\"out\"/></method>"
    "</interface>";

struct Result
{
    int exitCode = -1;
    std::string out;
    std::string err;
};

class CbRadioCtl : public ::testing::Test
{
protected:
    PrivateBus bus;
    TempRoot root{TempRoot::Export::No};
    SVCIPC_tConnection conn = nullptr;
    TestService svc;

    void SetUp() override
    {
        ASSERT_TRUE(bus.start()) << bus.error();
        bus.exportAddress();
        ASSERT_EQ(0, SVCIPC_initialize());
        ASSERT_EQ(0, SVCIPC_getConnection(0, 0, &conn));
        // Described like the real service, so a call left without a result is answered NoResult.
        ASSERT_EQ(0, SVCIPC_setInterfaceDescription(conn, kPath, kDescription));
        // Answers the way the real service does for the cases the client must tell apart.
        svc.onRequest = [this](SVCIPC_tReqContext ctx, const std::string& m, const std::string& p) {
            const char* reply = m == "reqCBRChangeRxToTx" ? "" : m == "reqCBRHWVersion" ? kHwVersion : kSuccess;
            if (m == "reqCBRClearPreset")
                return (void)SVCIPC_freeReqContext(ctx);  // no result, as the real service gives for clear
            if (m == "slow")
                return svc.keep(ctx);  // kept until the library shuts down: the caller times out
            if (m == "getProperties" && p == "{\"props\":\"CBRReceptionSensitivityStatus\"}")
                SVCIPC_asyncEmit(conn, "CBRReceptionSensitivity", "{\"Sensitivity\":3}\n", nullptr, nullptr);
            else if (m == "getProperties" || m == "fail")
                reply = kFailure;
            TestService::reply(ctx, reply);
        };
        ASSERT_EQ(0, svc.registerOn(conn, kName, kPath));
    }
    void TearDown() override { SVCIPC_shutdown(); }

    // Runs cbradioctl to its end (at most 20 s), with `set` added to our environment and `unset` removed.
    Result run(const std::vector<std::string>& args, const std::map<std::string, std::string>& set = {},
               const std::vector<std::string>& unset = {})
    {
        std::vector<std::string> argv{buildDir() + "/tools/cbradioctl/cbradioctl"};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess ctl;
        ChildProcess::Io io;
        io.outPath = root.path("ctl.out");
        io.errPath = root.path("ctl.err");
        Result r;
        if (ctl.start(argv, ChildProcess::environmentWith(set, unset), io)) {
            const int status = ctl.wait(20000);
            r.exitCode = status >= 0 && status < 128 ? status : -1;
        }
        r.out = readFile(io.outPath);
        r.err = readFile(io.errPath);
        return r;
    }
};

// Each command's call, what it prints and how it exits: the reply decides the exit code.
TEST_F(CbRadioCtl, SubcommandsCallTheServiceMethodsAndTheirRepliesDecideTheExitCode)
{
    struct Case
    {
        std::vector<std::string> args;
        std::string call;
        std::string out;
        int exitCode;
    };
    const std::vector<Case> cases = {
        {{"on"}, "reqCBRStateChange({\"CBRState\":1})", kSuccess, 0},
        {{"off"}, "reqCBRStateChange({\"CBRState\":0})", kSuccess, 0},
        {{"seek", "up"}, "reqCBRStartSeek({\"seekDirection\":1})", kSuccess, 0},
        {{"seek", "down"}, "reqCBRStartSeek({\"seekDirection\":0})", kSuccess, 0},
        {{"scan", "start"}, "reqCBRStartScan()", kSuccess, 0},
        {{"scan", "stop"}, "reqCBRStopScan()", kSuccess, 0},
        {{"squelch", "up"}, "reqCBRAdjustSquelchLevel({\"squelchChg\":1})", kSuccess, 0},
        {{"squelch", "down"}, "reqCBRAdjustSquelchLevel({\"squelchChg\":0})", kSuccess, 0},
        {{"presets", "list"}, "reqCBRGetPresetList()", kSuccess, 0},
        {{"presets", "store", "6", "40"}, "reqCBRStorePreset({\"channelNumber\":40,\"presetNo\":6})", kSuccess, 0},
        {{"presets", "select", "2"}, "reqCBRSelectPreset({\"PresetNo\":2})", kSuccess, 0},
        // The service gives clear no result: the library's NoResult answer means done...
        {{"presets", "clear"}, "reqCBRClearPreset()", "", 0},
        // ... but only for clear itself.
        {{"call", "reqCBRClearPreset"}, "reqCBRClearPreset()", "", 5},
        {{"rx"}, "reqCBRChangeTxToRx()", kSuccess, 0},
        {{"tx"}, "reqCBRChangeRxToTx()", "\n", 1},  // the service's "radio is off" answer
        {{"weather", "on"}, "reqCBRWeatherAlertOnOff({\"CBRWAState\":1})", kSuccess, 0},
        {{"weather", "off"}, "reqCBRWeatherAlertOnOff({\"CBRWAState\":0})", kSuccess, 0},
        {{"hw-version"}, "reqCBRHWVersion()", kHwVersion, 0},
        {{"sw-version"}, "reqCBRSWVersion()", kSuccess, 0},
        {{"call", "reqCBRStartSeek", "{\"seekDirection\":1}"}, "reqCBRStartSeek({\"seekDirection\":1})", kSuccess, 0},
        {{"call", "fail"}, "fail()", kFailure, 1},
        // props prints the value from the signal that carries the property.
        {{"props", "CBRReceptionSensitivityStatus"},
         "getProperties({\"props\":\"CBRReceptionSensitivityStatus\"})",
         "{\"Sensitivity\":3}\n",
         0},
        {{"props", "CBRReceptionSensitivity"}, "getProperties({\"props\":\"CBRReceptionSensitivity\"})", kFailure, 1},
    };
    for (const Case& c : cases) {
        const Result r = run(c.args);
        EXPECT_EQ(c.exitCode, r.exitCode) << c.call << ": " << r.err;
        EXPECT_EQ(c.out, r.out) << c.call;
        ASSERT_FALSE(svc.log.snapshot().empty());
        EXPECT_EQ(c.call, svc.log.snapshot().back());
    }
    EXPECT_EQ(cases.size(), svc.log.snapshot().size());
    EXPECT_NE(std::string::npos, run({"call", "reqCBRClearPreset"}).err.find("com.quorin.SvcIpc.Error.NoResult"));
}

TEST_F(CbRadioCtl, WatchPrintsSignalsWithTimeStamps)
{
    // Emit until the watcher has seen two (it may still be subscribing at first).
    std::atomic<bool> stop{false};
    std::thread emitter([&] {
        for (int i = 0; i < 200 && !stop; ++i) {
            SVCIPC_asyncEmit(conn, "CBRChannelNumber", "{\"ChannelNumber\":9}\n", nullptr, nullptr);
            SVCIPC_asyncEmit(conn, "notOurs", "{}", nullptr, nullptr);
            std::this_thread::sleep_for(50ms);
        }
    });
    const Result r = run({"watch", "--count=2"});
    stop = true;
    emitter.join();
    EXPECT_EQ(0, r.exitCode) << r.err;
    // Each line time-stamped "HH:MM:SS.mmm"; signals of other names are not printed.
    const std::string line = " CBRChannelNumber {\"ChannelNumber\":9}\n";
    const size_t size = 12 + line.size();
    EXPECT_TRUE(r.out.size() == 2 * size && isClockTime(r.out) && isClockTime(r.out, size) &&
                r.out.compare(12, line.size(), line) == 0 && r.out.compare(size + 12, line.size(), line) == 0)
        << r.out;

    EXPECT_EQ(4, run({"watch", "--count=5", "--timeout=0.3"}).exitCode);
    const Result timed = run({"--timeout=0.3", "watch", "CBRadioStatus"});
    EXPECT_EQ(0, timed.exitCode);
    EXPECT_EQ("", timed.out);
}

TEST_F(CbRadioCtl, ExitCodesForScriptsAndTheBusFromTheEnvironmentFile)
{
    const struct
    {
        std::vector<std::string> args;
        int exitCode;
        const char* error;
    } failures[] = {{{"--name=com.quorin.service.Nobody", "on"}, 3, "not on the bus"},
                    {{"--timeout=0.3", "call", "slow"}, 4, "no reply"},
                    {{"--path=/nowhere", "on"}, 5, "UnknownObject"}};
    for (const auto& f : failures) {
        const Result r = run(f.args);
        EXPECT_EQ(f.exitCode, r.exitCode) << f.error;
        EXPECT_NE(std::string::npos, r.err.find(f.error)) << r.err;
    }
    for (const std::vector<std::string>& bad : {std::vector<std::string>{},
                                                {"seek"},
                                                {"seek", "left"},
                                                {"presets", "store", "7", "1"},
                                                {"presets", "store", "1", "41"},
                                                {"presets", "select", "x"},
                                                {"frobnicate"},
                                                {"--count=2", "on"},
                                                {"--timeout=-1", "on"},
                                                {"on", "now"}}) {
        const Result r = run(bad);
        EXPECT_EQ(2, r.exitCode) << (bad.empty() ? "(none)" : bad[0]);
        EXPECT_EQ("", r.out);
    }
    for (const char* cmd : {"on", "presets", "props", "call", "watch"}) {
        const Result r = run({cmd, "--help"});
        EXPECT_EQ(0, r.exitCode) << cmd;
        EXPECT_EQ(0u, r.out.find("usage: cbradioctl")) << cmd;
    }
    EXPECT_EQ(0, run({"--help"}).exitCode);

    // Without a bus in the environment the address comes from $CBRADIO_ROOT/tmp/envars.sh.
    std::filesystem::create_directories(root.path("tmp"));
    const Result none = run({"on"}, {{"CBRADIO_ROOT", root.path()}}, {"DBUS_SESSION_BUS_ADDRESS"});
    EXPECT_EQ(5, none.exitCode);
    EXPECT_NE(std::string::npos, none.err.find("no session bus"));
    std::ofstream(root.path("tmp/envars.sh"))
        << "export DBUS_SESSION_BUS_ADDRESS='" << bus.address() << "';\nexport DBUS_SESSION_BUS_PID=1;\n";
    std::filesystem::permissions(root.path("tmp/envars.sh"), std::filesystem::perms(0644));
    const Result found = run({"on"}, {{"CBRADIO_ROOT", root.path()}}, {"DBUS_SESSION_BUS_ADDRESS"});
    EXPECT_EQ(0, found.exitCode) << found.err;
    EXPECT_EQ(kSuccess, found.out);
}

}  // namespace
