// CDevIpcChannel: one open platform device node of the vehicle microcontroller link.
//
// The node is opened through JTDeviceNode, so the platform path is taken under CBRADIO_ROOT and
// may be a SOCK_SEQPACKET socket or a character device; one read is one frame, one write is one
// frame, a read of 0 bytes means the peer has gone. Error texts go to standard error and show the
// platform path: "[CBRadio] Error opening <path>!", "[CBRadio] Msg reading failed!" and, for an
// interrupted write only, "[CBRadio] Msg sending failed!". Writes to a socket whose peer has gone
// fail with -1 (EPIPE) instead of raising SIGPIPE.
//
// Thread safety: one reader thread; any number of writers, each frame in one write call.
#ifndef CDEVIPCCHANNEL_H
#define CDEVIPCCHANNEL_H

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
    // stale EINTR repeats even a successful read. Returns the byte count (0 when the peer has
    // gone) or -1.
    int readData(unsigned char* buffer, unsigned int length);
    // One write, never repeated. Returns the byte count or -1.
    int writeData(unsigned char* buffer, unsigned int length);

    int getDescriptor() const { return mDescriptor; }
    const char* getPath() const { return mPath; }

private:
    int mDescriptor;   // -1 when not open
    char mPath[120];
    bool mIsSocket;
};

#endif
