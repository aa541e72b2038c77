// The bus service end to end: the real cbradiod on a private bus, the real v850sim, a service-IPC
// client calling methods and listening to signals. One head unit per test suite where the tests
// only need a working radio; the gates get head units of their own.
#include "HeadUnit.h"
#include "TestService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace
{
const std::string SUCCESS = HeadUnit::kSuccess;
const std::string FAILURE = HeadUnit::kFailure;
std::string (*const body)(const std::string&, int) = HeadUnit::body;

// The daemon stops cleanly, and in sanitizer builds without a report (leaks aside: the V850
// reader is left running at exit by design).
void expectCleanStop(HeadUnit& unit)
{
    EXPECT_TRUE(unit.stopDaemon());
    const std::string errors = unit.daemonErrors();
    EXPECT_EQ(std::string::npos, errors.find("AddressSanitizer")) << errors;
    EXPECT_EQ(std::string::npos, errors.find("runtime error")) << errors;
}

class Radio : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        unit = new HeadUnit;
        ASSERT_TRUE(unit->start(HeadUnit::Options())) << unit->error();
        const size_t mark = unit->signalMark();
        const size_t frames = unit->frameMark();
        unit->simulator("hw back");
        ASSERT_TRUE(waitForSignal("CBRHWConnectionStatus", body("HWConnectionStatus", 1), mark));
        // With the radio still off the connection report shuts the audio path down: PTT off,
        // which the simulator answers with an idle Tx/Rx report. Let that pass the decoder
        // before any test looks at signals, or it turns up once the radio is on.
        ASSERT_TRUE(unit->waitForFrame("0E 01 00", frames));
        syncDecoder();
    }

    static void TearDownTestSuite()
    {
        if (unit != nullptr)
            expectCleanStop(*unit);
        delete unit;
        unit = nullptr;
    }

    void SetUp() override
    {
        ASSERT_NE(nullptr, unit);
        setRadio(1);
    }

    // The first signal of that name after `mark` carries exactly `expected`.
    static testing::AssertionResult waitForSignal(const std::string& name, const std::string& expected, size_t mark,
                                                  int timeoutMs = 3000)
    {
        std::string data;
        if (!unit->waitForSignal(name, data, mark, timeoutMs))
            return testing::AssertionFailure() << "no " << name << " signal";
        if (data != expected)
            return testing::AssertionFailure() << name << " carried " << data << ", not " << expected;
        return testing::AssertionSuccess();
    }

    // The radio state as the V850 reports it on its own (no method involved). Switching off
    // also sends PTT off to the V850; waiting for it keeps that frame out of the test.
    static void setRadio(int on)
    {
        if (lastRadioStatusIs(on))
            return;
        const size_t mark = unit->signalMark();
        const size_t frames = unit->frameMark();
        unit->simulator(on ? "on" : "off");
        ASSERT_TRUE(waitForSignal("CBRadioStatus", body("Status", on), mark));
        std::string data;
        if (on) {
            ASSERT_TRUE(unit->waitForSignal("CBRChannelNumber", data, mark));
        } else {
            ASSERT_TRUE(unit->waitForFrame("0E 01 00", frames));
            syncDecoder();  // the simulator's answer to the PTT off, dropped while the radio is off
        }
    }

    static bool lastRadioStatusIs(int on)
    {
        const std::vector<HeadUnit::Signal> all = unit->signals();
        const auto last = std::find_if(all.rbegin(), all.rend(),
                                       [](const HeadUnit::Signal& s) { return s.name == "CBRadioStatus"; });
        return last != all.rend() && last->data == body("Status", on);
    }

    static void v850(const std::string& hex) { unit->simulator("raw " + hex); }

    // A sensitivity report, then its trace and its signal: frames are decoded in order and
    // signals arrive in the order they were sent, so everything before it is through.
    static void syncDecoder()
    {
        static int value = 0;
        value = (value + 1) % 200 + 1;
        const size_t mark = unit->traceMark();
        const size_t signals = unit->signalMark();
        unit->simulator("sens " + std::to_string(value));
        ASSERT_TRUE(unit->waitForTrace("CBR_RECEPTION_SENSITIVITY_LEVEL is " + std::to_string(value) + " \n", mark));
        std::string data;
        ASSERT_TRUE(unit->waitForSignal("CBRReceptionSensitivity", data, signals));
    }

    // The call answers failure and the V850 gets nothing: a stop-scan frame written after it
    // is the first frame the simulator sees.
    static void expectFailureAndNoFrame(const std::string& method, const std::string& params)
    {
        const size_t frames = unit->frameMark();
        const HeadUnit::Reply reply = unit->call(method, params);
        ASSERT_TRUE(reply.ok()) << method << " " << params;
        EXPECT_EQ(FAILURE, reply.text) << method << " " << params;
        ASSERT_EQ(SUCCESS, unit->call("reqCBRStopScan").text);
        ASSERT_TRUE(unit->waitForFrame("05 00", frames));
        EXPECT_EQ(std::vector<std::string>{"05 00"}, unit->framesSince(frames)) << method << " " << params;
    }

    // Sends a call and expects the frame it writes and the signal the V850's answer leads to.
    static void expectFrameAndSignal(const std::string& method, const std::string& params, const std::string& frame,
                                     const std::string& signal, const std::string& data)
    {
        const size_t frames = unit->frameMark();
        const size_t signals = unit->signalMark();
        EXPECT_EQ(SUCCESS, unit->call(method, params).text) << method << " " << params;
        EXPECT_TRUE(unit->waitForFrame(frame, frames)) << method << " " << params << " should write " << frame;
        EXPECT_TRUE(waitForSignal(signal, data, signals)) << method << " " << params;
    }

    static HeadUnit* unit;
};

