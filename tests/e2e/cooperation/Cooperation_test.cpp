// The service's cooperation with the other head-unit services, end to end: the real cbradiod and
// v850sim on a private bus, with the real peersim standing in for the audio manager, key-value
// store, speech, diagnosis, mode manager, power mode and switch services. peersim takes commands
// while everything runs, so a test can make the peers emit signals or change their answers. What
// the service did is read from the frames it wrote to the V850 (simulator log), the calls it made
// to the peers (peersim log) and its own trace on the console.
//
// One head unit is shared by the tests that only move the radio between known states; the
// settings and the refused start-up read get head units of their own.
#include "HeadUnit.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
const std::string SUCCESS = HeadUnit::kSuccess;
const std::string FAILURE = HeadUnit::kFailure;

std::string weatherText(const char* frequency)
{
    return std::string("A weather alert from the National Weather Service has been received Please tune to the "
                       "weather band, ") +
           frequency + " MHz, for more information ";
}

// A head unit with peersim started before the service, so the service finds every peer.
bool startWithPeers(HeadUnit& unit, const std::vector<std::string>& firstPeerCommands)
{
    HeadUnit::Options options;
    options.startPeers = true;
    for (const std::string& c : firstPeerCommands)
        options.peerArgs.insert(options.peerArgs.end(), {"--cmd", c});
    return unit.start(options);
}

// Radio on and hardware connected, as the V850 reports them.
bool radioOn(HeadUnit& unit)
{
    const size_t mark = unit.traceMark();
    unit.simulator("hw back");
    unit.simulator("on");
    return unit.waitForTrace("CBR_ON_OFF state = 1", mark) && unit.waitForTrace("CBR_HW_CONNECTION_STATUS is 1", mark);
}
}

// ---- settings ---------------------------------------------------------------------------------

// The settings in the store reach the V850 at start, are written back on power mode 1 and come
// back after the service restarts.
TEST(CooperationSettings, RestoredPushedStoredAndRestoredAgainAfterRestart)
{
    HeadUnit unit;
    ASSERT_TRUE(startWithPeers(unit, {"kv set cbRadioProperties [5,3,1,2,3,4,9,40]"})) << unit.error();
    EXPECT_TRUE(unit.waitForFrame("02 01 05")) << "restored channel not sent";
    EXPECT_TRUE(unit.waitForFrame("03 01 03")) << "restored squelch not sent";
    EXPECT_TRUE(unit.traced("channel=5,SquelchLvl=3,prst1=1,prst2=2,prst3=3,prst4=4,prst5=9,prst6=40"));
    EXPECT_NE(std::string::npos, unit.call("reqCBRGetPresetList").text.find("{\"Channel_number\":40,\"PresetNo\":6}"));

    // Change what is to be stored: the V850 confirms a new channel, a method stores a preset.
    ASSERT_TRUE(radioOn(unit));
    const size_t traces = unit.traceMark();
    unit.simulator("channel 12");
    ASSERT_TRUE(unit.waitForTrace("CBR_CHANNEL_SELECT is 12", traces));
    ASSERT_EQ(SUCCESS, unit.call("reqCBRStorePreset", "{\"channelNumber\":22,\"presetNo\":1}").text);

    const size_t calls = unit.peerLog().size();
    size_t frames = unit.frameMark();
    unit.peers("power 1");
    EXPECT_TRUE(unit.waitForFile("peersim.log",
                                 "CALL PersistentKeyValue.write {\"cbRadioProperties\":[12,3,22,2,3,4,9,40]}", calls));
    EXPECT_TRUE(unit.waitForTrace("[CBR onPowerModeSignal] : Value 1", traces));
    for (const std::string& f : unit.framesSince(frames))
        EXPECT_NE(0u, f.rfind("0E", 0)) << "power mode 1 keyed the transmitter: " << f;

    // A restart of the service alone: the V850 and the peers stay.
    ASSERT_TRUE(unit.stopDaemon());
    frames = unit.frameMark();
    ASSERT_TRUE(unit.startDaemon()) << unit.error();
    EXPECT_TRUE(unit.waitForFrame("02 01 0C", frames));
    EXPECT_TRUE(unit.waitForFrame("03 01 03", frames));
    EXPECT_NE(std::string::npos, unit.call("reqCBRGetPresetList").text.find("{\"Channel_number\":22,\"PresetNo\":1}"));
}

