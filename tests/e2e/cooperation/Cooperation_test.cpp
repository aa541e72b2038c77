// The service's cooperation with the other head-unit services, end to end: the real cbradiod and
// v850sim on a private bus, with the real peersim standing in for the audio manager, key-value
// store, speech, diagnosis, mode manager, power mode and switch services.
//
// peersim takes its commands from a named pipe given as its script, so a test can make the peers
// emit signals or change their answers while everything runs. What the service did is read from
// three places: the frames it wrote to the V850 (simulator log), the calls it made to the peers
// (peersim log) and its own trace on the console.
//
// One head unit is shared by the tests that only move the radio between known states; the
// settings and the refused start-up read get head units of their own.
#include "HeadUnit.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{
    const std::string SUCCESS = "{\"code\":0,\"description\":\"success\"}\n";
    const std::string FAILURE = "{\"code\":1,\"description\":\"failure\"}\n";
    const char* const PEER_NAMES[] = {
        "com.quorin.service.AudioManager", "com.quorin.service.PersistentKeyValue",
        "com.quorin.service.TextToSpeechService", "com.quorin.service.DiagnosticService",
        "com.quorin.service.ModeManager", "com.quorin.service.MERIDOOnOff", "com.quorin.service.CAN_HMI"};

    std::string weatherText(const char* frequency)
    {
        return std::string("A weather alert from the National Weather Service has been received Please tune to the "
                           "weather band, ") + frequency + " MHz, for more information ";
    }

    size_t countOf(const std::string& text, const std::string& what, size_t from)
    {
        size_t count = 0;
        for (size_t at = text.find(what, from); at != std::string::npos; at = text.find(what, at + what.size()))
            ++count;
        return count;
    }

    // peersim under a head unit, driven through a named pipe.
    class PeerSim
    {
    public:
        ~PeerSim()
        {
            if (mPipe >= 0)
                ::close(mPipe);
        }

        // Starts peersim with `firstCommands` carried out before anything else, and returns once
        // it reads the pipe, so those commands have been carried out and every peer is on the bus.
        bool start(HeadUnit& unit, const std::vector<std::string>& firstCommands = {})
        {
            mUnit = &unit;
            const std::string pipe = unit.path("peersim.cmd");
            if (::mkfifo(pipe.c_str(), 0600) != 0)
                return false;
            std::vector<std::string> args = {HeadUnit::buildDir() + "/tools/peersim/peersim",
                                             "--log=" + unit.path("peersim.log"), "--no-stdin"};
            for (const std::string& c : firstCommands)
                args.insert(args.end(), {"--cmd", c});
            args.insert(args.end(), {"--script", pipe});
            if (unit.spawn(args, "peersim") <= 0)
                return false;
            // Opening a pipe's writing end without blocking fails until its reader is there.
            const bool opened = HeadUnit::waitUntil([&] {
                mPipe = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                return mPipe >= 0;
            }, 10000);
            if (!opened)
                return false;
            ::fcntl(mPipe, F_SETFL, 0);
            for (const char* name : PEER_NAMES) {
                SVCIPC_tBool owned = 0;
                if (SVCIPC_nameHasOwner(unit.client(), name, &owned, 2000) != 0 || !owned)
                    return false;
            }
            return true;
        }

        bool command(const std::string& line) const
        {
            const std::string text = line + "\n";
            return ::write(mPipe, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        }

        std::string log() const { return HeadUnit::readFile(mUnit->path("peersim.log")); }
        size_t mark() const { return log().size(); }
        size_t count(const std::string& text, size_t from) const { return countOf(log(), text, from); }
        bool waitForLog(const std::string& text, size_t from, int timeoutMs = 3000) const
        {
            return HeadUnit::waitUntil([&] { return log().find(text, from) != std::string::npos; }, timeoutMs);
        }

    private:
        HeadUnit* mUnit = nullptr;
        int mPipe = -1;
    };

    // A head unit with peersim started before the service, so the service finds every peer.
    struct CoopUnit
    {
        HeadUnit unit;
        PeerSim peers;

        bool start(const std::vector<std::string>& peerCommands = {})
        {
            HeadUnit::Options options;
            options.beforeDaemon = [this, peerCommands](HeadUnit& u) { return peers.start(u, peerCommands); };
            return unit.start(options);
        }

        // Radio on and hardware connected, as the V850 reports them.
        bool radioOn()
        {
            const size_t mark = unit.traceMark();
            unit.simulator("hw back");
            unit.simulator("on");
            return unit.waitForTrace("CBR_ON_OFF state = 1", mark) &&
                   unit.waitForTrace("CBR_HW_CONNECTION_STATUS is 1", mark);
        }
    };
}

