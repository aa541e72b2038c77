#include "CCBRadio.h"
#include "ChildProcess.h"
#include "CDevIpcChannel.h"
#include "CDevIpcChannelHandler.h"
#include "CMsgHandlerChannelTwelve.h"
#include "V850Peer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <mutex>

namespace
{
// Wake-ups sent before the worker first waits are lost by design; post harmless requests
// until one is drained, which proves the worker is now waiting for the next one.
void waitUntilWorkerWaits(CCBRadio& radio)
{
    for (int attempt = 0; attempt < 2000; ++attempt) {
        radio.postRequest(REQ_CBR_RESERVED_0);
        usleep(1000);
        radio.mReqMutex.lock();
        const bool drained = radio.mReqList.empty();
        radio.mReqMutex.unlock();
        if (drained)
            return;
    }
    ADD_FAILURE() << "worker never drained the queue";
}
}

// Every query request writes the same two bytes; reserved and unknown values write nothing.
TEST(CCBRadioWorker, QueriesAreWrittenInPostingOrderAndOtherValuesAreSkipped)
{
    V850Peer peer;
    ASSERT_TRUE(peer.listen());
    CCBRadio radio;
    CDevIpcChannelHandler handler(new CMsgHandlerChannelTwelve(&radio), "/dev/ipc/ch6");  // no reader thread
    ASSERT_EQ(0, handler.getChannel()->openChannel(O_RDWR));
    ASSERT_TRUE(peer.accept());
    radio.mpIpcHandler.store(&handler);
    sig_exit.store(0);
    radio.createThread();
    waitUntilWorkerWaits(radio);

    const ERequest posted[] = {REQ_CBR_CHN_SELECT,          REQ_CBR_RESERVED_4,
                               REQ_CBR_SET_SQUELCH_LEVEL,   REQ_CBR_STOP_SCAN,
                               REQ_CBR_VERSION_INFO,        REQ_CBR_ANTENNA_STATUS,
                               REQ_CBR_ANTENNA_SENSITIVITY, REQ_CBR_TX_STATUS,
                               static_cast<ERequest>(99),   REQ_CBR_RX_STATUS};
    for (ERequest r : posted)
        radio.postRequest(r);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ((V850Peer::Frame{0x00, 0x01}), peer.read()) << i;
    EXPECT_TRUE(peer.read(100).empty());

    sig_exit.store(1);
    radio.postRequest(REQ_CBR_EXIT);
    EXPECT_EQ(0, radio.waitStop());
    radio.mpIpcHandler.store(nullptr);
    sig_exit.store(0);
}

TEST(CCBRadioWorker, ExitRequestedBeforeTheFirstWaitIsNotLost)
{
    V850Peer noDevice;
    CCBRadio radio;
    sig_exit.store(0);
    // The worker passes its loop test and then finds the queue locked, as when the termination
    // signal arrives right after the worker started.
    radio.mReqMutex.lock();
    radio.createThread();
    usleep(50000);
    sig_exit.store(1);
    radio.mReqList.push_back(REQ_CBR_EXIT);
    radio.mReqMutex.condSignal();  // nobody waits yet: this wake-up goes nowhere
    radio.mReqMutex.unlock();

    const bool drained = waitUntil(
        [&] {
            const std::lock_guard<CMutex> queue(radio.mReqMutex);
            return radio.mReqList.empty();
        },
        1000);
    EXPECT_TRUE(drained) << "the worker waited for a wake-up that had already been sent";
    if (!drained)
        radio.postRequest(REQ_CBR_EXIT);  // release it so that the join below returns
    EXPECT_EQ(0, radio.waitStop());
    sig_exit.store(0);
}