// A store that answers the read with an error leaves the radio methods refused (yet answered)
// and nothing pushed to the V850. Peers that never answer hold the start and the V850 reader only
// for their queries' time-outs.
TEST(CooperationSettings, FailedReadAndSilentPeersKeepMethodsRefusedAndCostOnlyTheirTimeOuts)
{
    HeadUnit unit;
    ASSERT_TRUE(startWithPeers(unit, {"silent all", "fail kv read"})) << unit.error();
    EXPECT_TRUE(unit.waitForTrace("[CBR onCBRadioPersistDataRead] : errCode = "));
    for (const char* query : {"getAudioRoutingStatus", "getRearControllerState", "getDiagInspmodeState"})
        EXPECT_TRUE(unit.traced(std::string("[CBR ") + query + "] SVCIPC Error")) << query;

    // The radio coming on makes the reader ask for the voice detection state, in vain.
    const size_t mark = unit.traceMark();
    unit.simulator("hw back");
    unit.simulator("on");
    EXPECT_EQ(SUCCESS, unit.call("getProperties", "{\"props\":\"CBRHWConnectionStatus\"}").text);
    EXPECT_TRUE(unit.waitForTrace("[CBR getVoxDetectedState] SVCIPC Error", mark));
    EXPECT_EQ(FAILURE, unit.call("reqCBRStateChange", "{\"CBRState\":1}").text);
    EXPECT_EQ(FAILURE, unit.call("reqCBRStartSeek", "{\"seekDirection\":1}").text);
    for (const std::string& f : unit.framesFromHeadUnit())
        EXPECT_TRUE(f.rfind("02 01", 0) != 0 && f.rfind("01 01", 0) != 0) << "pushed after a failed read: " << f;
}

// ---- one head unit for audio sources, push-to-talk, inspection mode and weather alerts ---------

class Cooperation : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        unit = new HeadUnit;
        // Read-outs answer at once, so that completions do not hold the tests up.
        ASSERT_TRUE(startWithPeers(*unit, {"delay tts 50"})) << unit->error();
        ASSERT_TRUE(unit->waitForTrace("[CBR getAudioRoutingStatus] : headset_driver->checked"));
    }

    static void TearDownTestSuite()
    {
        delete unit;
        unit = nullptr;
    }

    void SetUp() override
    {
        ASSERT_NE(nullptr, unit);
        ASSERT_TRUE(radioOn(*unit));
        setPowerMode(3);
        frames = unit->frameMark();
        traces = unit->traceMark();
        calls = unit->peerLog().size();
    }

    static void setPowerMode(int mode)
    {
        const size_t mark = unit->traceMark();
        unit->peers("power " + std::to_string(mode));
        ASSERT_TRUE(unit->waitForTrace("[CBR onPowerModeSignal] : Value " + std::to_string(mode), mark));
    }

    bool called(const std::string& text) const { return unit->waitForFile("peersim.log", text, calls); }
    size_t callCount(const std::string& text, size_t from) const { return countOf(unit->peerLog(), text, from); }

    // PTT frames (0E 01 x) written since the test began.
    std::vector<std::string> pttFrames() const
    {
        std::vector<std::string> ptt;
        for (const std::string& f : unit->framesSince(frames))
            if (f.rfind("0E 01", 0) == 0)
                ptt.push_back(f);
        return ptt;
    }

    static HeadUnit* unit;
    size_t frames = 0;
    size_t traces = 0;
    size_t calls = 0;
};

HeadUnit* Cooperation::unit = nullptr;

