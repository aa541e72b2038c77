#include "CCBRadio.h"
#include "CDevIpcChannel.h"
#include "CDevIpcChannelHandler.h"
#include "CMsgHandlerChannelTwelve.h"
#include "V850Peer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>

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
// what it leaves in the buffer, which the next builder may carry over.
TEST_F(CommandFrames, EachBuilderWritesItsFrameOrNothingAndLeavesItsBytesBehind)
{
    struct Step
    {
        const char* what;
        int channel;  // current channel and squelch level before the step
        int squelch;
        std::function<void(CCBRadio&)> act;
        Frame written;  // empty: nothing may be written
        Frame left;     // mTxBuf afterwards; empty: not checked
    };
    const Step steps[] = {
        {"state change sends the low byte",
         1,
         8,
         [](CCBRadio& r) { r.reqCBRStateChange(0x101); },
         {0x01, 0x01, 0x01},
         {}},
        {"weather alert", 1, 8, [](CCBRadio& r) { r.reqCBRWeatherAlertOnOffRequest(1); }, {0x0C, 0x01, 0x01}, {}},
        {"PTT uses a frame of its own",
         1,
         8,
         [](CCBRadio& r) { r.req_CBR_PTT_STATUS_toV850(CBR_PTT_ON); },
         {0x0E, 0x01, 0x01},
         {0x0C, 0x01, 0x01}},
        {"a cleared preset is sent as it is",
         1,
         8,
         [](CCBRadio& r) { r.reqCBRSelectPreset(0); },
         {0x02, 0x01, 0x00},
         {}},
        {"channel 0 refused", 1, 8, [](CCBRadio& r) { r.reqCBRSetChannel(0); }, {}, {0x02, 0x01, 0x00}},
        {"channel 41 refused", 1, 8, [](CCBRadio& r) { r.reqCBRSetChannel(41); }, {}, {0x02, 0x01, 0x00}},
        {"channel 40", 1, 8, [](CCBRadio& r) { r.reqCBRSetChannel(40); }, {0x02, 0x01, 0x28}, {}},
        {"seek up from 40 wraps", 40, 8, [](CCBRadio& r) { r.reqCBRSeek(1); }, {0x02, 0x01, 0x01}, {}},
        {"seek down from 1 wraps", 1, 8, [](CCBRadio& r) { r.reqCBRSeek(0); }, {0x02, 0x01, 0x28}, {}},
        {"any non-zero direction is up", 17, 8, [](CCBRadio& r) { r.reqCBRSeek(-5); }, {0x02, 0x01, 0x12}, {}},
        {"seek from out of band is not sent", 60, 8, [](CCBRadio& r) { r.reqCBRSeek(1); }, {}, {}},
        {"squelch 15 is stored, not sent",
         1,
         8,
         [](CCBRadio& r) { r.reqCBRSetSquelchLevel(15); },
         {},
         {0x03, 0x01, 0x0F}},
        {"squelch 0 is not sent", 1, 8, [](CCBRadio& r) { r.reqCBRSetSquelchLevel(0); }, {}, {}},
        {"squelch 14", 1, 8, [](CCBRadio& r) { r.reqCBRSetSquelchLevel(14); }, {0x03, 0x01, 0x0E}, {}},
        {"step down to 0, which set refuses",
         1,
         1,
         [](CCBRadio& r) { r.reqCBRAdjustSquelchLevel(0); },
         {0x03, 0x01, 0x00},
         {}},
        {"squelch 5", 1, 8, [](CCBRadio& r) { r.reqCBRSetSquelchLevel(5); }, {0x03, 0x01, 0x05}, {}},
        {"step up at 14 re-sends the last payload",
         1,
         14,
         [](CCBRadio& r) { r.reqCBRAdjustSquelchLevel(1); },
         {0x03, 0x01, 0x05},
         {}},
        {"squelch 15 again", 1, 8, [](CCBRadio& r) { r.reqCBRSetSquelchLevel(15); }, {}, {}},
        {"a carried-over 15 is not sent",
         1,
         0,
         [](CCBRadio& r) { r.reqCBRAdjustSquelchLevel(0); },
         {},
         {0x03, 0x01, 0x0F}},
        {"radio on", 1, 8, [](CCBRadio& r) { r.reqCBRStateChange(1); }, {0x01, 0x01, 0x01}, {}},
        {"another command's payload is carried too",
         1,
         14,
         [](CCBRadio& r) { r.reqCBRAdjustSquelchLevel(1); },
         {0x03, 0x01, 0x01},
         {}},
        {"scan starts at the current channel", 23, 8, [](CCBRadio& r) { r.reqCBRStartScan(); }, {0x04, 0x01, 0x17}, {}},
        {"stop is two bytes, the payload stays",
         23,
         8,
         [](CCBRadio& r) { r.reqCBRStopScan(); },
         {0x05, 0x00},
         {0x05, 0x00, 0x17}},
    };
    for (const Step& step : steps) {
        CCBRadio::mCBRCurrentChannel.store(static_cast<signed char>(step.channel));
        CCBRadio::mCBRSquelchLevel.store(static_cast<signed char>(step.squelch));
        step.act(mRadio);
        EXPECT_EQ(step.written, next(step.written.empty() ? 50 : 1000)) << step.what;
        if (!step.left.empty()) {
            EXPECT_EQ(step.left, txBuf()) << step.what;
        }
        // The builders never change the current channel; only the V850's answer does.
        EXPECT_EQ(step.channel, CCBRadio::mCBRCurrentChannel.load()) << step.what;
    }
}

TEST_F(CommandFrames, StatusQueriesWriteZeroOneAndNothingWithoutDevice)
{
    typedef void (CCBRadio::*Query)();
    const Query queries[] = {&CCBRadio::req_CBR_CHN_SELECT_toV850,     &CCBRadio::req_CBR_SET_SQUELCH_LEVEL_toV850,
                             &CCBRadio::req_CBR_STOP_SCAN_toV850,      &CCBRadio::req_CBR_VERSION_INFO_toV850,
                             &CCBRadio::req_CBR_ANTENNA_STATUS_toV850, &CCBRadio::req_CBR_ANTENNA_SENSITIVITY_toV850,
                             &CCBRadio::req_CBR_TX_STATUS_toV850,      &CCBRadio::req_CBR_RX_STATUS_toV850};
    mRadio.reqCBRStateChange(1);
    EXPECT_EQ((Frame{0x01, 0x01, 0x01}), next());
    for (Query q : queries) {
        (mRadio.*q)();
        EXPECT_EQ((Frame{0x00, 0x01}), next());
    }
    EXPECT_EQ((Frame{0x01, 0x01, 0x01}), txBuf());

    mRadio.mpIpcHandler.store(nullptr);
    for (Query q : queries)
        (mRadio.*q)();
    // Without a device the other builders skip their write too instead of failing.
    mRadio.reqCBRStateChange(0);
    mRadio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
    EXPECT_TRUE(nothingWritten());
}