// ---- settings ---------------------------------------------------------------------------------

// The settings in the store reach the V850 at start, are written back on power mode 1 and come
// back after the service restarts.
TEST(CooperationSettings, RestoredPushedStoredAndRestoredAgainAfterRestart)
{
    ::signal(SIGPIPE, SIG_IGN);
    CoopUnit coop;
    ASSERT_TRUE(coop.start({"kv set cbRadioProperties [5,3,1,2,3,4,9,40]"})) << coop.unit.error();
    HeadUnit& unit = coop.unit;

    EXPECT_TRUE(unit.waitForFrame("02 01 05")) << "restored channel not sent";
    EXPECT_TRUE(unit.waitForFrame("03 01 03")) << "restored squelch not sent";
    EXPECT_TRUE(unit.traced("channel=5,SquelchLvl=3,prst1=1,prst2=2,prst3=3,prst4=4,prst5=9,prst6=40"));
    const HeadUnit::Reply presets = unit.call("reqCBRGetPresetList");
    ASSERT_TRUE(presets.ok());
    EXPECT_NE(std::string::npos, presets.text.find("\"Channel_number\":40")) << presets.text;

    // Change what is to be stored: the V850 confirms a new channel, a method stores a preset.
    ASSERT_TRUE(coop.radioOn());
    size_t traceMark = unit.traceMark();
    unit.simulator("channel 12");
    ASSERT_TRUE(unit.waitForTrace("CBR_CHANNEL_SELECT is 12", traceMark));
    ASSERT_EQ(SUCCESS, unit.call("reqCBRStorePreset", "{\"channelNumber\":22,\"presetNo\":1}").text);

    size_t peerMark = coop.peers.mark();
    size_t frames = unit.frameMark();
    coop.peers.command("power 1");
    EXPECT_TRUE(coop.peers.waitForLog(
        "CALL PersistentKeyValue.write {\"cbRadioProperties\":[12,3,22,2,3,4,9,40]}", peerMark));
    EXPECT_TRUE(unit.waitForTrace("[CBR onPowerModeSignal] : Value 1", traceMark));
    for (const std::string& f : unit.framesSince(frames))
        EXPECT_NE(0u, f.rfind("0E", 0)) << "power mode 1 keyed the transmitter: " << f;

    // A restart of the service alone: the V850 and the peers stay.
    ASSERT_TRUE(unit.stopDaemon());
    frames = unit.frameMark();
    ASSERT_GT(unit.spawn({HeadUnit::buildDir() + "/cbradio/cbradiod", "--tp=" + unit.path("trace.tp")}, "daemon2",
                         {{"CBRADIO_FOREGROUND", "1"}}), 0);
    ASSERT_TRUE(HeadUnit::waitUntil([&] {
        return HeadUnit::readFile(unit.path("daemon2.out")).find("[CBRadio] Up and Running...") != std::string::npos;
    }, 15000)) << HeadUnit::readFile(unit.path("daemon2.out"));
    EXPECT_TRUE(unit.waitForFrame("02 01 0C", frames));
    EXPECT_TRUE(unit.waitForFrame("03 01 03", frames));
    const HeadUnit::Reply after = unit.call("reqCBRGetPresetList");
    EXPECT_NE(std::string::npos, after.text.find("{\"Channel_number\":22,\"PresetNo\":1}")) << after.text;
}