HeadUnit* Radio::unit = nullptr;
}

// ---- methods -------------------------------------------------------------------------------

TEST_F(Radio, StateChangeWritesTheFrameAndTheConfirmationPublishesTheRadio)
{
    const size_t frames = unit->frameMark();
    expectFrameAndSignal("reqCBRStateChange", "{\"CBRState\":0}", "01 01 00", "CBRadioStatus", body("Status", 0));
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] reqCBRStateChange : 0\n"));
    // Radio off shuts the audio path down, which includes PTT back to receive.
    EXPECT_TRUE(unit->waitForFrame("0E 01 00", frames));

    const size_t signals = unit->signalMark();
    // A fraction is taken as the integer it starts with.
    expectFrameAndSignal("reqCBRStateChange", "{\"CBRState\":1.7}", "01 01 01", "CBRadioStatus", body("Status", 1));
    EXPECT_TRUE(waitForSignal("CBRSquelchLevel", body("SquelchLevel", 8), signals));
    EXPECT_TRUE(waitForSignal("CBRChannelNumber", body("ChannelNumber", 1), signals));

    for (const char* bad :
         {"{\"CBRState\":2}", "{\"CBRState\":-1}", "{\"CBRState\":4294967297}", "{\"CBRState\":99999999999999999999}",
          "{\"CBRState\":\"1\"}", "{\"CBRState\":true}", "{\"CBRState\":null}", "{\"CBRState\":[1]}", "{\"state\":1}",
          "{}", "", "1", "[{\"CBRState\":1}]", "{\"CBRState\":1", "not json"})
        expectFailureAndNoFrame("reqCBRStateChange", bad);
}

