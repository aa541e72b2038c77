// What the peers answer and announce, and the key-value file behind the store; no bus involved.
#include "KeyValueFile.h"
#include "PeerServices.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace
{
PeerOutcome run(PeerServices& s, const std::string& line)
{
    return s.apply(PeerCommand::parse(line));
}
}

TEST(PeerServices, AudioSourcesAreAddedAndRemovedWithTheirSignal)
{
    // Plain add and remove with their signals are met on the bus by the e2e cooperation tests;
    // here the refusals and the switch for the signal.
    PeerServices s("");
    run(s, "refuse add");
    PeerAnswer refused = s.onCall(Peer::AudioManager, "addInterruptSrc", "{\"source\":\"cbTX\"}");
    EXPECT_EQ("{\"action\":\"not added\",\"source\":\"cbTX\"}", refused.text);
    EXPECT_TRUE(refused.signals.empty()) << "nothing was added, so nothing is announced";
    EXPECT_EQ("{\"action\":\"removed\",\"source\":\"cbTX\"}",
              s.onCall(Peer::AudioManager, "removeInterruptSrc", "{\"source\":\"cbTX\"}").text);

    run(s, "refuse both");
    EXPECT_EQ("{\"action\":\"not removed\",\"source\":\"cbRX\"}",
              s.onCall(Peer::AudioManager, "removeInterruptSrc", "{\"source\":\"cbRX\"}").text);
    run(s, "accept");
    run(s, "interrupt-signal off");
    PeerAnswer quiet = s.onCall(Peer::AudioManager, "addInterruptSrc", "{\"source\":\"cbRX\"}");
    EXPECT_EQ("{\"action\":\"added\",\"source\":\"cbRX\"}", quiet.text);
    EXPECT_TRUE(quiet.signals.empty());

    EXPECT_EQ("{\"action\":\"added\",\"source\":\"cbTX\"}", run(s, "interrupt added cbTX").signals.at(0).payload);
    EXPECT_EQ(PeerAnswer::ERROR, s.onCall(Peer::AudioManager, "addInterruptSrc", "{\"exclusive\":true}").kind);
    EXPECT_EQ(PeerAnswer::ERROR, s.onCall(Peer::AudioManager, "addInterruptSrc", "cbRX").kind);
}

// Each query answers with what was last announced or set, in order (a command, then a call and
// its answer). The signals themselves reach the daemon in the e2e cooperation tests.
TEST(PeerServices, QueriesReportWhatTheLastSignalsSaid)
{
    const std::string vox = "{\"props\":[\"voxDetectedState\"]}", routing = "{\"props\":[\"audioRoutingStatus\"]}";
    const std::string rear = "{\"props\":[\"rearControllerState\"]}", mic = "{\"device\":\"MIC\",\"state\":\"ON\"";
    struct
    {
        const char* command;
        Peer peer;
        const char* method;
        std::string args;
        const char* answer;
    } rows[] = {
        {"", Peer::AudioManager, "getProperties", "{\"props\":[\"voxDetectedState\",\"audioRoutingStatus\"]}",
         "{\"audioRoutingStatus\":{\"headset_d\":\"checked\",\"headset_p\":\"unchecked\",\"source\":\"communication\"},"
         "\"voxDetectedState\":{\"state\":0}}"},
        {"vox 1", Peer::AudioManager, "getProperties", vox, "{\"voxDetectedState\":{\"state\":1}}"},
        {"routing unchecked checked", Peer::AudioManager, "getProperties", routing,
         "{\"audioRoutingStatus\":{\"headset_d\":\"unchecked\",\"headset_p\":\"checked\",\"source\":\"communication\"}}"},
        {"", Peer::ModeManager, "getProperties", rear, "{\"rearControllerState\":{\"state\":\"ON\"}}"},
        {"rear OFF", Peer::ModeManager, "getProperties", rear, "{\"rearControllerState\":{\"state\":\"OFF\"}}"},
        {"diag-reply 2 busy", Peer::DiagnosticService, "reqGetDiagInspectionModeStatus", "",
         "{\"code\":2,\"description\":\"busy\"}"},
        // Microphones follow the user: the driver's, else the passenger's.
        {"", Peer::AudioManager, "setDeviceState", mic + ",\"user\":\"driver\"}",
         "{\"MIC_D\":\"ON\",\"MIC_P\":\"OFF\"}"},
        {"", Peer::AudioManager, "setDeviceState", mic + "}", "{\"MIC_D\":\"ON\",\"MIC_P\":\"ON\"}"},
    };
    PeerServices s("");
    for (auto& row : rows) {
        if (*row.command)
            run(s, row.command);
        EXPECT_EQ(row.answer, s.onCall(row.peer, row.method, row.args).text) << row.command << " " << row.method;
    }
    run(s, "power 4");
    EXPECT_EQ("{\"value\":4}", s.onCall(Peer::MERIDOOnOff, "getPowerMode", "").signals.at(0).payload)
        << "the power mode is answered with its signal";
    EXPECT_EQ(PeerAnswer::ERROR,
              s.onCall(Peer::AudioManager, "setDeviceState", "{\"device\":{},\"state\":\"ON\"}").kind);
}