// A store that answers the read with an error leaves the radio methods refused, and nothing is
// pushed to the V850.
TEST(CooperationSettings, ReadAnsweredWithErrorKeepsMethodsRefused)
{
    ::signal(SIGPIPE, SIG_IGN);
    CoopUnit coop;
    ASSERT_TRUE(coop.start({"fail kv read"})) << coop.unit.error();
    HeadUnit& unit = coop.unit;

    EXPECT_TRUE(unit.waitForTrace("[CBR onCBRadioPersistDataRead] : errCode = "));
    EXPECT_EQ(FAILURE, unit.call("reqCBRStateChange", "{\"CBRState\":1}").text);
    EXPECT_EQ(FAILURE, unit.call("reqCBRStartSeek", "{\"seekDirection\":1}").text);
    for (const std::string& f : unit.framesFromHeadUnit()) {
        EXPECT_NE(0u, f.rfind("02 01", 0)) << "channel pushed after a failed read: " << f;
        EXPECT_NE(0u, f.rfind("01 01", 0)) << "radio switched after a failed read: " << f;
    }
}

// Peers that never answer hold the start and the V850 reader only for the queries' time-outs, and
// the service keeps answering its own methods meanwhile.
TEST(CooperationSettings, SilentPeersCostOnlyTheirTimeOuts)
{
    ::signal(SIGPIPE, SIG_IGN);
    CoopUnit coop;
    ASSERT_TRUE(coop.start({"silent all"})) << coop.unit.error();
    HeadUnit& unit = coop.unit;
    EXPECT_TRUE(unit.traced("[CBR getAudioRoutingStatus] SVCIPC Error"));
    EXPECT_TRUE(unit.traced("[CBR getRearControllerState] SVCIPC Error"));
    EXPECT_TRUE(unit.traced("[CBR getDiagInspmodeState] SVCIPC Error"));

    // The radio coming on makes the reader ask for the voice detection state, in vain.
    const size_t mark = unit.traceMark();
    unit.simulator("hw back");
    unit.simulator("on");
    const HeadUnit::Reply reply = unit.call("getProperties", "{\"props\":\"CBRHWConnectionStatus\"}");
    EXPECT_EQ(SUCCESS, reply.text);
    EXPECT_TRUE(unit.waitForTrace("[CBR getVoxDetectedState] SVCIPC Error", mark));
    // The store never answered the read, so the radio methods are still refused, but answered.
    EXPECT_EQ(FAILURE, unit.call("reqCBRStartSeek", "{\"seekDirection\":1}").text);
}

// ---- one head unit for audio sources, push-to-talk, inspection mode and weather alerts ---------

class Cooperation : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        ::signal(SIGPIPE, SIG_IGN);
        coop = new CoopUnit;
        // Answers at once, so that completions do not hold the tests up.
        ASSERT_TRUE(coop->start({"delay tts 50"})) << coop->unit.error();
        ASSERT_TRUE(coop->unit.waitForTrace("[CBR getAudioRoutingStatus] : headset_driver->checked"));
    }

    static void TearDownTestSuite()
    {
        delete coop;
        coop = nullptr;
    }

    void SetUp() override
    {
        ASSERT_NE(nullptr, coop);
        ASSERT_TRUE(coop->radioOn());
        setPowerMode(3);
        frames = unit().frameMark();
        traces = unit().traceMark();
        calls = peers().mark();
    }

    static HeadUnit& unit() { return coop->unit; }
    static PeerSim& peers() { return coop->peers; }

    static void setPowerMode(int mode)
    {
        const size_t mark = unit().traceMark();
        peers().command("power " + std::to_string(mode));
        ASSERT_TRUE(unit().waitForTrace("[CBR onPowerModeSignal] : Value " + std::to_string(mode), mark));
    }

    // PTT frames (0E 01 x) written since the test began.
    std::vector<std::string> pttFrames() const
    {
        std::vector<std::string> ptt;
        for (const std::string& f : unit().framesSince(frames))
            if (f.rfind("0E 01", 0) == 0)
                ptt.push_back(f);
        return ptt;
    }

    static CoopUnit* coop;
    size_t frames = 0;
    size_t traces = 0;
    size_t calls = 0;
};

CoopUnit* Cooperation::coop = nullptr;

