// peersim as the CB radio service meets it: the real binary on a private dbus-daemon, called and
// listened to through the service-IPC library, driven through its standard input.
#include "ChildProcess.h"
#include "PrivateBus.h"
#include "TempRoot.h"
#include "svcipc.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace
{
const std::string kPrefix = "com.quorin.service.";
const std::string kPathPrefix = "/com/quorin/service/";

// One peersim process: commands go to its standard input, its standard output is collected.
class Peersim
{
public:
    ~Peersim() { stop(); }

    bool start(const std::vector<std::string>& args, const std::string& root)
    {
        std::vector<std::string> argv{buildDir() + "/tools/peersim/peersim"};
        argv.insert(argv.end(), args.begin(), args.end());
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            return false;
        ChildProcess::Io io;
        io.in = in[0];
        io.outFd = out[1];
        io.errFd = out[1];
        mProcess.start(argv, ChildProcess::environmentWith({{"CBRADIO_ROOT", root}}), io);
        ::close(in[0]);
        ::close(out[1]);
        mIn = in[1];
        mReader = std::thread([this, fd = out[0]] {
            char buf[4096];
            for (ssize_t n; (n = ::read(fd, buf, sizeof(buf))) > 0;) {
                std::lock_guard<std::mutex> lock(mMutex);
                mOutput.append(buf, static_cast<size_t>(n));
                mChanged.notify_all();
            }
            ::close(fd);
        });
        return waitFor("# ready:", 0);
    }

    // Sends one command; returns where its output starts, for waitFor().
    size_t send(const std::string& line)
    {
        size_t mark = output().size();
        std::string text = line + "\n";
        EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(mIn, text.data(), text.size()));
        return mark;
    }

    // Whether `text` shows up in the output at or after `from` within 10 s.
    bool waitFor(const std::string& text, size_t from)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, 10s, [&] { return mOutput.find(text, from) != std::string::npos; });
    }

    std::string output()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mOutput;
    }

    // SIGTERM and reap; the exit status, or -1.
    int stop()
    {
        if (!mProcess.running())
            return -1;
        const int status = mProcess.stop(10000);
        ::close(mIn);
        if (mReader.joinable())
            mReader.join();
        return status;
    }

private:
    ChildProcess mProcess;
    int mIn = -1;
    std::thread mReader;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::string mOutput;
};

// Whatever arrives through the library's callbacks, as text lines.
struct Seen
{
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;

    void add(const std::string& line)
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
        changed.notify_all();
    }
    bool waitFor(const std::string& line)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] {
            for (const std::string& l : lines)
                if (l == line)
                    return true;
            return false;
        });
    }
    size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines.size();
    }

    static void onSignal(const char* name, const char* data, SVCIPC_tUserToken token)
    {
        static_cast<Seen*>(token)->add(std::string(name) + " " + data);
    }
    static void onOwner(const char* name, const char* oldOwner, const char* newOwner, SVCIPC_tUserToken token)
    {
        static_cast<Seen*>(token)->add(std::string(name) + (*oldOwner ? " had owner" : " had none") +
                                       (*newOwner ? ", has owner" : ", has none"));
    }
    static void onResult(const SVCIPC_tCallbackStatus* status, const char* result, SVCIPC_tUserToken token)
    {
        static_cast<Seen*>(token)->add("completion " + std::to_string(status->errCode) + " " + result);
    }
};

struct Reply
{
    SVCIPC_tError status = 0;
    std::string text;
    std::string errorName;
};

class PeersimTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(bus.start()) << bus.error();
        bus.exportAddress();
        ASSERT_TRUE(root.ok());
        ASSERT_EQ(0, SVCIPC_initialize());
        ASSERT_EQ(0, SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 1, &conn));
    }

    void TearDown() override
    {
        for (SVCIPC_tSigSubHnd s : subscriptions)
            SVCIPC_unsubscribe(s);
        SVCIPC_closeConnection(conn);
        SVCIPC_shutdown();
        sim.stop();
    }

    Reply call(const std::string& peer, const std::string& method, const std::string& params, unsigned timeoutMs = 3000)
    {
        Reply r;
        SVCIPC_tResponse* response = nullptr;
        r.status = SVCIPC_invoke(conn, (kPrefix + peer).c_str(), (kPathPrefix + peer).c_str(), method.c_str(),
                                 params.c_str(), 0, timeoutMs, &response);
        if (response) {
            r.text = response->result;
            SVCIPC_freeResponse(response);
        } else {
            r.errorName = SVCIPC_getLastErrorName();
        }
        return r;
    }

    void subscribe(const std::string& peer, const char* signal)
    {
        SVCIPC_tSigSubHnd h = nullptr;
        ASSERT_EQ(0, SVCIPC_subscribe(conn, (kPathPrefix + peer).c_str(), signal, Seen::onSignal, &seen, &h));
        subscriptions.push_back(h);
    }

    bool hasOwner(const std::string& peer)
    {
        SVCIPC_tBool owned = 0;
        EXPECT_EQ(0, SVCIPC_nameHasOwner(conn, (kPrefix + peer).c_str(), &owned, 0));
        return owned != 0;
    }

    PrivateBus bus;
    TempRoot root{TempRoot::Export::No};
    SVCIPC_tConnection conn = nullptr;
    std::vector<SVCIPC_tSigSubHnd> subscriptions;
    Seen seen;
    Peersim sim;
};
}

TEST_F(PeersimTest, EveryPeerAnswersItsMethodsAndFollowsThemWithItsSignals)
{
    ASSERT_TRUE(sim.start({"--cmd", "delay tts 0"}, root.path())) << sim.output();
    subscribe("AudioManager", "interruptSrc");
    subscribe("MERIDOOnOff", "powerMode");

    Reply add = call("AudioManager", "addInterruptSrc", "{\"exclusive\":true,\"source\":\"cbTX\"}");
    EXPECT_EQ(0, add.status);
    EXPECT_EQ("{\"action\":\"added\",\"source\":\"cbTX\"}", add.text);
    EXPECT_TRUE(seen.waitFor("interruptSrc {\"action\":\"added\",\"source\":\"cbTX\"}"));
    EXPECT_EQ("{\"action\":\"removed\",\"source\":\"cbTX\"}",
              call("AudioManager", "removeInterruptSrc", "{\"source\":\"cbTX\"}").text);
    EXPECT_TRUE(seen.waitFor("interruptSrc {\"action\":\"removed\",\"source\":\"cbTX\"}"));

    // One call per other peer: each answers on its own name and path (the answers themselves are
    // the peer model's, checked without a bus).
    EXPECT_EQ("{\"rearControllerState\":{\"state\":\"ON\"}}",
              call("ModeManager", "getProperties", "{\"props\":[\"rearControllerState\"]}").text);
    EXPECT_EQ("{\"code\":0,\"description\":\"success\"}",
              call("DiagnosticService", "reqGetDiagInspectionModeStatus", "").text);
    EXPECT_EQ("{\"code\":0,\"description\":\"success\"}",
              call("TextToSpeechService", "ttsReadout",
                   "{\"data\":\"weather\",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}").text);

    // The service asks for the power mode without waiting; the answer is the signal.
    EXPECT_EQ(0, SVCIPC_asyncInvoke(conn, "com.quorin.service.MERIDOOnOff", "/com/quorin/service/MERIDOOnOff",
                                    "getPowerMode", nullptr, 1, 0, nullptr, nullptr));
    EXPECT_TRUE(seen.waitFor("powerMode {\"value\":3}"));

    Reply unknown = call("CAN_HMI", "getProperties", "{}");
    EXPECT_EQ(SVCIPC_ERR_REMOTE, unknown.status);
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", unknown.errorName);
}

TEST_F(PeersimTest, CommandsEmitEachPeersSignalsOnItsOwnPath)
{
    ASSERT_TRUE(sim.start({}, root.path())) << sim.output();
    subscribe("AudioManager", "voxDetectedState");
    subscribe("AudioManager", "audioRoutingStatus");
    subscribe("TextToSpeechService", "ttsAvailable");
    subscribe("DiagnosticService", "diagInspectionModeStatus");
    subscribe("ModeManager", "rearControllerState");
    subscribe("MERIDOOnOff", "powerMode");
    subscribe("CAN_HMI", "function_sw_9");
    subscribe("CAN_HMI", "function_sw_15");

    sim.send("vox 1");
    sim.send("routing unchecked checked");
    sim.send("tts-available 0");
    sim.send("diag 2");
    sim.send("rear on");
    sim.send("power 1");
    sim.send("rider press");
    sim.send("passenger 2");
    sim.send("emit can function_sw_9 {\"Value\":");
    EXPECT_TRUE(seen.waitFor("voxDetectedState {\"state\":1}"));
    EXPECT_TRUE(seen.waitFor("audioRoutingStatus {\"audioRoutingStatus\":{\"headset_d\":\"unchecked\","
                             "\"headset_p\":\"checked\",\"source\":\"communication\"}}"));
    EXPECT_TRUE(seen.waitFor("ttsAvailable {\"state\":0}"));
    EXPECT_TRUE(seen.waitFor("diagInspectionModeStatus {\"status\":2}"));
    EXPECT_TRUE(seen.waitFor("rearControllerState {\"state\":\"on\"}"));
    EXPECT_TRUE(seen.waitFor("powerMode {\"value\":1}"));
    EXPECT_TRUE(seen.waitFor("function_sw_9 {\"Value\":2}"));
    EXPECT_TRUE(seen.waitFor("function_sw_15 {\"Value\":2}"));
    EXPECT_TRUE(seen.waitFor("function_sw_9 {\"Value\":"));
    EXPECT_EQ(9u, seen.count()) << "each signal reaches only its own subscription";
}

