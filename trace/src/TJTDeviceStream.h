// TJTDeviceStream: a byte stream over a device node, with a time-out for reading.
//
// The device delivers whole frames (one read, one frame), while readers such as
// CJTTraceCommand::readFrom take a frame apart field by field. So the stream reads one frame into
// a buffer of its own and hands its bytes out; a frame is the whole of what one stream reads, and
// once it is used up further reads yield nothing (a command shorter than it says ends where its
// frame ends, without waiting for more).
//
// Time-out: the stream waits at most timeoutMs for its frame (a per-thread kernel time-out on
// the device read, in whole ms). The state afterwards says why reading stopped: STATE_ERROR (the device failed), STATE_TIMEOUT (the time ran out), STATE_END (the peer
// has gone: a read of 0 bytes without time-out).
//
// Writing is one device write per doWrite call. A stream object belongs to one thread.
#ifndef TJTDEVICESTREAM_H
#define TJTDEVICESTREAM_H

#include "IJTStream.h"
#include "JTOperatingSystem.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

// How the stream reaches the device: read and write of one frame.
template <class TDevice>
class TJTDeviceStreamFeatureReadWrite
{
public:
    static int readFrame(TDevice& device, void* buffer, uint32_t size) { return device.read(buffer, size); }
    static int writeFrame(TDevice& device, const void* buffer, uint32_t size) { return device.write(buffer, size); }
};

template <class TDevice, class TFeature = TJTDeviceStreamFeatureReadWrite<TDevice>>
class TJTDeviceStream : public IJTIOStream
{
public:
    enum { STATE_GOOD = 0, STATE_ERROR = 1, STATE_TIMEOUT = 2, STATE_END = 4 };
    // Larger than any command the server sends.
    enum { DEFAULT_FRAME_CAPACITY = 65536 + 8 };

    TJTDeviceStream(TDevice& device, uint32_t timeoutMs, uint32_t frameCapacity = DEFAULT_FRAME_CAPACITY)
        : mDevice(device), mTimeoutNs(static_cast<uint64_t>(timeoutMs) * 1000000u), mFrame(frameCapacity),
          mFrameSize(0), mFramePos(0), mFrameRead(false), mState(STATE_GOOD)
    {
    }

    uint32_t doRead(void* data, uint32_t size) override
    {
        if (!mFrameRead && size > 0)
            readFrame();
        uint32_t left = mFrameSize - mFramePos;
        uint32_t n = size < left ? size : left;
        if (n > 0)
            std::memcpy(data, mFrame.data() + mFramePos, n);
        mFramePos += n;
        return n;
    }

    uint32_t doWrite(const void* data, uint32_t size) override
    {
        int n = TFeature::writeFrame(mDevice, data, size);
        if (n < 0) {
            mState |= STATE_ERROR;
            return 0;
        }
        return static_cast<uint32_t>(n);
    }

    uint32_t getReadPosition() const override { return mFramePos; }

    uint8_t getState() const { return mState; }
    bool isTimedOut() const { return (mState & STATE_TIMEOUT) != 0; }
    bool isEnd() const { return (mState & STATE_END) != 0; }
    bool isError() const { return (mState & STATE_ERROR) != 0; }

private:
    // One frame per stream: a single read bounded by the whole time-out.
    void readFrame()
    {
        mFrameRead = true;
        JTOperatingSystem::calculateKernelTimeout(static_cast<uint32_t>(mTimeoutNs / 1000000u));
        int n = TFeature::readFrame(mDevice, mFrame.data(), static_cast<uint32_t>(mFrame.size()));
        if (n < 0)
            mState |= STATE_ERROR;
        else if (n == 0)
            mState |= (errno == ETIMEDOUT) ? STATE_TIMEOUT : STATE_END;
        else
            mFrameSize = static_cast<uint32_t>(n);
    }

    TDevice& mDevice;
    uint64_t mTimeoutNs;
    std::vector<uint8_t> mFrame;
    uint32_t mFrameSize;
    uint32_t mFramePos;
    bool mFrameRead;
    uint8_t mState;
};

#endif
