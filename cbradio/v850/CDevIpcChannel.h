// CDevIpcChannel: one open platform device node of the vehicle microcontroller link.
//
// The node is opened through CJTDeviceLink, so the platform path is taken under CBRADIO_ROOT and
// may be a SOCK_SEQPACKET socket or a character device; one read is one frame, one write is one
// frame. No call waits without bound on the microcontroller:
// - a write the node does not take within one second fails (-1), like any other write error;
// - a socket node whose peer hangs up is reconnected out of sight: the read in progress waits
//   (at most ten wake-ups a second) until the path accepts again and returns the first frame of
//   the new connection; writes fail meanwhile; the loss and the return go to the system log;
// - wake() releases a read in progress and makes every later read return 0 at once, for the stop.
// Error texts go to standard error and show the platform path: "[CBRadio] Error opening <path>!",
// "[CBRadio] Msg reading failed!" and, for an interrupted write only, "[CBRadio] Msg sending
// failed!". Writes never raise SIGPIPE.
//
// Thread safety: one reader thread; any number of writers, each frame in one write call; wake()
// from any thread.
#ifndef CDEVIPCCHANNEL_H
#define CDEVIPCCHANNEL_H

#include "CJTDeviceLink.h"

class CDevIpcChannel
{
public:
    CDevIpcChannel();
    // Copies the platform path (at most 119 characters); the node is opened by openChannel().
    explicit CDevIpcChannel(const char* path);
    virtual ~CDevIpcChannel();

    CDevIpcChannel(const CDevIpcChannel&) = delete;
    CDevIpcChannel& operator=(const CDevIpcChannel&) = delete;

    // Opens the node with the given open(2) access flags. 0 on success, -1 on failure.
    int openChannel(int flags);
    // One read; repeated while errno reads EINTR afterwards. errno is not cleared first, so a
    // stale EINTR repeats even a successful read. Returns the byte count (0 when there is nothing
    // to hand on: the peer has gone for good, or the channel was woken for a stop) or -1.
    int readData(unsigned char* buffer, unsigned int length);
    // One write, never repeated. Returns the byte count or -1.
    int writeData(unsigned char* buffer, unsigned int length);
    // Releases the reader for a stop; reads return 0 from now on.
    void wake();

    int getDescriptor() const { return mLink.descriptor(); }
    const char* getPath() const { return mPath; }

private:
    CJTDeviceLink mLink;
    char mPath[120];
};

#endif