TEST_F(PeersimTest, SlowFailingMalformedAndSilentAnswers)
{
    ASSERT_TRUE(sim.start({}, root.path())) << sim.output();

    // A read-out takes its 1.5 s unless told otherwise.
    const std::string readout = "{\"data\":\"x\",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}";
    EXPECT_EQ(SVCIPC_ERR_TIMEOUT, call("TextToSpeechService", "ttsReadout", readout, 300).status);
    sim.waitFor("REPLY TextToSpeechService.ttsReadout", 0);
    size_t mark = sim.send("delay audio getProperties 600");
    ASSERT_TRUE(sim.waitFor("AudioManager.getProperties after 600 ms", mark));
    EXPECT_EQ(SVCIPC_ERR_TIMEOUT, call("AudioManager", "getProperties", "{\"props\":[]}", 200).status);
    EXPECT_EQ("{}", call("AudioManager", "getProperties", "{\"props\":[]}", 5000).text);

    mark = sim.send("fail audio addInterruptSrc com.quorin.Error.Busy audio path busy");
    ASSERT_TRUE(sim.waitFor("error reply", mark));
    Reply failed = call("AudioManager", "addInterruptSrc", "{\"exclusive\":true,\"source\":\"cbRX\"}");
    EXPECT_EQ(SVCIPC_ERR_REMOTE, failed.status);
    EXPECT_EQ("com.quorin.Error.Busy", failed.errorName);
    ASSERT_EQ(0, SVCIPC_asyncInvoke(conn, "com.quorin.service.AudioManager", "/com/quorin/service/AudioManager",
                                    "addInterruptSrc", "{\"source\":\"cbRX\"}", 0, 2000, Seen::onResult, &seen));
    EXPECT_TRUE(seen.waitFor("completion " + std::to_string(SVCIPC_ERROR_REMOTE) + " "));

    mark = sim.send("malformed diag");
    ASSERT_TRUE(sim.waitFor("malformed reply", mark));
    Reply broken = call("DiagnosticService", "reqGetDiagInspectionModeStatus", "");
    EXPECT_EQ(0, broken.status);
    EXPECT_EQ("{\"broken\":", broken.text);

    mark = sim.send("silent mode");
    ASSERT_TRUE(sim.waitFor("no answer", mark));
    EXPECT_EQ(SVCIPC_ERR_TIMEOUT, call("ModeManager", "getProperties", "{\"props\":[\"rearControllerState\"]}", 300).status);
    EXPECT_TRUE(sim.waitFor("NO ANSWER ModeManager.getProperties", mark));

    mark = sim.send("normal all");
    ASSERT_TRUE(sim.waitFor("answers:", mark));
    EXPECT_EQ("{\"action\":\"added\",\"source\":\"cbRX\"}",
              call("AudioManager", "addInterruptSrc", "{\"source\":\"cbRX\"}").text);
    EXPECT_EQ("{\"rearControllerState\":{\"state\":\"ON\"}}",
              call("ModeManager", "getProperties", "{\"props\":[\"rearControllerState\"]}").text);
}

