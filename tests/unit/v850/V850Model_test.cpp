#include "V850Command.h"
#include "V850Model.h"

#include <gtest/gtest.h>

namespace
{
std::vector<V850Frame> answer(V850Model& m, V850Frame frame)
{
    return m.onFrame(frame.data(), frame.size());
}

V850Frame only(const std::vector<V850Frame>& frames)
{
    EXPECT_EQ(1u, frames.size());
    return frames.empty() ? V850Frame() : frames[0];
}
}

// One model through a session: each frame from the head unit with the answer it must get, in
// order (the state carries from row to row); no answer for malformed frames and status queries.
// The accepted channel, squelch, weather-alert and push-to-talk answers, a refused answer and the
// hardware announcement are met by the e2e bus service tests through the daemon's decoder.
TEST(V850Model, AnswersLikeTheMicrocontrollerAndRefusesWhatIsOutOfRange)
{
    V850Model m;
    m.setHardwareVersion('A', '7');
    m.setSoftwareVersion("V1.2");
    EXPECT_EQ((std::vector<V850Frame>{{0x01, 0x01, 0x00}, {0x0F, 0x01, 0x00}}), m.announcement());
    struct
    {
        V850Frame request;
        std::vector<V850Frame> answers;
    } session[] = {
        {{0x07, 0x00}, {{0x07, 0x02, 'A', '7'}}},
        {{0x08, 0x00}, {{0x08, 0x0A, 'V', '1', '.', '2', ' ', ' ', ' ', ' ', ' ', ' '}}},
        {{0x01, 0x01, 0x01}, {{0x01, 0x02, 0x01, 0xA0}}},
        {{0x02, 0x01, 0x29}, {{0x02, 0x02, 0x29, 0xA1}}},
        {{0x02, 0x01, 0x00}, {{0x02, 0x02, 0x00, 0xA1}}},
        {{0x03, 0x01, 0x0F}, {{0x03, 0x02, 0x0F, 0xA1}}},
        {{0x00, 0x01}, {}},  // status queries have no answer
        {{}, {}},
        {{0x07}, {}},
        {{0x02, 0x01}, {}},              // payload missing
        {{0x02, 0x01, 0x05, 0xA0}, {}},  // one byte too many
        {{0x07, 0x01, 0x00}, {}},        // query with a payload
        {{0x42, 0x00}, {}},
    };
    for (auto& row : session)
        EXPECT_EQ(row.answers, answer(m, row.request)) << V850Model::toHex(row.request);
    EXPECT_NE(std::string::npos, m.describe().find("channel=1 squelch=8"));

    m.refuseNext(0x55);
    EXPECT_EQ((V850Frame{0x02, 0x02, 0x05, 0x55}), only(answer(m, {0x02, 0x01, 0x05})));
    EXPECT_EQ((V850Frame{0x02, 0x02, 0x05, 0xA0}), only(answer(m, {0x02, 0x01, 0x05})));  // one answer only
    m.refuseNext(0x00);
    EXPECT_EQ((V850Frame{0x01, 0x02, 0x01, 0x00}), only(answer(m, {0x01, 0x01, 0x00})));  // still on
    m.hardwareConnection(1);
    m.hardwareConnection(2);  // not a state; reported as given, remembered not
    EXPECT_EQ((std::vector<V850Frame>{{0x01, 0x01, 0x01}, {0x0F, 0x01, 0x01}}), m.announcement());
}

// A scan's first step and its stop are met by the e2e bus service tests.
TEST(V850Model, ScanStepsUpwardsWithWrapUntilStoppedOrSwitchedOff)
{
    V850Model m;
    EXPECT_TRUE(m.onScanTick().empty());
    EXPECT_TRUE(answer(m, {0x04, 0x01, 0x28}).empty());
    EXPECT_EQ((V850Frame{0x02, 0x02, 0x01, 0xA0}), only(m.onScanTick()));
    answer(m, {0x05, 0x00});
    EXPECT_TRUE(m.onScanTick().empty());

    answer(m, {0x01, 0x01, 0x01});
    answer(m, {0x04, 0x01, 0x05});
    answer(m, {0x01, 0x01, 0x00});
    EXPECT_FALSE(m.isScanning());
}

// The reports the e2e tests send (on, hw, sens, rx, channel, raw, alert with its default status)
// are checked there.
TEST(V850Command, ReportsBecomeTheirFrames)
{
    V850Model m;
    struct
    {
        const char* line;
        V850Frame frame;
    } cases[] = {
        {"alert 3 0", {0x0C, 0x02, 0x00, 0x03}},
        {"tx on", {0x0A, 0x02, 0x01, 0x00}},
        {"channel 0x10", {0x02, 0x02, 0x10, 0xA0}},  // numbers in hex too
        {"wa off", {0x0B, 0x01, 0x00}},
        {"frame 09 80  # comment", {0x09, 0x01, 0x80}},
        {"malformed 3", {0x0C, 0x02, 0x01, 0x08}},
    };
    for (auto& c : cases) {
        V850Command cmd = V850Command::parse(c.line, m);
        ASSERT_EQ(V850Command::SEND, cmd.kind) << c.line;
        ASSERT_EQ(1u, cmd.steps.size()) << c.line;
        EXPECT_EQ(c.frame, cmd.steps[0].frame) << c.line;
    }
}

TEST(V850Command, ControlCommandsAndErrors)
{
    V850Model m;
    EXPECT_EQ(V850Command::NONE, V850Command::parse("   # only a comment", m).kind);
    V850Command carrier = V850Command::parse("carrier 300", m);  // Rx on, then idle after the pause
    ASSERT_EQ(2u, carrier.steps.size());
    EXPECT_EQ((V850Frame{0x0A, 0x02, 0x00, 0x01}), carrier.steps[0].frame);
    EXPECT_EQ(300, carrier.steps[0].waitMs);
    EXPECT_EQ((V850Frame{0x0A, 0x02, 0x00, 0x00}), carrier.steps[1].frame);
    EXPECT_EQ(1500, V850Command::parse("sleep 1.5", m).number);
    EXPECT_EQ(V850Command::WAIT, V850Command::parse("wait 20", m).kind);
    V850Command expect = V850Command::parse("expect 07 00", m);
    EXPECT_EQ(V850Command::EXPECT, expect.kind);
    EXPECT_EQ((V850Frame{0x07, 0x00}), expect.pattern);
    EXPECT_EQ(V850Command::SETTING, V850Command::parse("refuse 5A", m).kind);
    EXPECT_EQ((V850Frame{0x03, 0x02, 0x04, 0x5A}), only(answer(m, {0x03, 0x01, 0x04})));
    for (const char* bad : {"wait", "wait -1", "channel 256", "sens x", "raw 123", "frame", "hwver ABC",
                            "swver 12345678901", "alert", "rx maybe", "bogus"})
        EXPECT_EQ(V850Command::ERROR, V850Command::parse(bad, m).kind) << bad;
}
