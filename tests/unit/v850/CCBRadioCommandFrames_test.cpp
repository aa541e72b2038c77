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

        Frame txBuf() const
        {
            return Frame{mRadio.mTxBuf[0].load(), mRadio.mTxBuf[1].load(), mRadio.mTxBuf[2].load()};
        }

        Frame next() { return mPeer.read(1000); }
        bool nothingWritten() { return mPeer.read(50).empty(); }

        V850Peer mPeer;
        CCBRadio mRadio;
        CDevIpcChannelHandler* mHandler = nullptr;
    };
}

TEST_F(CommandFrames, AlwaysSentCommandsCarryTheLowByteOfTheirArgument)
{
    mRadio.reqCBRStateChange(1);
    EXPECT_EQ((Frame{0x01, 0x01, 0x01}), next());
    mRadio.reqCBRStateChange(0x100);
    EXPECT_EQ((Frame{0x01, 0x01, 0x00}), next());
    mRadio.reqCBRWeatherAlertOnOffRequest(1);
    EXPECT_EQ((Frame{0x0C, 0x01, 0x01}), next());
    mRadio.req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
    EXPECT_EQ((Frame{0x0E, 0x01, 0x01}), next());
    // PTT uses a frame of its own: mTxBuf still holds the weather-alert command.
    EXPECT_EQ((Frame{0x0C, 0x01, 0x01}), txBuf());
    mRadio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
    EXPECT_EQ((Frame{0x0E, 0x01, 0x00}), next());
    mRadio.reqCBRSelectPreset(0);   // a cleared preset is sent as it is
    EXPECT_EQ((Frame{0x02, 0x01, 0x00}), next());
    EXPECT_TRUE(nothingWritten());
}

TEST_F(CommandFrames, SetChannelAcceptsOnlyTheBand)
{
    mRadio.reqCBRStateChange(1);
    EXPECT_EQ((Frame{0x01, 0x01, 0x01}), next());
    mRadio.reqCBRSetChannel(0);
    mRadio.reqCBRSetChannel(41);
    mRadio.reqCBRSetChannel(-1);
    EXPECT_TRUE(nothingWritten());
    EXPECT_EQ((Frame{0x01, 0x01, 0x01}), txBuf());   // refused channels leave mTxBuf alone
    mRadio.reqCBRSetChannel(40);
    EXPECT_EQ((Frame{0x02, 0x01, 0x28}), next());
    mRadio.reqCBRSetChannel(1);
    EXPECT_EQ((Frame{0x02, 0x01, 0x01}), next());
}

TEST_F(CommandFrames, SeekWrapsAroundTheFortyChannelBand)
{
    CCBRadio::mCBRCurrentChannel.store(40);
    mRadio.reqCBRSeek(1);
    EXPECT_EQ((Frame{0x02, 0x01, 0x01}), next());
    CCBRadio::mCBRCurrentChannel.store(1);
    mRadio.reqCBRSeek(0);
    EXPECT_EQ((Frame{0x02, 0x01, 0x28}), next());
    CCBRadio::mCBRCurrentChannel.store(17);
    mRadio.reqCBRSeek(-5);   // any non-zero direction is up
    EXPECT_EQ((Frame{0x02, 0x01, 0x12}), next());
    mRadio.reqCBRSeek(0);
    EXPECT_EQ((Frame{0x02, 0x01, 0x10}), next());
    // The builders never change the current channel; only the V850's answer does.
    EXPECT_EQ(17, CCBRadio::mCBRCurrentChannel.load());
    CCBRadio::mCBRCurrentChannel.store(60);   // out of band: the result is not sent
    mRadio.reqCBRSeek(1);
    EXPECT_TRUE(nothingWritten());
}

TEST_F(CommandFrames, SetSquelchStoresThePayloadButSendsOnlyOneToFourteen)
{
    mRadio.reqCBRSetSquelchLevel(15);
    EXPECT_TRUE(nothingWritten());
    EXPECT_EQ((Frame{0x03, 0x01, 0x0F}), txBuf());
    mRadio.reqCBRSetSquelchLevel(0);
    EXPECT_TRUE(nothingWritten());
    mRadio.reqCBRSetSquelchLevel(14);
    EXPECT_EQ((Frame{0x03, 0x01, 0x0E}), next());
    mRadio.reqCBRSetSquelchLevel(1);
    EXPECT_EQ((Frame{0x03, 0x01, 0x01}), next());
}

TEST_F(CommandFrames, AdjustSquelchStepsAndCarriesThePreviousPayloadAtTheLimits)
{
    CCBRadio::mCBRSquelchLevel.store(1);
    mRadio.reqCBRAdjustSquelchLevel(0);
    EXPECT_EQ((Frame{0x03, 0x01, 0x00}), next());   // down to 0, which set refuses
    CCBRadio::mCBRSquelchLevel.store(8);
    mRadio.reqCBRAdjustSquelchLevel(1);
    EXPECT_EQ((Frame{0x03, 0x01, 0x09}), next());

    // At the top a step up re-sends whatever payload the previous frame left.
    mRadio.reqCBRSetSquelchLevel(5);
    EXPECT_EQ((Frame{0x03, 0x01, 0x05}), next());
    CCBRadio::mCBRSquelchLevel.store(14);
    mRadio.reqCBRAdjustSquelchLevel(1);
    EXPECT_EQ((Frame{0x03, 0x01, 0x05}), next());

    // The same at the bottom; a carried-over payload above 14 is not sent.
    mRadio.reqCBRSetSquelchLevel(15);
    CCBRadio::mCBRSquelchLevel.store(0);
    mRadio.reqCBRAdjustSquelchLevel(0);
    EXPECT_TRUE(nothingWritten());
    EXPECT_EQ((Frame{0x03, 0x01, 0x0F}), txBuf());

    // Another command's payload is carried over as well.
    mRadio.reqCBRStateChange(1);
    EXPECT_EQ((Frame{0x01, 0x01, 0x01}), next());
    CCBRadio::mCBRSquelchLevel.store(14);
    mRadio.reqCBRAdjustSquelchLevel(1);
    EXPECT_EQ((Frame{0x03, 0x01, 0x01}), next());
}

TEST_F(CommandFrames, ScanStartsAtTheCurrentChannelAndStopIsTwoBytes)
{
    CCBRadio::mCBRCurrentChannel.store(23);
    mRadio.reqCBRStartScan();
    EXPECT_EQ((Frame{0x04, 0x01, 0x17}), next());
    mRadio.reqCBRStopScan();
    EXPECT_EQ((Frame{0x05, 0x00}), next());
    EXPECT_EQ((Frame{0x05, 0x00, 0x17}), txBuf());   // the payload byte stays behind
}

TEST_F(CommandFrames, StatusQueriesWriteZeroOneAndNothingWithoutDevice)
{
    typedef void (CCBRadio::*Query)();
    const Query queries[] = {&CCBRadio::req_CBR_CHN_SELECT_toV850, &CCBRadio::req_CBR_SET_SQUELCH_LEVEL_toV850,
                             &CCBRadio::req_CBR_STOP_SCAN_toV850, &CCBRadio::req_CBR_VERSION_INFO_toV850,
                             &CCBRadio::req_CBR_ANTENNA_STATUS_toV850, &CCBRadio::req_CBR_ANTENNA_SENSITIVITY_toV850,
                             &CCBRadio::req_CBR_TX_STATUS_toV850, &CCBRadio::req_CBR_RX_STATUS_toV850};
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
