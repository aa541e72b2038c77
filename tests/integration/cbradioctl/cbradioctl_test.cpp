// cbradioctl as a script would use it: the real binary against a small CB radio service built on
// the service-IPC library inside the test, on a private dbus-daemon.
#include "ChildProcess.h"
#include "PrivateBus.h"
#include "svcipc.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace
{
const char* const kName = "com.quorin.service.CBRadioService";
const char* const kPath = "/com/quorin/service/CBRadioService";
const char* const kSuccess = "{\"code\":0,\"description\":\"success\"}\n";
const char* const kFailure = "{\"code\":1,\"description\":\"failure\"}\n";
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

struct Child
{
    std::unique_ptr<ChildProcess> process = std::make_unique<ChildProcess>();
    int outFd = -1;
    int errFd = -1;
};

// `env` entries replace ours; the value "<unset>" removes one.
Child spawn(const std::vector<std::string>& args, const std::map<std::string, std::string>& env)
{
    std::vector<std::string> argv{buildDir() + "/tools/cbradioctl/cbradioctl"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::map<std::string, std::string> set;
    std::vector<std::string> unset;
    for (const auto& kv : env) {
        if (kv.second == "<unset>")
            unset.push_back(kv.first);
        else
            set.insert(kv);
    }
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        return {};
    ChildProcess::Io io;
    io.outFd = out[1];
    io.errFd = err[1];
    Child c;
    c.process->start(argv, ChildProcess::environmentWith(set, unset), io);
    close(out[1]);
    close(err[1]);
    c.outFd = out[0];
    c.errFd = err[0];
    return c;
}

// Collects the child's output until it exits (at most 20 s, then it is killed).
Result finish(Child c)
{
    Result r;
    pollfd fds[2] = {{c.outFd, POLLIN, 0}, {c.errFd, POLLIN, 0}};
    auto end = std::chrono::steady_clock::now() + 20s;
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < end) {
        if (poll(fds, 2, 200) <= 0)
            continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
                continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                (i == 0 ? r.out : r.err).append(buf, static_cast<size_t>(n));
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0)
            close(f.fd);
    const int status = c.process->wait(open > 0 ? 0 : 20000);
    r.exitCode = status >= 0 && status < 128 ? status : -1;
    return r;
}

Result run(const std::vector<std::string>& args, const std::map<std::string, std::string>& env = {})
{
    return finish(spawn(args, env));
}

// The fake service: records each call and answers the way the real one does for the cases the
// client must tell apart.
class FakeService
{
public:
    SVCIPC_tConnection conn = nullptr;
    SVCIPC_tSvcRegHnd reg = nullptr;

    std::vector<std::string> calls()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }
    static void onRequest(SVCIPC_tReqContext ctx, const char* method, const char* parms,
                          SVCIPC_tBool noReply, SVCIPC_tUserToken token)
    {
        auto* self = static_cast<FakeService*>(token);
        const std::string m = method, p = parms;
        {
            std::lock_guard<std::mutex> lock(self->mMutex);
            self->mCalls.push_back(m + " " + p + (noReply ? " (noreply)" : ""));
        }
        const char* reply = kSuccess;
        if (m == "reqCBRClearPreset") {
            SVCIPC_freeReqContext(ctx);  // no result, as the real service does for clear
            return;
        }
        if (m == "slow") {
            std::lock_guard<std::mutex> lock(self->mMutex);
            self->mHeld.push_back(ctx);  // answered only at the end of the test
            return;
        }
        if (m == "reqCBRChangeRxToTx" || m == "fail")
            reply = m == "fail" ? kFailure : "";
        if (m == "reqCBRHWVersion")
            reply = "{\"CBRadioHWVersion\":\"A1\",\"code\":0,\"description\":\"success\"}\n";
        if (m == "getProperties") {
            if (p == "{\"props\":\"CBRReceptionSensitivityStatus\"}")
                SVCIPC_asyncEmit(self->conn, "CBRReceptionSensitivity", "{\"Sensitivity\":3}\n",
                                 nullptr, nullptr);
            else
                reply = kFailure;
        }
        SVCIPC_asyncReturnResult(ctx, reply, nullptr, nullptr);
        SVCIPC_freeReqContext(ctx);
    }

    void releaseHeld()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (SVCIPC_tReqContext ctx : mHeld)
            SVCIPC_freeReqContext(ctx);
        mHeld.clear();
    }

private:
    std::mutex mMutex;
    std::vector<std::string> mCalls;
    std::vector<SVCIPC_tReqContext> mHeld;
};