TEST_F(Radio, SeekSquelchAndScanStepFromTheConfirmedValues)
{
    size_t signals = unit->signalMark();
    unit->simulator("channel 40");
    ASSERT_TRUE(waitForSignal("CBRChannelNumber", body("ChannelNumber", 40), signals));
    expectFrameAndSignal("reqCBRStartSeek", "{\"seekDirection\":1}", "02 01 01", "CBRChannelNumber",
                         body("ChannelNumber", 1));
    expectFrameAndSignal("reqCBRStartSeek", "{\"seekDirection\":0}", "02 01 28", "CBRChannelNumber",
                         body("ChannelNumber", 40));
    expectFrameAndSignal("reqCBRStartSeek", "{\"seekDirection\":0}", "02 01 27", "CBRChannelNumber",
                         body("ChannelNumber", 39));
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRStartSeek : 0\n"));

    signals = unit->signalMark();
    unit->simulator("squelch 13");
    ASSERT_TRUE(waitForSignal("CBRSquelchLevel", body("SquelchLevel", 13), signals));
    expectFrameAndSignal("reqCBRAdjustSquelchLevel", "{\"squelchChg\":1}", "03 01 0E", "CBRSquelchLevel",
                         body("SquelchLevel", 14));
    expectFrameAndSignal("reqCBRAdjustSquelchLevel", "{\"squelchChg\":0}", "03 01 0D", "CBRSquelchLevel",
                         body("SquelchLevel", 13));
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRAdjustSquelchLevel : 0\n"));

    // A refused change keeps the old value: no signal, the refusal traced.
    const size_t mark = unit->traceMark();
    signals = unit->signalMark();
    const size_t logged = unit->simulatorLog().size();
    unit->simulator("refuse");
    // The simulator reads its commands apart from the frames: the seek must not overtake it.
    ASSERT_TRUE(unit->waitForFile("sim.log", "# next answer refused", logged));
    EXPECT_EQ(SUCCESS, unit->call("reqCBRStartSeek", "{\"seekDirection\":1}").text);
    EXPECT_TRUE(unit->waitForTrace("\n[CBRadio] [CH6] CBR_CHANNEL_SELECT invalid rspns data or non +ve rspns. "
                                   "command failed at V850!\n",
                                   mark));
    syncDecoder();
    for (const HeadUnit::Signal& s : unit->signalsSince(signals))
        EXPECT_NE("CBRChannelNumber", s.name);

    for (const char* bad : {"{\"seekDirection\":2}", "{\"seekDirection\":-1}", "{\"seekDirection\":\"up\"}", "{}"})
        expectFailureAndNoFrame("reqCBRStartSeek", bad);
    for (const char* bad : {"{\"squelchChg\":2}", "{\"squelchChg\":2.5}", "{\"squelchChg\":-1.5}", "[]"})
        expectFailureAndNoFrame("reqCBRAdjustSquelchLevel", bad);

    // Scanning starts at the current channel.
    signals = unit->signalMark();
    unit->simulator("scan-interval 50");
    unit->simulator("channel 7");
    ASSERT_TRUE(waitForSignal("CBRChannelNumber", body("ChannelNumber", 7), signals));

    size_t frames = unit->frameMark();
    signals = unit->signalMark();
    EXPECT_EQ(SUCCESS, unit->call("reqCBRStartScan", "ignored").text);
    EXPECT_TRUE(unit->waitForFrame("04 01 07", frames));
    EXPECT_TRUE(waitForSignal("CBRChannelNumber", body("ChannelNumber", 8), signals));
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRStartScan \n"));

    frames = unit->frameMark();
    EXPECT_EQ(SUCCESS, unit->call("reqCBRStopScan").text);
    EXPECT_TRUE(unit->waitForFrame("05 00", frames));
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRStopScan\n"));
}

