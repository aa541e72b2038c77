// CJTDeviceLink: one open platform device node, read and written without ever waiting unbounded.
//
// open() opens the node through JTDeviceNode (a SOCK_SEQPACKET socket node or a character device,
// under CBRADIO_ROOT) and makes the descriptor non-blocking; every wait is then a poll(2) with a
// time-out, together with the link's own wake-up descriptor. A node that cannot be opened is not
// retried: open() fails and the caller runs on without it.
//
// Frames: one write() is one whole frame, one read() returns one whole frame.
//
// write(buffer, length, timeoutMs): a frame the node does not take within timeoutMs (default one
//   second) fails with -1 and errno ETIMEDOUT; timeoutMs 0 tries once (EAGAIN when not taken at
//   once). Returns the count written, or -1 with errno set: EPIPE while the link is down (below),
//   ECANCELED after shutdown(), EBADF when not open, or the system's error. No SIGPIPE is raised.
//
// waitWritable(timeoutMs): waits until a write could go (the node has room); true then, false on
//   time-out, after shutdown() or when not open. Writes nothing.
//
// read(buffer, length, timeoutNs): waits for one frame; timeoutNs < 0 waits without bound (but see
//   shutdown). Returns the byte count; 0 with errno 0 when the peer has gone (a node opened without
//   reconnection), 0 with errno ETIMEDOUT when the time-out expired, 0 with errno ECANCELED after
//   shutdown(); -1 with errno on any other failure. EINTR is repeated.
//
// Reconnection (socket nodes opened with reconnect = true): when the peer hangs up, the link is
//   down. The read in progress does not return: it tries to connect to the path again every 100 ms
//   (at most ten wake-ups a second, sleeping in between) until the path accepts a connection, then
//   waits for and returns the first frame of the new connection. Writes while the link is down fail
//   at once with EPIPE. The loss is logged once to the system log at severity 3 ("Device <path>:
//   peer hung up, reconnecting"), the return at severity 5 ("Device <path>: reconnected"). Only a
//   read notices a loss and reconnects, so a link that is reconnected must have a reader. The
//   descriptor number stays the same across a reconnection (the new connection is dup3(2)-ed
//   over the old one), so writers on other threads never see a closed descriptor.
//
// shutdown(cancelWrites): wakes the read waiting on the link and makes every later read return
//   at once (0, errno ECANCELED), until the next open(). With cancelWrites (the default) writes
//   are cancelled the same way (waiting ones are woken, later ones fail with ECANCELED); without
//   it they go on as before (a trace channel still sends its last records while its reader stops).
//   It is how a reader blocked on the link is released for a stop: shutdown(), then join the
//   reader, then close() or destroy. Only stores flags and writes to an eventfd, so it may even be
//   called from a signal handler.
//
// Threads: one thread reads while any others write and one calls shutdown(); open() and close()
// must not race with reads or writes on the same link (stop and join the reader first), but
// shutdown() may come at any time, even while the reader closes the link after an error.
#ifndef CJTDEVICELINK_H
#define CJTDEVICELINK_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

class CJTDeviceLink
{
public:
    enum { WRITE_TIMEOUT_MS = 1000, RECONNECT_INTERVAL_MS = 100, PATH_SIZE = 256 };

    CJTDeviceLink();
    ~CJTDeviceLink();
    CJTDeviceLink(const CJTDeviceLink&) = delete;
    CJTDeviceLink& operator=(const CJTDeviceLink&) = delete;

    // flags: O_RDONLY, O_WRONLY or O_RDWR, optionally with O_CLOEXEC. An open link is closed first.
    // Returns 0, or -1 with errno set.
    int open(const char* platformPath, int flags, bool reconnect);
    void close();

    ssize_t read(void* buffer, size_t length, int64_t timeoutNs = -1);
    ssize_t write(const void* buffer, size_t length, int timeoutMs = WRITE_TIMEOUT_MS);
    bool waitWritable(int timeoutMs);
    void shutdown(bool cancelWrites = true);

    bool isOpen() const { return mFd >= 0; }
    bool isSocket() const { return mIsSocket; }
    bool isDown() const { return mDown.load(std::memory_order_relaxed); }
    // The descriptor, for device control requests (JTDeviceNode::control); -1 when not open.
    int descriptor() const { return mFd; }

private:
    bool isShutDown() const { return mShutDown.load(std::memory_order_relaxed); }
    bool areWritesCancelled() const { return mWritesCancelled.load(std::memory_order_relaxed); }
    // Waits until fd (if >= 0) has events or, when wakeable, the link is woken; timeoutNs < 0
    // without bound. Returns 1 when fd is ready, 0 on time-out, -1 when woken by shutdown().
    int waitFor(int fd, short events, int64_t timeoutNs, bool wakeable = true);
    void goDown();
    bool tryReconnect();

    int mFd;
    std::atomic<int> mWakeFd;  // eventfd, made by the first open(), kept until destruction; readable
                               // from shutdown() until the next open()
    bool mIsSocket;
    bool mReconnect;
    int mFlags;
    char mPath[PATH_SIZE];  // the platform path, for reconnecting and for the log lines
    std::atomic<bool> mDown;
    std::atomic<bool> mShutDown;
    std::atomic<bool> mWritesCancelled;
};

#endif