class CbRadioCtl : public ::testing::Test
{
protected:
    PrivateBus bus;
    FakeService svc;

    void SetUp() override
    {
        ASSERT_TRUE(bus.start()) << bus.error();
        bus.exportAddress();
        ASSERT_EQ(0, SVCIPC_initialize());
        ASSERT_EQ(0, SVCIPC_getConnection(0, 0, &svc.conn));
        // Described like the real service, so a call left without a result is answered NoResult.
        ASSERT_EQ(0, SVCIPC_setInterfaceDescription(svc.conn, kPath, kDescription));
        ASSERT_EQ(0, SVCIPC_registerService(svc.conn, kName, kPath, 0, &FakeService::onRequest,
                                            &svc, &svc.reg));
    }
    void TearDown() override
    {
        svc.releaseHeld();
        SVCIPC_shutdown();
    }
};

TEST_F(CbRadioCtl, SubcommandsCallTheServiceMethodsWithTheirArguments)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"on"}, "reqCBRStateChange {\"CBRState\":1}"},
        {{"off"}, "reqCBRStateChange {\"CBRState\":0}"},
        {{"seek", "up"}, "reqCBRStartSeek {\"seekDirection\":1}"},
        {{"seek", "down"}, "reqCBRStartSeek {\"seekDirection\":0}"},
        {{"scan", "start"}, "reqCBRStartScan "},
        {{"scan", "stop"}, "reqCBRStopScan "},
        {{"squelch", "up"}, "reqCBRAdjustSquelchLevel {\"squelchChg\":1}"},
        {{"squelch", "down"}, "reqCBRAdjustSquelchLevel {\"squelchChg\":0}"},
        {{"presets", "list"}, "reqCBRGetPresetList "},
        {{"presets", "store", "6", "40"}, "reqCBRStorePreset {\"channelNumber\":40,\"presetNo\":6}"},
        {{"presets", "select", "2"}, "reqCBRSelectPreset {\"PresetNo\":2}"},
        {{"rx"}, "reqCBRChangeTxToRx "},
        {{"weather", "on"}, "reqCBRWeatherAlertOnOff {\"CBRWAState\":1}"},
        {{"weather", "off"}, "reqCBRWeatherAlertOnOff {\"CBRWAState\":0}"},
        {{"sw-version"}, "reqCBRSWVersion "},
        {{"call", "reqCBRStartSeek", "{\"seekDirection\":1}"}, "reqCBRStartSeek {\"seekDirection\":1}"},
    };
    for (const auto& c : cases) {
        Result r = run(c.first);
        EXPECT_EQ(0, r.exitCode) << c.second << ": " << r.err;
        EXPECT_EQ(kSuccess, r.out) << c.second;
        ASSERT_FALSE(svc.calls().empty());
        EXPECT_EQ(c.second, svc.calls().back());
    }
    EXPECT_EQ(cases.size(), svc.calls().size());
}

TEST_F(CbRadioCtl, RepliesDecideTheExitCode)
{
    Result hw = run({"hw-version"});
    EXPECT_EQ(0, hw.exitCode);
    EXPECT_EQ("{\"CBRadioHWVersion\":\"A1\",\"code\":0,\"description\":\"success\"}\n", hw.out);

    Result failed = run({"call", "fail"});
    EXPECT_EQ(1, failed.exitCode);
    EXPECT_EQ(kFailure, failed.out);

    Result empty = run({"tx"});  // the service's "radio is off" answer
    EXPECT_EQ(1, empty.exitCode);
    EXPECT_EQ("\n", empty.out);

    // The service gives clear no result: the library's NoResult answer means done.
    Result clear = run({"presets", "clear"});
    EXPECT_EQ(0, clear.exitCode) << clear.err;
    EXPECT_EQ("reqCBRClearPreset ", svc.calls().back());
    Result other = run({"call", "reqCBRClearPreset"});  // only clear itself is known to be so
    EXPECT_EQ(5, other.exitCode);
    EXPECT_NE(std::string::npos, other.err.find("com.quorin.SvcIpc.Error.NoResult")) << other.err;
}