TEST_F(Radio, PresetsAreStoredInMemorySelectedByFrameAndCleared)
{
    const std::string empty =
        "{\"CBRadioPresetList\":[{\"Channel_number\":0,\"PresetNo\":1},{\"Channel_number\":0,\"PresetNo\":2},"
        "{\"Channel_number\":0,\"PresetNo\":3},{\"Channel_number\":0,\"PresetNo\":4},"
        "{\"Channel_number\":0,\"PresetNo\":5},{\"Channel_number\":0,\"PresetNo\":6}]}\n";
    // Clearing gives no result: the caller gets the library's NoResult error at once.
    size_t mark = unit->traceMark();
    EXPECT_EQ(SVCIPC_ERR_REMOTE, unit->call("reqCBRClearPreset", "", 300).status);
    EXPECT_STREQ("com.quorin.SvcIpc.Error.NoResult", SVCIPC_getLastErrorName());
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] reqCBRClearPreset Requested\n", mark));
    EXPECT_EQ(empty, unit->call("reqCBRGetPresetList").text);

    EXPECT_EQ(SUCCESS, unit->call("reqCBRStorePreset", "{\"channelNumber\":40,\"presetNo\":6}").text);
    EXPECT_EQ(SUCCESS, unit->call("reqCBRStorePreset", "{\"presetNo\":1,\"channelNumber\":1}").text);
    for (const char* bad :
         {"{\"channelNumber\":12,\"presetNo\":7}", "{\"channelNumber\":0,\"presetNo\":2}",
          "{\"channelNumber\":41,\"presetNo\":2}", "{\"channelNumber\":12,\"presetNo\":0}", "{\"channelNumber\":12}",
          "{\"channelNumber\":12,\"PresetNo\":2}", "{\"channelNumber\":268,\"presetNo\":2}"})
        EXPECT_EQ(FAILURE, unit->call("reqCBRStorePreset", bad).text) << bad;
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRStorePreset result code : 1\n"));
    EXPECT_EQ("{\"CBRadioPresetList\":[{\"Channel_number\":1,\"PresetNo\":1},{\"Channel_number\":0,\"PresetNo\":2},"
              "{\"Channel_number\":0,\"PresetNo\":3},{\"Channel_number\":0,\"PresetNo\":4},"
              "{\"Channel_number\":0,\"PresetNo\":5},{\"Channel_number\":40,\"PresetNo\":6}]}\n",
              unit->call("reqCBRGetPresetList").text);

    expectFrameAndSignal("reqCBRSelectPreset", "{\"PresetNo\":6}", "02 01 28", "CBRChannelNumber",
                         body("ChannelNumber", 40));
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRSelectPreset : 640\n"));
    // An empty preset selects channel 0, which the V850 refuses.
    size_t frames = unit->frameMark();
    EXPECT_EQ(SUCCESS, unit->call("reqCBRSelectPreset", "{\"PresetNo\":3}").text);
    EXPECT_TRUE(unit->waitForFrame("02 01 00", frames));
    for (const char* bad : {"{\"PresetNo\":7}", "{\"PresetNo\":0}", "{\"presetNo\":1}"})
        expectFailureAndNoFrame("reqCBRSelectPreset", bad);

    // Clearing resets channel and squelch in memory only: nothing to the V850, no signal.
    size_t signals = unit->signalMark();
    unit->simulator("squelch 3");
    ASSERT_TRUE(waitForSignal("CBRSquelchLevel", body("SquelchLevel", 3), signals));
    frames = unit->frameMark();
    signals = unit->signalMark();
    mark = unit->traceMark();
    unit->call("reqCBRClearPreset", "", 300);
    ASSERT_TRUE(unit->waitForTrace("\n[CBR] reqCBRClearPreset Requested\n", mark));
    EXPECT_EQ(empty, unit->call("reqCBRGetPresetList").text);
    EXPECT_EQ(SUCCESS, unit->call("getProperties", "{\"props\":\"CBRChannelNumber\"}").text);
    EXPECT_EQ(SUCCESS, unit->call("getProperties", "{\"props\":\"CBRSquelchLevel\"}").text);
    ASSERT_TRUE(waitForSignal("CBRChannelNumber", body("ChannelNumber", 1), signals));
    ASSERT_TRUE(waitForSignal("CBRSquelchLevel", body("SquelchLevel", 8), signals));
    EXPECT_EQ(2u, unit->signalsSince(signals).size());
    EXPECT_TRUE(unit->framesSince(frames).empty());
}