TEST_F(Cooperation, ReceiveSourceIsAskedForOnceAndGivenBackAtIdle)
{
    unit().simulator("rx on");
    ASSERT_TRUE(peers().waitForLog("CALL AudioManager.addInterruptSrc {\"exclusive\":true,\"source\":\"cbRX\"}", calls));
    ASSERT_TRUE(unit().waitForTrace("[CBR oninterruptSrcStateSignal] : CBR_RX_INT_REQUEST_SUCCESS", traces));
    unit().simulator("rx on");
    ASSERT_TRUE(unit().waitForTrace("[CBR setCBRxAudioSource] : CBRx already Requested", traces));
    EXPECT_EQ(1u, peers().count("CALL AudioManager.addInterruptSrc", calls));

    const size_t signalMark = unit().signalMark();
    unit().simulator("rx off");
    EXPECT_TRUE(peers().waitForLog("CALL AudioManager.removeInterruptSrc {\"source\":\"cbRX\"}", calls));
    EXPECT_TRUE(HeadUnit::waitUntil([&] {
        for (const HeadUnit::Signal& s : unit().signalsSince(signalMark))
            if (s.name == "CBRRxTxStatus" && s.data == "{\"RxStatus\":0,\"TxStatus\":0}\n")
                return true;
        return false;
    }, 3000)) << "no return to idle announced";
    EXPECT_TRUE(unit().waitForTrace("[CBR oninterruptSrcStateSignal] : CBR_RX_INT_NOT_REQUESTED", traces));
}

TEST_F(Cooperation, RiderPressKeysTransmitterWithItsAudioSourceOnlyInPowerMode3)
{
    setPowerMode(2);
    peers().command("rider press");
    ASSERT_TRUE(unit().waitForTrace("[CBR onRiderPTTSignal] Value 2", traces));
    EXPECT_TRUE(pttFrames().empty()) << "keyed outside power mode 3";

    // Mode 3 keys the held switch; the V850 then reports transmitting and cbTX is asked for.
    setPowerMode(3);
    EXPECT_TRUE(unit().waitForTrace("[CBR onPowerModeSignal] : PTT ON Status sent to v850", traces));
    EXPECT_TRUE(unit().waitForFrame("0E 01 01", frames));
    EXPECT_TRUE(peers().waitForLog("CALL AudioManager.addInterruptSrc {\"exclusive\":true,\"source\":\"cbTX\"}", calls));

    // Mode 4 un-keys it while the switch is still held.
    const size_t beforeMode4 = unit().frameMark();
    setPowerMode(4);
    EXPECT_TRUE(unit().waitForTrace("[CBR onPowerModeSignal] : PTT OFF Status sent to v850", traces));
    EXPECT_TRUE(unit().waitForFrame("0E 01 00", beforeMode4));
    EXPECT_TRUE(peers().waitForLog("CALL AudioManager.removeInterruptSrc {\"source\":\"cbTX\"}", calls));

    peers().command("rider release");
    ASSERT_TRUE(unit().waitForTrace("[CBR onRiderPTTSignal] Value 0", traces));
}

TEST_F(Cooperation, PassengerSwitchTogglesWithARoutedHeadset)
{
    peers().command("routing checked checked");
    ASSERT_TRUE(unit().waitForTrace("[CBR onAudioRoutingStatusSignal] : headset_passenger->checked", traces));
    EXPECT_TRUE(pttFrames().empty()) << "a headset alone keyed the transmitter";

    peers().command("passenger press");
    ASSERT_TRUE(unit().waitForTrace("[CBR onPassengerPTTSignal] : PTT Value 1", traces));
    ASSERT_TRUE(unit().waitForFrame("0E 01 01", frames));
    const size_t secondPress = unit().traceMark();
    peers().command("passenger press");
    ASSERT_TRUE(unit().waitForTrace("[CBR onPassengerPTTSignal] : PTT Value 1", secondPress));
    EXPECT_TRUE(HeadUnit::waitUntil([&] { return pttFrames().size() >= 2; }, 3000));
    EXPECT_EQ((std::vector<std::string>{"0E 01 01", "0E 01 00"}), pttFrames());

    // Without the rear controller the passenger's presses mean nothing.
    peers().command("rear OFF");
    ASSERT_TRUE(unit().waitForTrace("[CBR onRearControllerStateSignal] : OFF", traces));
    const size_t noRear = unit().traceMark();
    peers().command("passenger press");
    peers().command("rider 1");   // a marker that the press before it was handled
    ASSERT_TRUE(unit().waitForTrace("[CBR onRiderPTTSignal] Value 1", noRear));
    EXPECT_FALSE(unit().traced("[CBR onPassengerPTTSignal]", noRear));
    EXPECT_EQ(2u, pttFrames().size());

    peers().command("rear ON");
    peers().command("routing checked unchecked");
    ASSERT_TRUE(unit().waitForTrace("[CBR onRearControllerStateSignal] : ON", noRear));
    ASSERT_TRUE(unit().waitForTrace("[CBR onAudioRoutingStatusSignal] : headset_passenger->unchecked", noRear));
}