TEST_F(Cooperation, ReceiveSourceIsAskedForOnceAndGivenBackAtIdle)
{
    unit->simulator("rx on");
    ASSERT_TRUE(called("CALL AudioManager.addInterruptSrc {\"exclusive\":true,\"source\":\"cbRX\"}"));
    ASSERT_TRUE(unit->waitForTrace("[CBR oninterruptSrcStateSignal] : CBR_RX_INT_REQUEST_SUCCESS", traces));
    unit->simulator("rx on");
    ASSERT_TRUE(unit->waitForTrace("[CBR setCBRxAudioSource] : CBRx already Requested", traces));
    EXPECT_EQ(1u, callCount("CALL AudioManager.addInterruptSrc", calls));

    const size_t signals = unit->signalMark();
    unit->simulator("rx off");
    EXPECT_TRUE(called("CALL AudioManager.removeInterruptSrc {\"source\":\"cbRX\"}"));
    std::string idle;
    EXPECT_TRUE(unit->waitForSignal("CBRRxTxStatus", idle, signals));
    EXPECT_EQ("{\"RxStatus\":0,\"TxStatus\":0}\n", idle);
    EXPECT_TRUE(unit->waitForTrace("[CBR oninterruptSrcStateSignal] : CBR_RX_INT_NOT_REQUESTED", traces));
}

TEST_F(Cooperation, RiderPressKeysTransmitterWithItsAudioSourceOnlyInPowerMode3)
{
    setPowerMode(2);
    unit->peers("rider press");
    ASSERT_TRUE(unit->waitForTrace("[CBR onRiderPTTSignal] Value 2", traces));
    EXPECT_TRUE(pttFrames().empty()) << "keyed outside power mode 3";

    // Mode 3 keys the held switch; the V850 then reports transmitting and cbTX is asked for.
    setPowerMode(3);
    EXPECT_TRUE(unit->waitForTrace("[CBR onPowerModeSignal] : PTT ON Status sent to v850", traces));
    EXPECT_TRUE(unit->waitForFrame("0E 01 01", frames));
    EXPECT_TRUE(called("CALL AudioManager.addInterruptSrc {\"exclusive\":true,\"source\":\"cbTX\"}"));

    // Mode 4 un-keys it while the switch is still held.
    const size_t beforeMode4 = unit->frameMark();
    setPowerMode(4);
    EXPECT_TRUE(unit->waitForTrace("[CBR onPowerModeSignal] : PTT OFF Status sent to v850", traces));
    EXPECT_TRUE(unit->waitForFrame("0E 01 00", beforeMode4));
    EXPECT_TRUE(called("CALL AudioManager.removeInterruptSrc {\"source\":\"cbTX\"}"));

    unit->peers("rider release");
    ASSERT_TRUE(unit->waitForTrace("[CBR onRiderPTTSignal] Value 0", traces));
}

TEST_F(Cooperation, PassengerSwitchTogglesWithARoutedHeadset)
{
    unit->peers("routing checked checked");
    ASSERT_TRUE(unit->waitForTrace("[CBR onAudioRoutingStatusSignal] : headset_passenger->checked", traces));
    EXPECT_TRUE(pttFrames().empty()) << "a headset alone keyed the transmitter";

    unit->peers("passenger press");
    ASSERT_TRUE(unit->waitForTrace("[CBR onPassengerPTTSignal] : PTT Value 1", traces));
    ASSERT_TRUE(unit->waitForFrame("0E 01 01", frames));
    const size_t secondPress = unit->traceMark();
    unit->peers("passenger press");
    ASSERT_TRUE(unit->waitForTrace("[CBR onPassengerPTTSignal] : PTT Value 1", secondPress));
    EXPECT_TRUE(HeadUnit::waitUntil([&] { return pttFrames().size() >= 2; }, 3000));
    EXPECT_EQ((std::vector<std::string>{"0E 01 01", "0E 01 00"}), pttFrames());

    // Without the rear controller the passenger's presses mean nothing.
    unit->peers("rear OFF");
    ASSERT_TRUE(unit->waitForTrace("[CBR onRearControllerStateSignal] : OFF", traces));
    const size_t noRear = unit->traceMark();
    unit->peers("passenger press");
    unit->peers("rider 1");  // a marker that the press before it was handled
    ASSERT_TRUE(unit->waitForTrace("[CBR onRiderPTTSignal] Value 1", noRear));
    EXPECT_FALSE(unit->traced("[CBR onPassengerPTTSignal]", noRear));
    EXPECT_EQ(2u, pttFrames().size());

    unit->peers("rear ON");
    unit->peers("routing checked unchecked");
    ASSERT_TRUE(unit->waitForTrace("[CBR onRearControllerStateSignal] : ON", noRear));
    ASSERT_TRUE(unit->waitForTrace("[CBR onAudioRoutingStatusSignal] : headset_passenger->unchecked", noRear));
}