TEST_F(Radio, VersionsComeFromTheV850AndFallThroughToTheRadioMethods)
{
    auto version = [](const std::string& kind, const std::string& text) {
        return "{\"CBRadio" + kind + "Version\":\"" + text + "\",\"code\":0,\"description\":\"success\"}\n";
    };
    EXPECT_EQ(version("HW", "10"), unit->call("reqCBRHWVersion").text);
    EXPECT_EQ(version("SW", "SW01.02.03"), unit->call("reqCBRSWVersion").text);
    // With the data initialised the version methods end as unknown radio methods.
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] Method [reqCBRHWVersion] Not Implemented\n"));
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] Method [reqCBRSWVersion] Not Implemented\n"));

    // New versions: a one-character hardware version, and a software version frame whose 15 copied
    // bytes run past its declared ten; the reply shows 14.
    v850("07 02 39 00");
    v850("08 0A 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F");
    syncDecoder();
    EXPECT_EQ(version("HW", "9"), unit->call("reqCBRHWVersion").text);
    EXPECT_EQ(version("SW", "ABCDEFGHIJKLMN"), unit->call("reqCBRSWVersion").text);
    // Wrong lengths keep the old versions.
    size_t mark = unit->traceMark();
    v850("07 01 31 31");
    v850("08 09 31 31 31 31 31 31 31 31 31 31");
    syncDecoder();
    EXPECT_TRUE(unit->traced("\n[CBRadio] [CH6] CBR_HARDWARE_VERSION invalid Length !!!\n", mark));
    EXPECT_TRUE(unit->traced("\n[CBRadio] [CH6] CBR_SOFTWARE_VERSION invalid Length !!!\n", mark));
    EXPECT_EQ(version("HW", "9"), unit->call("reqCBRHWVersion").text);

    // Unknown names get the trace and, from the library, UnknownMethod; the no-reply flag is traced.
    mark = unit->traceMark();
    EXPECT_EQ(SVCIPC_ERR_REMOTE, unit->call("reqCBRFlyToTheMoon", "{}", 300).status);
    EXPECT_STREQ("org.freedesktop.DBus.Error.UnknownMethod", SVCIPC_getLastErrorName());
    EXPECT_TRUE(unit->traced("\n[CBR handleCBRadioRequest] : method[reqCBRFlyToTheMoon] nReply[0]!!!\n", mark));
    EXPECT_TRUE(unit->traced("\n[CBR] Method [reqCBRFlyToTheMoon] Not Implemented\n", mark));
    SVCIPC_invoke(unit->client(), HeadUnit::kServiceName, HeadUnit::kServicePath, "reqCBRStopScan", "", 1, 0, nullptr);
    EXPECT_TRUE(unit->waitForTrace("method[reqCBRStopScan] nReply[1]!!!\n", mark));
}

TEST_F(Radio, GetPropertiesEmitsTheNamedSignal)
{
    // Each property by the signal of its name; the sensitivity's signal drops the "Status".
    for (const std::string prop :
         {"CBRadioStatus", "CBRChannelNumber", "CBRSquelchLevel", "CBRReceptionSensitivityStatus",
          "CBRHWConnectionStatus", "CBRWeatherAlertOnOffStatus"}) {
        const size_t signals = unit->signalMark();
        EXPECT_EQ(SUCCESS, unit->call("getProperties", "{\"props\":\"" + prop + "\"}").text);
        std::string data;
        const bool sensitivity = prop == "CBRReceptionSensitivityStatus";
        EXPECT_TRUE(unit->waitForSignal(sensitivity ? "CBRReceptionSensitivity" : prop, data, signals)) << prop;
    }
    // The hardware status query also asks a connected module for its software version.
    size_t frames = unit->frameMark();
    unit->call("getProperties", "{\"props\":\"CBRHWConnectionStatus\"}");
    EXPECT_TRUE(unit->waitForFrame("08 00", frames));

    for (const char* bad : {"{\"props\":\"CBRReceptionSensitivity\"}", "{\"props\":\"cbradiostatus\"}", "{\"props\":1}",
                            "{\"prop\":\"CBRadioStatus\"}", "\"CBRadioStatus\""})
        EXPECT_EQ(FAILURE, unit->call("getProperties", bad).text) << bad;

    // Sensitivity is published as bars of 51 raw steps.
    const int bars[][2] = {{0, 0}, {1, 1}, {51, 1}, {52, 2}, {153, 3}, {154, 4}, {204, 4}, {205, 5}, {255, 5}};
    for (const auto& b : bars) {
        const size_t signals = unit->signalMark();
        unit->simulator("sens " + std::to_string(b[0]));
        EXPECT_TRUE(waitForSignal("CBRReceptionSensitivity", body("Sensitivity", b[1]), signals)) << b[0];
    }
    EXPECT_TRUE(unit->traced("\n[CBR] sending CBRReceptionSensitivity=205 \n"));
}

// ---- the decoder ---------------------------------------------------------------------------