// The success answer and an answer with an error code reach the daemon in the e2e cooperation
// tests; that a read-out takes 1.5 s unless told otherwise is met by the peersim integration test.
TEST(PeerServices, ReadOutsTakeTheirTime)
{
    PeerServices s("");
    const std::string args =
        "{\"data\":\"tune to 162.475 MHz \",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}";
    EXPECT_EQ("tune to 162.475 MHz ", s.onCall(Peer::TextToSpeechService, "ttsReadout", args).speak);

    run(s, "delay tts 0");
    EXPECT_EQ(0, s.onCall(Peer::TextToSpeechService, "ttsReadout", args).delayMs)
        << "a delay for every method replaces the read-out's own";
    EXPECT_EQ(PeerAnswer::ERROR, s.onCall(Peer::TextToSpeechService, "ttsReadout", "{\"data\":5}").kind);
}

// What each answer mode does on the bus is met by the e2e cooperation tests; here which
// setting wins and that a refused call announces nothing.
TEST(PeerServices, AnswerModesAndDelaysPerServiceAndPerMethod)
{
    PeerServices s("");
    const std::string add = "{\"source\":\"cbRX\"}";
    run(s, "fail audio addInterruptSrc com.quorin.Error.Busy busy now");
    PeerAnswer failed = s.onCall(Peer::AudioManager, "addInterruptSrc", add);
    EXPECT_EQ("busy now", failed.errorMessage);
    EXPECT_TRUE(failed.signals.empty());
    EXPECT_EQ(PeerAnswer::REPLY, s.onCall(Peer::AudioManager, "removeInterruptSrc", add).kind);
    run(s, "silent audio");
    PeerAnswer silent = s.onCall(Peer::AudioManager, "addInterruptSrc", add);
    EXPECT_EQ(PeerAnswer::NONE, silent.kind) << "a setting for every method replaces the per-method one";
    EXPECT_TRUE(silent.signals.empty());
    run(s, "malformed audio getProperties oops");
    run(s, "delay audio getProperties 40");
    EXPECT_EQ(40, s.onCall(Peer::AudioManager, "getProperties", "{\"props\":[]}").delayMs);
    run(s, "silent can");
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", s.onCall(Peer::CAN_HMI, "press", "").errorName)
        << "a method the service does not have is never silently swallowed";
}

TEST(PeerServices, SettingsSurviveARestartOfTheStoreAndABrokenFileStartsEmpty)
{
    TempRoot root(TempRoot::Export::No);
    const std::string file = root.path("var/lib/peersim/keyvalue.json");
    {
        PeerServices s(file);
        std::string error;
        ASSERT_TRUE(s.loadStore(error)) << "a missing file is an empty store";
        EXPECT_EQ("{\"res\":[]}", s.onCall(Peer::PersistentKeyValue, "read", "{\"key\":\"cbRadioProperties\"}").text);
        EXPECT_EQ("{\"code\":0,\"description\":\"success\"}",
                  s.onCall(Peer::PersistentKeyValue, "write", "{\"cbRadioProperties\":[5,3,1,2,3,4,9,40]}\n").text);
        run(s, "silent kv write");
        s.onCall(Peer::PersistentKeyValue, "write", "{\"cbRadioProperties\":[1,8,0,0,0,0,0,0]}");
    }
    PeerServices again(file);
    std::string error;
    ASSERT_TRUE(again.loadStore(error)) << error;
    EXPECT_EQ("{\"res\":[5,3,1,2,3,4,9,40]}",
              again.onCall(Peer::PersistentKeyValue, "read", "{\"key\":\"cbRadioProperties\"}").text)
        << "the silent write must not have stored";
    EXPECT_TRUE(run(again, "kv set other {\"a\": [1]}").ok);
    EXPECT_FALSE(run(again, "kv set other [1,").ok);
    EXPECT_EQ("other = {\"a\":[1]}", run(again, "kv get other").message);
    EXPECT_TRUE(run(again, "kv del other").ok);
    EXPECT_EQ("other is not stored", run(again, "kv get other").message);

    std::ofstream(file) << "[1,2";
    PeerServices broken(file);
    EXPECT_FALSE(broken.loadStore(error));
    EXPECT_NE(std::string::npos, error.find(file));
    EXPECT_EQ("{\"res\":[]}", broken.onCall(Peer::PersistentKeyValue, "read", "{\"key\":\"cbRadioProperties\"}").text);
    broken.onCall(Peer::PersistentKeyValue, "write", "{\"k\":7}");
    EXPECT_TRUE(PeerServices(file).loadStore(error)) << "the first write replaces the broken file: " << error;
}

TEST(KeyValueFile, DefaultPathLiesUnderTheRootPrefix)
{
    const char* saved = std::getenv("CBRADIO_ROOT");
    const std::string keep = saved ? saved : "";
    ::setenv("CBRADIO_ROOT", "/tmp/hu/", 1);
    EXPECT_EQ("/tmp/hu/var/lib/peersim/keyvalue.json", KeyValueFile::defaultPath());
    ::unsetenv("CBRADIO_ROOT");
    EXPECT_EQ("/var/lib/peersim/keyvalue.json", KeyValueFile::defaultPath());
    if (saved)
        ::setenv("CBRADIO_ROOT", keep.c_str(), 1);
}
