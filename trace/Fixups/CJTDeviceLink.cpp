#include "CJTDeviceLink.h"

#include "JTDeviceNode.h"
#include "JTOperatingSystem.h"
#include "JTSyslog.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
const unsigned int kSyslogModule = 0;

bool isSocketFd(int fd)
{
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

bool setNonBlocking(int fd)
{
    int fl = ::fcntl(fd, F_GETFL);
    return fl >= 0 && ::fcntl(fd, F_SETFL, fl | O_NONBLOCK) == 0;
}

void closeKeepingErrno(int fd)
{
    int saved = errno;
    ::close(fd);
    errno = saved;
}

// A read error that means the peer of a socket has gone, like a read of 0 bytes.
bool isHangUp(int error)
{
    return error == ECONNRESET || error == ENOTCONN || error == EPIPE;
}
}

CJTDeviceLink::CJTDeviceLink()
    : mFd(-1), mWakeFd(-1), mIsSocket(false), mReconnect(false), mFlags(0), mPath(), mDown(false), mShutDown(false),
      mWritesCancelled(false)
{
}

CJTDeviceLink::~CJTDeviceLink()
{
    close();
    const int wake = mWakeFd.exchange(-1, std::memory_order_relaxed);
    if (wake >= 0)
        ::close(wake);
}

int CJTDeviceLink::open(const char* platformPath, int flags, bool reconnect)
{
    close();
    if (platformPath == nullptr ||
        std::snprintf(mPath, sizeof mPath, "%s", platformPath) >= static_cast<int>(sizeof mPath)) {
        mPath[0] = '\0';
        errno = platformPath == nullptr ? EINVAL : ENAMETOOLONG;
        return -1;
    }
    // The wake-up descriptor lives as long as the link: a shutdown() from another thread may come
    // while the reader closes the link after an error, and must never write to a closed (or
    // meanwhile reused) descriptor number. A wake-up left from before is drained.
    int wake = mWakeFd.load(std::memory_order_relaxed);
    if (wake < 0) {
        wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wake < 0)
            return -1;
        mWakeFd.store(wake, std::memory_order_relaxed);
    } else {
        uint64_t raised;
        ssize_t rc = ::read(wake, &raised, sizeof raised);
        (void)rc;  // EAGAIN: nothing was raised
    }
    // Non-blocking from the start: a socket node whose listener is swamped fails the connect
    // instead of holding the caller.
    int fd = JTDeviceNode::open(platformPath, flags | O_NONBLOCK);
    if (fd < 0 || !setNonBlocking(fd)) {
        if (fd >= 0)
            closeKeepingErrno(fd);
        return -1;
    }
    mFd = fd;
    mIsSocket = isSocketFd(fd);
    mReconnect = reconnect && mIsSocket;
    mFlags = flags;
    mDown.store(false, std::memory_order_relaxed);
    mShutDown.store(false, std::memory_order_relaxed);
    mWritesCancelled.store(false, std::memory_order_relaxed);
    return 0;
}

void CJTDeviceLink::close()
{
    // Not repeated on EINTR: on Linux the descriptor is gone either way.
    if (mFd >= 0)
        ::close(mFd);
    mFd = -1;
    mIsSocket = false;
    mReconnect = false;
    mDown.store(false, std::memory_order_relaxed);
}

void CJTDeviceLink::shutdown(bool cancelWrites)
{
    if (cancelWrites)
        mWritesCancelled.store(true, std::memory_order_relaxed);
    mShutDown.store(true, std::memory_order_relaxed);
    const int wake = mWakeFd.load(std::memory_order_relaxed);
    if (wake >= 0) {
        const uint64_t one = 1;
        ssize_t rc = ::write(wake, &one, sizeof one);
        (void)rc;  // only fails when the counter is already raised, which wakes just as well
    }
}

int CJTDeviceLink::waitFor(int fd, short events, int64_t timeoutNs, bool wakeable)
{
    const uint64_t start = JTOperatingSystem::getMonotonicTime();
    for (;;) {
        pollfd pfd[2] = {{wakeable ? mWakeFd.load(std::memory_order_relaxed) : -1, POLLIN, 0}, {fd, events, 0}};
        timespec wait;
        timespec* waitPtr = nullptr;
        if (timeoutNs >= 0) {
            uint64_t spent = JTOperatingSystem::getMonotonicTime() - start;
            uint64_t left = spent < static_cast<uint64_t>(timeoutNs) ? static_cast<uint64_t>(timeoutNs) - spent : 0;
            wait.tv_sec = static_cast<time_t>(left / 1000000000ull);
            wait.tv_nsec = static_cast<long>(left % 1000000000ull);
            waitPtr = &wait;
        }
        int ready = ::ppoll(pfd, fd >= 0 ? 2 : 1, waitPtr, nullptr);
        if (ready < 0 && errno == EINTR)
            continue;
        if (wakeable && (isShutDown() || (ready > 0 && pfd[0].revents != 0)))
            return -1;
        if (ready == 0)
            return 0;
        return 1;  // ready, or poll itself failed: the following call reports the error
    }
}