TEST_F(Radio, DecoderRefusesMalformedReportsWithTheirTrace)
{
    // Each frame with the line that refuses it; the V850 channel's lines all start alike.
    const std::string length = " response data length ", improper = " is improper!";
    const std::string refused = " invalid rspns data or non +ve rspns. command failed at V850!";
    const std::pair<const char*, std::string> cases[] = {
        {"02 01 05", "CBR_CHANNEL_SELECT" + length + "1" + improper},
        {"02 02 05 00", "CBR_CHANNEL_SELECT" + refused},
        {"02 02 29 A0", "CBR_CHANNEL_SELECT" + refused},
        {"03 03 05 A0 00", "CBR_SET_SQUELCH_LEVEL" + length + "3" + improper},
        {"03 02 0F A0", "CBR_SET_SQUELCH_LEVEL" + refused},
        {"09 02 10 10", "CBR_RECEPTION_SENSITIVITY_LEVEL" + length + "2" + improper},
        {"0F 02 01 01", "CBR_HW_CONNECTION_STATUS" + length + "2" + improper},
        {"0F 01 02", "CBR_HW_CONNECTION_STATUS invalid response data or non +ve rspns. command failed at V850!"},
        {"0B 00", "CBR_WEATHER_ALERT_ON_OFF_STATUS" + length + "0" + improper},
        {"0B 01 02", "CBR_WEATHER_ALERT_ON_OFF_STATUS invalid data or command failed at V850!"},
        {"0C 01 01", "CBR_WEATHER_ALERT_STATUS" + length + "1" + improper},
        {"0A 02 02 00", "CBR_TX_RX_STATUS" + refused},
        {"0A 01 00", "CBR_TX_RX_STATUS" + length + "1" + improper},
        // The weather alert's own refusal is traced by another scope, in another form.
        {"0C 02 01 08", "\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS invalid rspns Status = 1, CH_Num = 8"},
        {"0C 02 02 03", "\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS invalid rspns Status = 2, CH_Num = 3"},
    };
    for (const auto& c : cases) {
        const size_t mark = unit->traceMark();
        const size_t signals = unit->signalMark();
        v850(c.first);
        syncDecoder();
        const std::string trace = c.second[0] == '\n' ? c.second + "\n" : "\n[CBRadio] [CH6] " + c.second + "\n";
        EXPECT_TRUE(unit->traced(trace, mark)) << c.first << ": " << trace;
        EXPECT_EQ(1u, unit->signalsSince(signals).size()) << c.first << ": only the sensitivity of the sync frame";
    }

    // Ids without a meaning for the service: only the arrival line.
    const size_t mark = unit->traceMark();
    for (const char* frame : {"00 00", "04 01 05", "05 00", "0D 01 01", "0E 01 01", "10 01 01", "FF 00"})
        v850(frame);
    syncDecoder();
    EXPECT_EQ(8u, unit->traceCount("\n[CBRadio] [CH6] Received the data from IPC Channel !!!\n", mark));
    EXPECT_EQ(1u, unit->traceCount("\n[CBRadio] [CH6] CBR_", mark));
}

TEST_F(Radio, WhileTheRadioIsOffChannelSquelchAndTxRxReportsAreDropped)
{
    setRadio(0);
    const size_t mark = unit->traceMark();
    const size_t signals = unit->signalMark();
    for (const char* frame : {"02 02 05 A0", "02 01 05", "03 02 04 A0", "0A 02 00 00", "0A 02 05 05"})
        v850(frame);
    syncDecoder();
    EXPECT_FALSE(unit->traced("CBR_CHANNEL_SELECT", mark));
    EXPECT_FALSE(unit->traced("CBR_SET_SQUELCH_LEVEL", mark));
    EXPECT_FALSE(unit->traced("CBR_TX_RX_STATUS", mark));
    EXPECT_EQ(1u, unit->signalsSince(signals).size());

    // The transmit switch needs the radio on: an empty result, nothing to the V850.
    size_t frames = unit->frameMark();
    EXPECT_EQ("", unit->call("reqCBRChangeRxToTx").text);
    EXPECT_EQ("", unit->call("reqCBRChangeTxToRx").text);
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRChangeRxToTx\n", mark));
    EXPECT_FALSE(unit->traced("writeData done", mark));
    EXPECT_TRUE(unit->framesSince(frames).empty());

    setRadio(1);
    const size_t on = unit->signalMark();
    v850("02 02 05 A0");
    EXPECT_TRUE(waitForSignal("CBRChannelNumber", body("ChannelNumber", 5), on));
}

