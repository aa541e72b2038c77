#include "CCBRadio.h"
#include "CDevIpcChannel.h"
#include "CDevIpcChannelHandler.h"
#include "CMsgHandlerChannelTwelve.h"
#include "V850Peer.h"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace
{
typedef V850Peer::Frame Frame;

// The service with an open V850 channel (no reader thread) and the microcontroller's end.
class CommandFrames : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mPeer.listen());
        mHandler = new CDevIpcChannelHandler(new CMsgHandlerChannelTwelve(&mRadio), "/dev/ipc/ch6");
        ASSERT_EQ(0, mHandler->getChannel()->openChannel(O_RDWR));
        ASSERT_TRUE(mPeer.accept());
        mRadio.mpIpcHandler.store(mHandler);
        CCBRadio::mCBRCurrentChannel.store(1);
        CCBRadio::mCBRSquelchLevel.store(8);
    }

    void TearDown() override
    {
        mRadio.mpIpcHandler.store(nullptr);
        delete mHandler;
    }

    Frame txBuf() const { return Frame{mRadio.mTxBuf[0].load(), mRadio.mTxBuf[1].load(), mRadio.mTxBuf[2].load()}; }

    Frame next(int timeoutMs = 1000) { return mPeer.read(timeoutMs); }
    bool nothingWritten() { return next(50).empty(); }

    V850Peer mPeer;
    CCBRadio mRadio;
    CDevIpcChannelHandler* mHandler = nullptr;
};
}

// One builder after the other on the shared mTxBuf: what each writes (nothing, when it refuses) and
// what it leaves in the buffer, which the next builder may carry over. The frames the bus methods
// lead to (seek with wrap-around, a cleared preset, weather alert, scan start and stop) are met
// with the real V850 simulator in the e2e bus service tests; the status queries in the worker test.
TEST_F(CommandFrames, EachBuilderWritesItsFrameOrNothingAndLeavesItsBytesBehind)
{
    typedef void (CCBRadio::*Builder)(int);
    struct Step
    {
        const char* what;
        int channel;  // current channel and squelch level before the step
        int squelch;
        Builder build;
        int argument;
        Frame written;  // empty: nothing may be written
        Frame left;     // mTxBuf afterwards; empty: not checked
    };
    const Builder state = &CCBRadio::reqCBRStateChange, channel = &CCBRadio::reqCBRSetChannel;
    const Builder seek = &CCBRadio::reqCBRSeek, squelch = &CCBRadio::reqCBRSetSquelchLevel;
    const Builder adjust = &CCBRadio::reqCBRAdjustSquelchLevel;
    const Step steps[] = {
        {"state change sends the low byte", 1, 8, state, 0x101, {0x01, 0x01, 0x01}, {}},
        {"channel 0 refused", 1, 8, channel, 0, {}, {0x01, 0x01, 0x01}},
        {"channel 41 refused", 1, 8, channel, 41, {}, {0x01, 0x01, 0x01}},
        {"channel 40", 1, 8, channel, 40, {0x02, 0x01, 0x28}, {}},
        {"any non-zero direction is up", 17, 8, seek, -5, {0x02, 0x01, 0x12}, {}},
        {"seek from out of band is not sent", 60, 8, seek, 1, {}, {}},
        {"squelch 15 is stored, not sent", 1, 8, squelch, 15, {}, {0x03, 0x01, 0x0F}},
        {"squelch 0 is not sent", 1, 8, squelch, 0, {}, {}},
        {"squelch 14", 1, 8, squelch, 14, {0x03, 0x01, 0x0E}, {}},
        {"step down to 0, which set refuses", 1, 1, adjust, 0, {0x03, 0x01, 0x00}, {}},
        {"squelch 5", 1, 8, squelch, 5, {0x03, 0x01, 0x05}, {}},
        {"step up at 14 re-sends the last payload", 1, 14, adjust, 1, {0x03, 0x01, 0x05}, {}},
        {"squelch 15 again", 1, 8, squelch, 15, {}, {}},
        {"a carried-over 15 is not sent", 1, 0, adjust, 0, {}, {0x03, 0x01, 0x0F}},
        {"radio on", 1, 8, state, 1, {0x01, 0x01, 0x01}, {}},
        {"another command's payload is carried too", 1, 14, adjust, 1, {0x03, 0x01, 0x01}, {}},
    };
    for (const Step& step : steps) {
        CCBRadio::mCBRCurrentChannel.store(static_cast<signed char>(step.channel));
        CCBRadio::mCBRSquelchLevel.store(static_cast<signed char>(step.squelch));
        (mRadio.*step.build)(step.argument);
        EXPECT_EQ(step.written, next(step.written.empty() ? 50 : 1000)) << step.what;
        if (!step.left.empty()) {
            EXPECT_EQ(step.left, txBuf()) << step.what;
        }
        // The builders never change the current channel; only the V850's answer does.
        EXPECT_EQ(step.channel, CCBRadio::mCBRCurrentChannel.load()) << step.what;
    }
    mRadio.req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
    EXPECT_EQ((Frame{0x0E, 0x01, 0x01}), next());
    EXPECT_EQ((Frame{0x03, 0x01, 0x01}), txBuf()) << "PTT uses a frame of its own";
    mRadio.reqCBRStopScan();
    EXPECT_EQ((Frame{0x05, 0x00}), next());
    EXPECT_EQ((Frame{0x05, 0x00, 0x01}), txBuf()) << "stop is two bytes, the payload stays";

    // Without a device the builders skip their write instead of failing.
    mRadio.mpIpcHandler.store(nullptr);
    mRadio.reqCBRStateChange(0);
    mRadio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
    mRadio.req_CBR_VERSION_INFO_toV850();
    EXPECT_TRUE(nothingWritten());
}
