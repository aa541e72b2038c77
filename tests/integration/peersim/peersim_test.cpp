// peersim as the CB radio service meets it: the real binary on a private dbus-daemon, called and
// listened to through the service-IPC library, driven through its standard input. What the peers
// answer is the peer model's, checked without a bus; here each answer and signal must travel on
// its peer's own name and path.
#include "HeadUnit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace
{
const std::string kPrefix = "com.quorin.service.";
const std::string kPathPrefix = "/com/quorin/service/";

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
    bool waitFor(const std::string& line, size_t count = 0)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 10s, [&] {
            return lines.size() >= count &&
                   (line.empty() || std::find(lines.begin(), lines.end(), line) != lines.end());
        });
    }
    size_t count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines.size();
    }
    std::string last()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return lines.empty() ? "" : lines.back();
    }

    static void onSignal(const char* name, const char* data, SVCIPC_tUserToken token)
    {
        static_cast<Seen*>(token)->add(std::string(name) + " " + data);
    }
    static void onOwner(const char* name, const char*, const char* newOwner, SVCIPC_tUserToken token)
    {
        static_cast<Seen*>(token)->add(std::string(name) + (*newOwner ? " joined" : " left"));
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
    void TearDown() override
    {
        for (SVCIPC_tSigSubHnd s : subscriptions)
            SVCIPC_unsubscribe(s);
    }

    // peersim alone on the bus, with `args` and its log in peersim.log.
    bool start(const std::vector<std::string>& args = {})
    {
        HeadUnit::Options options;
        options.startSimulator = false;
        options.startDaemon = false;
        options.recordSignals = false;
        options.startPeers = true;
        options.peerArgs = args;
        return unit.start(options);
    }

    // Sends one command; returns where its output starts, for logged().
    size_t send(const std::string& line)
    {
        const size_t mark = unit.peerLog().size();
        EXPECT_TRUE(unit.peers(line));
        return mark;
    }
    bool logged(const std::string& text, size_t from = 0) { return unit.waitForFile("peersim.log", text, from, 10000); }

    Reply call(const std::string& peer, const std::string& method, const std::string& params, unsigned timeoutMs = 3000)
    {
        Reply r;
        SVCIPC_tResponse* response = nullptr;
        r.status = SVCIPC_invoke(unit.client(), (kPrefix + peer).c_str(), (kPathPrefix + peer).c_str(), method.c_str(),
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
        ASSERT_EQ(0, SVCIPC_subscribe(unit.client(), (kPathPrefix + peer).c_str(), signal, Seen::onSignal, &seen, &h));
        subscriptions.push_back(h);
    }

    bool hasOwner(const std::string& peer)
    {
        SVCIPC_tBool owned = 0;
        EXPECT_EQ(0, SVCIPC_nameHasOwner(unit.client(), (kPrefix + peer).c_str(), &owned, 0));
        return owned != 0;
    }

    HeadUnit unit;
    std::vector<SVCIPC_tSigSubHnd> subscriptions;
    Seen seen;
};
}

TEST_F(PeersimTest, SlowAndMalformedAnswers)
{
    ASSERT_TRUE(start()) << unit.error();

    // A read-out takes its 1.5 s unless told otherwise.
    const std::string readout = "{\"data\":\"x\",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}";
    EXPECT_EQ(SVCIPC_ERR_TIMEOUT, call("TextToSpeechService", "ttsReadout", readout, 300).status);
    logged("REPLY TextToSpeechService.ttsReadout");
    const size_t mark = send("malformed diag");
    ASSERT_TRUE(logged("malformed reply", mark));
    Reply broken = call("DiagnosticService", "reqGetDiagInspectionModeStatus", "");
    EXPECT_EQ(0, broken.status);
    EXPECT_EQ("{\"broken\":", broken.text);
}