TEST_F(Radio, TransmitAndReceiveFollowThePushToTalkAndTheV850)
{
    // Receive to transmit: PTT on to the V850, which reports Tx 1; outside inspection mode the
    // head unit hears only of the return to idle.
    size_t frames = unit->frameMark();
    size_t signals = unit->signalMark();
    size_t mark = unit->traceMark();
    EXPECT_EQ(SUCCESS, unit->call("reqCBRChangeRxToTx").text);
    EXPECT_TRUE(unit->waitForFrame("0E 01 01", frames));
    EXPECT_TRUE(unit->waitForTrace("\n[CBRadio] [CH6] CBR_TX_STATUS is 1 \n", mark));
    EXPECT_TRUE(unit->traced("\n[CBR] reqCBRChangeRxToTx writeData done \n", mark));
    syncDecoder();
    for (const HeadUnit::Signal& s : unit->signalsSince(signals))
        EXPECT_NE("CBRRxTxStatus", s.name);

    // Without an audio manager the transmit source is never granted, so there is nothing to undo.
    frames = unit->frameMark();
    EXPECT_EQ("", unit->call("reqCBRChangeTxToRx").text);
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] reqCBRChangeTxToRx\n", mark));

    // Receiving gives no report either; the return to idle does.
    signals = unit->signalMark();
    v850("0A 02 00 01");
    syncDecoder();
    v850("0A 02 00 00");
    EXPECT_TRUE(waitForSignal("CBRRxTxStatus", "{\"RxStatus\":0,\"TxStatus\":0}\n", signals));
    EXPECT_EQ(2u, unit->signalsSince(signals).size()) << "the sync's sensitivity and the idle report";
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] sending CBRRxStatus=0, CBRTxStatus=0 \n", mark));

    // Hardware lost shuts the audio path down like radio off: PTT back to receive.
    frames = unit->frameMark();
    signals = unit->signalMark();
    unit->simulator("hw lost");
    EXPECT_TRUE(waitForSignal("CBRHWConnectionStatus", body("HWConnectionStatus", 0), signals));
    EXPECT_TRUE(unit->waitForFrame("0E 01 00", frames));
    signals = unit->signalMark();
    frames = unit->frameMark();
    unit->simulator("hw back");
    EXPECT_TRUE(waitForSignal("CBRHWConnectionStatus", body("HWConnectionStatus", 1), signals));
    EXPECT_TRUE(unit->waitForFrame("08 00", frames));
}

TEST_F(Radio, WeatherAlertSwitchAndReports)
{
    size_t signals = unit->signalMark();
    expectFrameAndSignal("reqCBRWeatherAlertOnOff", "{\"CBRWAState\":0}", "0C 01 00", "CBRWeatherAlertOnOffStatus",
                         body("weatherAlertOnOffStatus", 0));
    // While alerts are off a valid alert is dropped without a word.
    size_t mark = unit->traceMark();
    v850("0C 02 01 03");
    syncDecoder();
    EXPECT_FALSE(unit->traced("CBR_WEATHER_ALERT_STATUS", mark));

    expectFrameAndSignal("reqCBRWeatherAlertOnOff", "{\"CBRWAState\":1}", "0C 01 01", "CBRWeatherAlertOnOffStatus",
                         body("weatherAlertOnOffStatus", 1));
    mark = unit->traceMark();
    v850("0C 02 01 03");
    EXPECT_TRUE(unit->waitForTrace("\n[CBRadio CH6] CBR_WEATHER_ALERT_STATUS = 1 CH Num = 3\n", mark));
    signals = unit->signalMark();
    unit->call("getProperties", "{\"props\":\"CBRWeatherAlertOnOffStatus\"}");
    EXPECT_TRUE(waitForSignal("CBRWeatherAlertOnOffStatus", body("weatherAlertOnOffStatus", 1), signals));
    EXPECT_TRUE(unit->waitForTrace("\n[CBR] sending weatherAlertStatus=1, channelNumber=3 \n", mark));

    for (const char* bad : {"{\"CBRWAState\":2}", "{\"CBRWAState\":-1}", "{\"CBRWAState\":false}"})
        expectFailureAndNoFrame("reqCBRWeatherAlertOnOff", bad);
}

