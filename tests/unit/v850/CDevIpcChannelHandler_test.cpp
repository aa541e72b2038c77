#include "CDevIpcChannel.h"
#include "CDevIpcChannelHandler.h"
#include "IMsgProcessor.h"
#include "V850Peer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <thread>

namespace
{
// Keeps every frame handed on, as long as the reader said it was.
class RecordingProcessor : public IMsgProcessor
{
public:
    void processMsg(unsigned char* data, unsigned int length) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mFrames.emplace_back(data, data + (length > 128 ? 0 : length));
        mChanged.notify_all();
    }

    // The frames once there are `count` of them (or after two seconds).
    std::vector<V850Peer::Frame> frames(size_t count)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, std::chrono::seconds(2), [&] { return mFrames.size() >= count; });
        return mFrames;
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::vector<V850Peer::Frame> mFrames;
};
}

// Frames both ways, one read or write each, are met by the e2e bus service tests with the simulator.
TEST(CDevIpcChannelHandler, AStopJoinsASilentReaderAndLaterFramesAreNeverDecoded)
{
    V850Peer peer;
    ASSERT_TRUE(peer.listen());
    RecordingProcessor* processor = new RecordingProcessor;
    CDevIpcChannelHandler handler(processor, "/dev/ipc/ch6");
    EXPECT_STREQ("/dev/ipc/ch6", handler.getThreadName());
    ASSERT_EQ(0, handler.trigger());
    ASSERT_TRUE(peer.accept());

    ASSERT_TRUE(peer.write({0x09, 0x01, 0x80}));
    ASSERT_EQ(1u, processor->frames(1).size()) << "the reader runs";

    const auto asked = std::chrono::steady_clock::now();
    EXPECT_TRUE(handler.stopAndJoin(2000));
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(500));
    EXPECT_EQ(0u, handler.getThreadHandle());
    ASSERT_TRUE(peer.write({0x09, 0x01, 0x40}));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1u, processor->frames(0).size());

    peer.closeConnection();
    unsigned char frame[3] = {0x0E, 0x01, 0x01};
    EXPECT_EQ(-1, handler.writeData(frame, 3));  // EPIPE, not SIGPIPE
}

// A missing device node (its error line, the service running on without it) is met by the e2e
// daemon tests.
TEST(CDevIpcChannel, FailedReadReportsAndReturnsMinusOne)
{
    V850Peer peer;
    ASSERT_TRUE(peer.listen());
    CDevIpcChannel channel("/dev/ipc/ch6");
    ASSERT_EQ(0, channel.openChannel(O_WRONLY));
    // Put a write-only descriptor in its place: reading it fails with EBADF.
    int writeOnly = ::open("/dev/null", O_WRONLY);
    ASSERT_EQ(channel.getDescriptor(), ::dup2(writeOnly, channel.getDescriptor()));
    ::close(writeOnly);
    unsigned char buffer[8];
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(-1, channel.readData(buffer, sizeof(buffer)));
    EXPECT_EQ("\n[CBRadio] Msg reading failed!\n", testing::internal::GetCapturedStderr());
}