TEST_F(PeersimTest, APeerLeavesTheBusAndComesBack)
{
    ASSERT_TRUE(start()) << unit.error();
    SVCIPC_tSigSubHnd watch = nullptr;
    ASSERT_EQ(0, SVCIPC_subscribeOwnerChanged(unit.client(), "com.quorin.service.AudioManager", Seen::onOwner, &seen,
                                              &watch));
    subscriptions.push_back(watch);
    subscribe("AudioManager", "voxDetectedState");

    const size_t mark = send("leave audio");
    ASSERT_TRUE(seen.waitFor("com.quorin.service.AudioManager left"));
    EXPECT_FALSE(hasOwner("AudioManager"));
    EXPECT_TRUE(hasOwner("ModeManager"));
    EXPECT_EQ(SVCIPC_ERR_NO_SERVICE, call("AudioManager", "getProperties", "{\"props\":[]}").status);
    send("vox 1");
    EXPECT_TRUE(logged("AudioManager is not on the bus; voxDetectedState not sent", mark));

    send("join audio");
    ASSERT_TRUE(seen.waitFor("com.quorin.service.AudioManager joined"));
    EXPECT_EQ("{}", call("AudioManager", "getProperties", "{\"props\":[]}").text);
    send("vox 0");
    EXPECT_TRUE(seen.waitFor("voxDetectedState {\"state\":0}"));
    EXPECT_EQ(3u, seen.count()) << "the signal sent while away never arrived";

    send("bounce audio 50");
    EXPECT_TRUE(logged("AudioManager left the bus", mark));
    EXPECT_TRUE(seen.waitFor("", 5));
    EXPECT_EQ("com.quorin.service.AudioManager joined", seen.last());
}

TEST_F(PeersimTest, OnlyTheNamedPeersScriptsAndTheLogFile)
{
    const std::string script = "/tmp/peersim-test-script-" + std::to_string(::getpid());
    std::ofstream(script) << "# a script\nsleep 0.1\npower 4\nunknown words\n";
    ASSERT_TRUE(start({"--only=AudioManager,power", "--script", script})) << unit.error();
    std::remove(script.c_str());
    EXPECT_TRUE(hasOwner("AudioManager"));
    EXPECT_TRUE(hasOwner("MERIDOOnOff"));
    EXPECT_FALSE(hasOwner("PersistentKeyValue"));
    EXPECT_FALSE(hasOwner("CAN_HMI"));
    EXPECT_TRUE(logged("SIGNAL MERIDOOnOff.powerMode {\"value\":4}"));
    EXPECT_TRUE(logged("# error: unknown command 'unknown'"));
    call("AudioManager", "getProperties", "{\"props\":[\"voxDetectedState\"]}");

    // A second simulator cannot take names that are held, and says so.
    unit.spawn({HeadUnit::buildDir() + "/tools/peersim/peersim", "--only=audio,diag", "--no-stdin",
                "--log=" + unit.path("second.log")},
               "second");
    EXPECT_TRUE(unit.waitForFile("second.log", "com.quorin.service.AudioManager is owned by another connection"));
    EXPECT_TRUE(unit.waitForFile("second.log", "# ready: DiagnosticService"));

    // "HH:MM:SS.mmm KIND ...", of the kinds below only.
    send("quit");
    ASSERT_TRUE(logged("stopped"));
    std::stringstream text(unit.peerLog());
    std::string kinds;
    for (std::string line; std::getline(text, line);) {
        const std::string shape = "00:00:00.000 ";
        bool stamped = line.size() > shape.size();
        for (size_t i = 0; stamped && i < shape.size(); ++i)
            stamped = shape[i] == '0' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
        EXPECT_TRUE(stamped) << line;
        const std::string kind = line.substr(13, line.find(' ', 13) - 13);
        EXPECT_TRUE(kind == "CALL" || kind == "REPLY" || kind == "SIGNAL" || kind == "#") << kind;
        kinds += kind + " ";
    }
    for (const char* kind : {"CALL ", "REPLY ", "SIGNAL "})
        EXPECT_NE(std::string::npos, kinds.find(kind)) << kind;
}
