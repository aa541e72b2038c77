// peersim as the CB radio service meets it: the real binary on a private dbus-daemon, called and
// listened to through the service-IPC library, driven through its standard input. What the peers
// answer is the peer model's, checked without a bus; here each answer and signal must travel on
// its peer's own name and path.
#include "HeadUnit.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace
{
const std::string kPrefix = "com.quorin.service.";
const std::string kPathPrefix = "/com/quorin/service/";

class PeersimTest : public ::testing::Test
{
protected:
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

    HeadUnit::Reply call(const std::string& peer, const std::string& method, const std::string& params,
                         int timeoutMs = 3000)
    {
        return unit.callOf(kPrefix + peer, kPathPrefix + peer, method, params, timeoutMs);
    }

    bool hasOwner(const std::string& peer)
    {
        SVCIPC_tBool owned = 0;
        EXPECT_EQ(0, SVCIPC_nameHasOwner(unit.client(), (kPrefix + peer).c_str(), &owned, 0));
        return owned != 0;
    }

    HeadUnit unit;
};
}

// A peer leaves and comes back (its signals in between are lost), answers slowly or malformed.
TEST_F(PeersimTest, APeerLeavesTheBusComesBackAndAnswersSlowlyOrMalformed)
{
    ASSERT_TRUE(start()) << unit.error();
    const std::string audio = kPrefix + "AudioManager";
    ASSERT_TRUE(unit.watchOwner(audio) && unit.listen(kPathPrefix + "AudioManager", "voxDetectedState"))
        << unit.error();

    const size_t mark = send("leave audio");
    std::string data;
    ASSERT_TRUE(unit.waitForSignal(audio, data, 0, 10000));
    EXPECT_EQ("left", data);
    EXPECT_FALSE(hasOwner("AudioManager"));
    EXPECT_TRUE(hasOwner("ModeManager"));
    EXPECT_EQ(SVCIPC_ERR_NO_SERVICE, call("AudioManager", "getProperties", "{\"props\":[]}").status);
    send("vox 1");
    EXPECT_TRUE(logged("AudioManager is not on the bus; voxDetectedState not sent", mark));

    send("join audio");
    ASSERT_TRUE(unit.waitForSignal(audio, data, 1, 10000));
    EXPECT_EQ("joined", data);
    EXPECT_EQ("{}", call("AudioManager", "getProperties", "{\"props\":[]}").text);
    send("vox 0");
    ASSERT_TRUE(unit.waitForSignal("voxDetectedState", data, 0, 10000));
    EXPECT_EQ("{\"state\":0}", data) << "the signal sent while away arrived";
    EXPECT_EQ(3u, unit.signals().size());

    send("bounce audio 50");
    EXPECT_TRUE(logged("AudioManager left the bus", mark));
    EXPECT_TRUE(HeadUnit::waitUntil([&] { return unit.signals().size() >= 5; }, 5000));
    EXPECT_EQ("joined", unit.signals().back().data);

    // A read-out takes its 1.5 s unless told otherwise.
    const std::string readout = "{\"data\":\"x\",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}";
    EXPECT_EQ(SVCIPC_ERR_TIMEOUT, call("TextToSpeechService", "ttsReadout", readout, 300).status);
    logged("REPLY TextToSpeechService.ttsReadout");
    ASSERT_TRUE(logged("malformed reply", send("malformed diag")));
    const HeadUnit::Reply broken = call("DiagnosticService", "reqGetDiagInspectionModeStatus", "");
    EXPECT_EQ(0, broken.status);
    EXPECT_EQ("{\"broken\":", broken.text);
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
    for (std::string line; std::getline(text, line);) {
        const bool stamped = line.size() > 13 && isClockTime(line) && line[12] == ' ';
        const std::string kind = stamped ? line.substr(13, line.find(' ', 13) - 13) : "";
        EXPECT_TRUE(kind == "CALL" || kind == "REPLY" || kind == "SIGNAL" || kind == "#") << line;
    }
    for (const char* kind : {" CALL ", " REPLY ", " SIGNAL "})
        EXPECT_NE(std::string::npos, unit.peerLog().find(kind)) << kind;
}