TEST_F(CbRadioCtl, PropsPrintsTheValueFromItsSignal)
{
    Result r = run({"props", "CBRReceptionSensitivityStatus"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("{\"Sensitivity\":3}\n", r.out);

    Result bad = run({"props", "CBRReceptionSensitivity"});
    EXPECT_EQ(1, bad.exitCode);
    EXPECT_EQ(kFailure, bad.out);
}

TEST_F(CbRadioCtl, WatchPrintsSignalsWithTimeStamps)
{
    Child watcher = spawn({"watch", "--count=2"}, {});
    // Emit until the watcher has seen two (it may still be subscribing at first).
    std::atomic<bool> stop{false};
    std::thread emitter([&] {
        for (int i = 0; i < 200 && !stop; ++i) {
            SVCIPC_asyncEmit(svc.conn, "CBRChannelNumber", "{\"ChannelNumber\":9}\n", nullptr,
                             nullptr);
            SVCIPC_asyncEmit(svc.conn, "notOurs", "{}", nullptr, nullptr);
            std::this_thread::sleep_for(50ms);
        }
    });
    Result r = finish(std::move(watcher));
    stop = true;
    emitter.join();
    EXPECT_EQ(0, r.exitCode) << r.err;
    const std::string expected = " CBRChannelNumber {\"ChannelNumber\":9}\n";
    const size_t lineLength = 12 + expected.size();  // "HH:MM:SS.mmm" + the rest
    ASSERT_EQ(2 * lineLength, r.out.size()) << r.out;
    for (size_t at = 0; at < r.out.size(); at += lineLength) {
        const std::string stamp = r.out.substr(at, 12);
        for (size_t i = 0; i < stamp.size(); ++i)
            EXPECT_TRUE(i == 2 || i == 5 ? stamp[i] == ':' : i == 8 ? stamp[i] == '.'
                                                                    : isdigit(stamp[i]) != 0)
                << stamp;
        EXPECT_EQ(expected, r.out.substr(at + 12, expected.size()));
    }

    Result tooFew = run({"watch", "--count=5", "--timeout=0.3"});
    EXPECT_EQ(4, tooFew.exitCode);
    Result timed = run({"--timeout=0.3", "watch", "CBRadioStatus"});
    EXPECT_EQ(0, timed.exitCode);
    EXPECT_EQ("", timed.out);
}

TEST_F(CbRadioCtl, ExitCodesForScripts)
{
    Result absent = run({"--name=com.quorin.service.Nobody", "on"});
    EXPECT_EQ(3, absent.exitCode);
    EXPECT_NE(std::string::npos, absent.err.find("not on the bus"));

    Result slow = run({"--timeout=0.3", "call", "slow"});
    EXPECT_EQ(4, slow.exitCode);
    EXPECT_NE(std::string::npos, slow.err.find("no reply"));

    Result remote = run({"--path=/nowhere", "on"});
    EXPECT_EQ(5, remote.exitCode);
    EXPECT_NE(std::string::npos, remote.err.find("UnknownObject"));

    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{}, {"seek"}, {"seek", "left"}, {"presets", "store", "7", "1"},
          {"presets", "store", "1", "41"}, {"presets", "select", "x"}, {"frobnicate"},
          {"--count=2", "on"}, {"--timeout=-1", "on"}, {"on", "now"}}) {
        Result r = run(bad);
        EXPECT_EQ(2, r.exitCode) << (bad.empty() ? "(none)" : bad[0]);
        EXPECT_EQ("", r.out);
    }
    for (const char* cmd : {"on", "seek", "scan", "squelch", "presets", "tx", "rx", "weather",
                            "hw-version", "sw-version", "props", "call", "watch"}) {
        Result r = run({cmd, "--help"});
        EXPECT_EQ(0, r.exitCode) << cmd;
        EXPECT_EQ(0u, r.out.find("usage: cbradioctl")) << cmd;
    }
    EXPECT_EQ(0, run({"--help"}).exitCode);
}

TEST_F(CbRadioCtl, BusAddressFromTheEnvironmentFile)
{
    std::filesystem::path root = bus.folder() + "/root";
    std::filesystem::create_directories(root / "tmp");
    std::map<std::string, std::string> env = {{"DBUS_SESSION_BUS_ADDRESS", "<unset>"},
                                              {"CBRADIO_ROOT", root.string()}};
    Result none = run({"on"}, env);
    EXPECT_EQ(5, none.exitCode);
    EXPECT_NE(std::string::npos, none.err.find("no session bus"));

    std::ofstream(root / "tmp/envars.sh") << "export DBUS_SESSION_BUS_ADDRESS='" << bus.address()
                                          << "';\nexport DBUS_SESSION_BUS_PID=1;\n";
    Result found = run({"on"}, env);
    EXPECT_EQ(0, found.exitCode) << found.err;
    EXPECT_EQ(kSuccess, found.out);
}

}  // namespace
