// CDevIpcChannelHandler: owns one CDevIpcChannel and the thread that reads it.
//
// trigger() opens the channel read-write and starts the reader thread (named after the path,
// "/dev/ipc/ch6"). The reader reads up to 128 bytes at a time and hands every non-zero result to
// the IMsgProcessor on its own thread: a frame with its length, or -1 (0xFFFFFFFF) after a failed
// read; a read of 0 is dropped. After every read it sleeps 1 ms, which bounds it to about a
// thousand reads a second. A peer that hangs up is waited for inside the channel's read (see
// CDevIpcChannel), not by spinning here. stop() sets the flag and wakes a read in progress, so
// the reader leaves at once; stopAndJoin() also joins it. Once the flag is set no further frame is
// handed to the processor. The termination signals and SIGUSR1 are blocked on the reader so that
// no handler interrupts its reads.
//
// writeData() may be called from any thread; each frame is one write, given up after one second.
// The handler owns the channel and the processor and deletes both; delete it only when its reader
// has been joined and no writer can still be using it.
#ifndef CDEVIPCCHANNELHANDLER_H
#define CDEVIPCCHANNELHANDLER_H

#include "IThreadInterface.h"

#include <atomic>

class CDevIpcChannel;
class IMsgProcessor;

class CDevIpcChannelHandler : public IThreadInterface
{
public:
    enum { READ_SIZE = 128, READ_PAUSE_US = 1000 };

    CDevIpcChannelHandler(IMsgProcessor* processor, const char* path);
    ~CDevIpcChannelHandler() override;

    // 0 when the channel is open and the reader runs, -1 when the open failed (no thread).
    int trigger();
    // The channel's result; any negative result as -1.
    int writeData(unsigned char* buffer, unsigned int length);
    // Asks the reader to end and wakes its read; writes fail from now on.
    void stop();
    // stop(), then waits up to timeoutMs for the reader to end and joins it. False when the reader
    // is still busy (in the processor) after that time; it is then neither joined nor to be
    // deleted, but it decodes nothing more.
    bool stopAndJoin(int timeoutMs);

    void run() override;

    // Waits up to timeoutMs for a started reader to leave its loop, without joining it; false when
    // it is still reading (for instance blocked on a silent peer).
    bool waitReaderEnded(int timeoutMs) const;

    CDevIpcChannel* getChannel() const { return mpChannel; }

private:
    CDevIpcChannel* mpChannel;
    IMsgProcessor* mpProcessor;
    std::atomic<bool> mStopFlag;
    std::atomic<bool> mReading;  // from trigger() until run() has left its loop and traced
};

#endif