TEST_F(PeersimTest, APeerLeavesTheBusAndComesBack)
{
    ASSERT_TRUE(sim.start({}, root.path())) << sim.output();
    SVCIPC_tSigSubHnd watch = nullptr;
    ASSERT_EQ(0, SVCIPC_subscribeOwnerChanged(conn, "com.quorin.service.AudioManager", Seen::onOwner, &seen, &watch));
    subscriptions.push_back(watch);
    subscribe("AudioManager", "voxDetectedState");

    size_t mark = sim.send("leave audio");
    ASSERT_TRUE(seen.waitFor("com.quorin.service.AudioManager had owner, has none"));
    EXPECT_FALSE(hasOwner("AudioManager"));
    EXPECT_TRUE(hasOwner("ModeManager"));
    EXPECT_EQ(SVCIPC_ERR_NO_SERVICE, call("AudioManager", "getProperties", "{\"props\":[]}").status);
    sim.send("vox 1");
    EXPECT_TRUE(sim.waitFor("AudioManager is not on the bus; voxDetectedState not sent", mark));

    sim.send("join audio");
    ASSERT_TRUE(seen.waitFor("com.quorin.service.AudioManager had none, has owner"));
    EXPECT_EQ("{}", call("AudioManager", "getProperties", "{\"props\":[]}").text);
    sim.send("vox 0");
    EXPECT_TRUE(seen.waitFor("voxDetectedState {\"state\":0}"));
    EXPECT_EQ(3u, seen.count()) << "the signal sent while away never arrived";

    sim.send("bounce audio 50");
    EXPECT_TRUE(sim.waitFor("AudioManager left the bus", mark));
    EXPECT_TRUE(seen.waitFor("com.quorin.service.AudioManager had owner, has none"));
    std::unique_lock<std::mutex> lock(seen.mutex);
    EXPECT_TRUE(seen.changed.wait_for(lock, 10s, [&] { return seen.lines.size() >= 5; }));
    EXPECT_EQ("com.quorin.service.AudioManager had none, has owner", seen.lines.back());
}

TEST_F(PeersimTest, OnlyTheNamedPeersScriptsAndTheLogFile)
{
    const std::string script = root.path("script.txt"), logFile = root.path("peersim.log");
    std::ofstream(script) << "# a script\nsleep 0.1\npower 4\nunknown words\n";
    ASSERT_TRUE(sim.start({"--only=AudioManager,power", "--script", script, "--log=" + logFile, "--no-stdin"}, root.path()))
        << sim.output();
    EXPECT_TRUE(hasOwner("AudioManager"));
    EXPECT_TRUE(hasOwner("MERIDOOnOff"));
    EXPECT_FALSE(hasOwner("PersistentKeyValue"));
    EXPECT_FALSE(hasOwner("CAN_HMI"));
    EXPECT_TRUE(sim.waitFor("SIGNAL MERIDOOnOff.powerMode {\"value\":4}", 0));
    EXPECT_TRUE(sim.waitFor("# error: unknown command 'unknown'", 0));
    call("AudioManager", "getProperties", "{\"props\":[\"voxDetectedState\"]}");

    // A second simulator cannot take names that are held, and says so.
    Peersim second;
    ASSERT_TRUE(second.start({"--only=audio,diag", "--no-stdin"}, root.path())) << second.output();
    EXPECT_NE(std::string::npos, second.output().find("com.quorin.service.AudioManager is owned by another connection"));
    EXPECT_NE(std::string::npos, second.output().find("# ready: DiagnosticService"));
    second.stop();

    EXPECT_EQ(0, sim.stop());
    std::stringstream text(readFile(logFile));
    // "HH:MM:SS.mmm KIND ..."
    auto stamped = [](const std::string& line) {
        const std::string shape = "00:00:00.000 ";
        if (line.size() <= shape.size())
            return false;
        for (size_t i = 0; i < shape.size(); ++i)
            if (shape[i] == '0' ? !std::isdigit(static_cast<unsigned char>(line[i])) : line[i] != shape[i])
                return false;
        return true;
    };
    std::vector<std::string> kinds;
    for (std::string line; std::getline(text, line);) {
        EXPECT_TRUE(stamped(line)) << line;
        kinds.push_back(line.substr(13, line.find(' ', 13) - 13));
    }
    for (const std::string& kind : kinds)
        EXPECT_TRUE(kind == "CALL" || kind == "REPLY" || kind == "SIGNAL" || kind == "#") << kind;
    EXPECT_NE(kinds.end(), std::find(kinds.begin(), kinds.end(), "CALL"));
    EXPECT_NE(kinds.end(), std::find(kinds.begin(), kinds.end(), "REPLY"));
    EXPECT_NE(kinds.end(), std::find(kinds.begin(), kinds.end(), "SIGNAL"));
}