void CJTDeviceLink::goDown()
{
    if (!mDown.exchange(true, std::memory_order_relaxed))
        JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_WARNING, "Device %s: peer hung up, reconnecting", mPath);
}

bool CJTDeviceLink::tryReconnect()
{
    int fd = JTDeviceNode::open(mPath, (mFlags & ~O_CLOEXEC) | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    // Something else than a listening socket at the path is not our peer coming back.
    if (!isSocketFd(fd) || !setNonBlocking(fd) || ::dup3(fd, mFd, (mFlags & O_CLOEXEC) ? O_CLOEXEC : 0) < 0) {
        ::close(fd);
        return false;
    }
    ::close(fd);
    mDown.store(false, std::memory_order_relaxed);
    JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_INFO, "Device %s: reconnected", mPath);
    return true;
}

ssize_t CJTDeviceLink::read(void* buffer, size_t length, int64_t timeoutNs)
{
    if (mFd < 0) {
        errno = EBADF;
        return -1;
    }
    const uint64_t start = JTOperatingSystem::getMonotonicTime();
    for (;;) {
        if (isShutDown()) {
            errno = ECANCELED;
            return 0;
        }
        int64_t left = -1;
        if (timeoutNs >= 0) {
            uint64_t spent = JTOperatingSystem::getMonotonicTime() - start;
            left = spent < static_cast<uint64_t>(timeoutNs) ? timeoutNs - static_cast<int64_t>(spent) : 0;
        }
        if (isDown()) {
            const int64_t interval = RECONNECT_INTERVAL_MS * 1000000ll;
            int woken = waitFor(-1, 0, left >= 0 && left < interval ? left : interval);
            if (woken < 0)
                continue;  // shut down: reported at the top
            if (tryReconnect())
                continue;
            if (left >= 0 && left <= interval) {
                errno = ETIMEDOUT;
                return 0;
            }
            continue;
        }
        int ready = waitFor(mFd, POLLIN, left);
        if (ready < 0)
            continue;
        if (ready == 0) {
            errno = ETIMEDOUT;
            return 0;
        }
        ssize_t got = ::read(mFd, buffer, length);
        if (got > 0)
            return got;
        if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
            continue;
        if (mReconnect && (got == 0 || isHangUp(errno))) {
            goDown();
            continue;
        }
        if (got == 0)
            errno = 0;  // the peer has gone; not a time-out
        return got;
    }
}

bool CJTDeviceLink::waitWritable(int timeoutMs)
{
    if (mFd < 0 || isShutDown() || isDown())
        return false;
    return waitFor(mFd, POLLOUT, static_cast<int64_t>(timeoutMs > 0 ? timeoutMs : 0) * 1000000ll) > 0;
}

ssize_t CJTDeviceLink::write(const void* buffer, size_t length, int timeoutMs)
{
    if (mFd < 0) {
        errno = EBADF;
        return -1;
    }
    const uint64_t deadline = JTOperatingSystem::getMonotonicTime() +
                              static_cast<uint64_t>(timeoutMs > 0 ? timeoutMs : 0) * 1000000ull;
    for (;;) {
        if (areWritesCancelled()) {
            errno = ECANCELED;
            return -1;
        }
        if (isDown()) {
            errno = EPIPE;
            return -1;
        }
        ssize_t written = mIsSocket ? ::send(mFd, buffer, length, MSG_NOSIGNAL | MSG_DONTWAIT)
                                    : ::write(mFd, buffer, length);
        if (written >= 0)
            return written;
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return -1;
        if (timeoutMs <= 0)
            return -1;  // EAGAIN: not taken at once
        uint64_t now = JTOperatingSystem::getMonotonicTime();
        // Once reads are shut down the wake-up descriptor stays readable: a write whose own
        // cancellation was not asked for then waits on the node alone.
        if (now >= deadline || waitFor(mFd, POLLOUT, static_cast<int64_t>(deadline - now), !isShutDown()) == 0) {
            errno = ETIMEDOUT;
            return -1;
        }
    }
}