TEST_F(Cooperation, InspectionModeSwitchesTheRadioOffAndBack)
{
    peers().command("diag 1");
    ASSERT_TRUE(unit().waitForTrace("[CBR ondiagInspectionModeStatusSignal] : 1 ", traces));
    EXPECT_TRUE(unit().waitForFrame("0E 01 00", frames));
    EXPECT_TRUE(unit().waitForFrame("01 01 00", frames));
    ASSERT_TRUE(unit().waitForTrace("CBR_ON_OFF state = 0", traces));

    // While inspecting, receiving asks for no audio source.
    unit().simulator("on");
    ASSERT_TRUE(unit().waitForTrace("CBR_ON_OFF state = 1", traces));
    unit().simulator("rx on");
    EXPECT_TRUE(unit().waitForTrace("[CBR setCBRxAudioSource] : inspection mode", traces));
    unit().simulator("rx off");
    EXPECT_TRUE(unit().waitForTrace("[CBR removeCBRxAudioSource] Inspection mode", traces));
    EXPECT_EQ(0u, peers().count("CALL AudioManager.addInterruptSrc", calls));

    // Back to normal: the radio goes back to the state it had before (on).
    const size_t back = unit().frameMark();
    peers().command("diag 0");
    ASSERT_TRUE(unit().waitForTrace("[CBR ondiagInspectionModeStatusSignal] : 0 ", traces));
    EXPECT_TRUE(unit().waitForFrame("01 01 01", back));
    unit().simulator("rx on");
    EXPECT_TRUE(peers().waitForLog("CALL AudioManager.addInterruptSrc", calls));
    unit().simulator("rx off");
    EXPECT_TRUE(peers().waitForLog("CALL AudioManager.removeInterruptSrc", calls));
}

// The last test of the group: a failed read-out blocks every later one for good.
TEST_F(Cooperation, WeatherAlertReadOutAndTheFlagAFailedCompletionLeavesSet)
{
    unit().simulator("alert 4");
    EXPECT_TRUE(peers().waitForLog("CALL TextToSpeechService.ttsReadout {\"data\":\"" + weatherText("162.475") +
                                   "\",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}", calls));
    ASSERT_TRUE(unit().waitForTrace("[CBR] ttsReadOut Success", traces));

    // An answer with an error code frees the way for the next alert.
    peers().command("tts-result 3 busy");
    unit().simulator("alert 1");
    ASSERT_TRUE(unit().waitForTrace("[CBR] ttsReadOutError : ==> busy 3", traces));
    unit().simulator("alert 7");
    EXPECT_TRUE(peers().waitForLog(weatherText("162.550"), calls));
    ASSERT_TRUE(HeadUnit::waitUntil([&] { return unit().traceCount("[CBR] ttsReadOutError", traces) == 2; }, 3000));

    // An error reply does not: the flag stays set and later alerts are refused.
    const size_t failing = unit().traceMark();
    peers().command("fail tts");
    unit().simulator("alert 2");
    ASSERT_TRUE(unit().waitForTrace("[CBR onCompletionAddInterruptSrc] : error", failing));
    const size_t afterFailure = peers().mark();
    peers().command("normal tts");
    unit().simulator("alert 3");
    EXPECT_TRUE(unit().waitForTrace("[CBR] TTS already Requested", failing));
    EXPECT_EQ(0u, peers().count("CALL TextToSpeechService.ttsReadout", afterFailure));
}