// ---- gates: head units without the simulator, which start in well under a second -----------

TEST(BusServiceGates, ATakenNameLeavesTheServiceUnregisteredAndItsSignalsUnsent)
{
    HeadUnit unit;
    TestService squatter;
    squatter.onRequest = [](SVCIPC_tReqContext ctx, const std::string&, const std::string&) {
        TestService::reply(ctx, "squatter");
    };
    HeadUnit::Options options;
    options.startSimulator = false;
    options.beforeDaemon = [&](HeadUnit& u) {
        return squatter.registerOn(u.client(), HeadUnit::kServiceName, HeadUnit::kServicePath) == 0;
    };
    ASSERT_TRUE(unit.start(options)) << unit.error();
    EXPECT_TRUE(unit.traced("\n[CBR] Failed to register service: 0x80000007\n"));
    EXPECT_FALSE(unit.traced("registering Clients"));
    EXPECT_TRUE(unit.traced("\n[CBR] sendCBRHWConnectionStatus: Service Not initialized\n"));
    EXPECT_EQ("squatter", unit.call("reqCBRGetPresetList").text);

    const size_t mark = unit.traceMark();
    expectCleanStop(unit);
    EXPECT_TRUE(unit.traced("\n[CBR] Failed to unregister service\n", mark));
    EXPECT_FALSE(unit.traced("\n[CBR] Failed to close connection\n", mark));
    EXPECT_TRUE(unit.traced("@ ----- Exiting CBRadio Service ----- @", mark));
}

// A key-value store that takes calls and never answers them keeps the radio data uninitialised.
// When the bus goes, nothing brings the connection back and the daemon is of no use: it says so
// once and exits with a failure, so that its service manager restarts it.
TEST(BusServiceGates, RadioMethodsWaitForTheSettingsWhileOtherMethodsWorkUntilTheBusGoes)
{
    HeadUnit unit;
    TestService store;
    store.hold = true;
    HeadUnit::Options options;
    options.startSimulator = false;
    options.daemonEnv = {{"CBRADIO_SYSLOG_STDERR", "1"}};
    options.beforeDaemon = [&](HeadUnit& u) {
        return store.registerOn(u.client(), "com.quorin.service.PersistentKeyValue",
                                "/com/quorin/service/PersistentKeyValue") == 0;
    };
    ASSERT_TRUE(unit.start(options)) << unit.error();
    ASSERT_TRUE(unit.waitForTrace("\n[CBR getPersistedTimeProperties] \n")) << "the settings were not asked for";

    for (const char* method : {"reqCBRStateChange", "reqCBRStartSeek", "reqCBRGetPresetList", "reqCBRStartScan",
                               "reqCBRChangeRxToTx", "reqCBRNoSuchMethod"})
        EXPECT_EQ(FAILURE, unit.call(method, "{\"CBRState\":1,\"seekDirection\":1}").text) << method;
    EXPECT_EQ(SUCCESS, unit.call("getProperties", "{\"props\":\"CBRadioStatus\"}").text);
    EXPECT_EQ(SUCCESS, unit.call("reqCBRWeatherAlertOnOff", "{\"CBRWAState\":1}").text);
    // No V850 has answered: the version is unknown. The call then falls through to the gate,
    // which sends a second failure the caller never sees, and nothing is "Not Implemented".
    EXPECT_EQ(FAILURE, unit.call("reqCBRHWVersion").text);
    EXPECT_FALSE(unit.traced("Not Implemented"));

    ASSERT_TRUE(unit.traced("\n[CBR] registering Clients...\n"));
    unit.bus().kill();
    const auto killed = std::chrono::steady_clock::now();
    EXPECT_EQ(1, unit.waitDaemon(5000)) << unit.daemonErrors();
    EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(2));
    EXPECT_EQ(1u, countOf(unit.daemonErrors(), "[CBR] ERROR: bus connection lost; exiting with status 1"))
        << unit.daemonErrors();
    EXPECT_TRUE(unit.traced("\n@ ----- Exiting CBRadio Service ----- @\n"));
}