TEST_F(Cooperation, InspectionModeSwitchesTheRadioOffAndBack)
{
    unit->peers("diag 1");
    ASSERT_TRUE(unit->waitForTrace("[CBR ondiagInspectionModeStatusSignal] : 1 ", traces));
    EXPECT_TRUE(unit->waitForFrame("0E 01 00", frames));
    EXPECT_TRUE(unit->waitForFrame("01 01 00", frames));
    ASSERT_TRUE(unit->waitForTrace("CBR_ON_OFF state = 0", traces));

    // While inspecting, receiving asks for no audio source.
    unit->simulator("on");
    ASSERT_TRUE(unit->waitForTrace("CBR_ON_OFF state = 1", traces));
    unit->simulator("rx on");
    EXPECT_TRUE(unit->waitForTrace("[CBR setCBRxAudioSource] : inspection mode", traces));
    unit->simulator("rx off");
    EXPECT_TRUE(unit->waitForTrace("[CBR removeCBRxAudioSource] Inspection mode", traces));
    EXPECT_EQ(0u, callCount("CALL AudioManager.addInterruptSrc", calls));

    // Back to normal: the radio goes back to the state it had before (on).
    const size_t back = unit->frameMark();
    unit->peers("diag 0");
    ASSERT_TRUE(unit->waitForTrace("[CBR ondiagInspectionModeStatusSignal] : 0 ", traces));
    EXPECT_TRUE(unit->waitForFrame("01 01 01", back));
    unit->simulator("rx on");
    EXPECT_TRUE(called("CALL AudioManager.addInterruptSrc"));
    unit->simulator("rx off");
    EXPECT_TRUE(called("CALL AudioManager.removeInterruptSrc"));
}

// The last test of the group: a failed read-out blocks every later one for good.
TEST_F(Cooperation, WeatherAlertReadOutAndTheFlagAFailedCompletionLeavesSet)
{
    unit->simulator("alert 4");
    EXPECT_TRUE(called("CALL TextToSpeechService.ttsReadout {\"data\":\"" + weatherText("162.475") +
                       "\",\"dataIsFile\":false,\"readoutType\":\"WEATHER_ALERT\"}"));
    ASSERT_TRUE(unit->waitForTrace("[CBR] ttsReadOut Success", traces));

    // An answer with an error code frees the way for the next alert.
    unit->peers("tts-result 3 busy");
    unit->simulator("alert 1");
    ASSERT_TRUE(unit->waitForTrace("[CBR] ttsReadOutError : ==> busy 3", traces));
    unit->simulator("alert 7");
    EXPECT_TRUE(called(weatherText("162.550")));
    ASSERT_TRUE(HeadUnit::waitUntil([&] { return unit->traceCount("[CBR] ttsReadOutError", traces) == 2; }, 3000));

    // An error reply does not: the flag stays set and later alerts are refused.
    const size_t failing = unit->traceMark();
    unit->peers("fail tts");
    unit->simulator("alert 2");
    ASSERT_TRUE(unit->waitForTrace("[CBR onCompletionAddInterruptSrc] : error", failing));
    const size_t afterFailure = unit->peerLog().size();
    unit->peers("normal tts");
    unit->simulator("alert 3");
    EXPECT_TRUE(unit->waitForTrace("[CBR] TTS already Requested", failing));
    EXPECT_EQ(0u, callCount("CALL TextToSpeechService.ttsReadout", afterFailure));
}
