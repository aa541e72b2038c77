#include "CJTIODevice.h"

#include "JTDeviceNode.h"
#include "JTOperatingSystem.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
    struct SRegistration
    {
        int usage;
        IJTIODeviceServer* server;
    };

    // Server handles start far above any descriptor number so the two never meet.
    constexpr int kFirstServerHandle = 0x40000000;

    struct SRegistry
    {
        std::mutex lock;
        std::map<std::string, SRegistration> byPath;
        std::map<int, IJTIODeviceServer*> byHandle;
        int nextHandle = kFirstServerHandle;
    };

    SRegistry& registry()
    {
        static SRegistry instance;
        return instance;
    }

    int errorKind(int error)
    {
        if (error == 0)
            return CJTIODevice::ERR_NONE;
        return error == ETIMEDOUT ? CJTIODevice::ERR_TIMEOUT : CJTIODevice::ERR_OTHER;
    }

    // Waits until fd is readable or the time-out ends; true when readable (or in error, which the
    // following read reports).
    bool waitReadable(int fd, uint64_t timeoutNs)
    {
        const uint64_t deadline = JTOperatingSystem::getMonotonicTime() + timeoutNs;
        for (;;) {
            uint64_t now = JTOperatingSystem::getMonotonicTime();
            uint64_t left = now < deadline ? deadline - now : 0;
            timespec wait = {static_cast<time_t>(left / 1000000000ull), static_cast<long>(left % 1000000000ull)};
            pollfd pfd = {fd, POLLIN, 0};
            int ready = ::ppoll(&pfd, 1, &wait, nullptr);
            if (ready > 0)
                return true;
            if (ready == 0)
                return false;
            if (errno != EINTR)
                return true;
        }
    }
}

bool JTIODeviceServerRegistry::registerServer(int usage, const char* path, IJTIODeviceServer* server)
{
    if (path == nullptr || server == nullptr || (usage & CJTIODevice::READWRITE) == 0)
        return false;
    SRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    return reg.byPath.emplace(path, SRegistration{usage & CJTIODevice::READWRITE, server}).second;
}

bool JTIODeviceServerRegistry::unregisterServer(const char* path)
{
    if (path == nullptr)
        return false;
    SRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    return reg.byPath.erase(path) > 0;
}

IJTIODeviceServer* JTIODeviceServerRegistry::findServer(const char* path, int& usage)
{
    SRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    auto found = reg.byPath.find(path);
    if (found == reg.byPath.end())
        return nullptr;
    usage = found->second.usage;
    return found->second.server;
}

int JTIODeviceServerRegistry::attachHandle(IJTIODeviceServer* server)
{
    SRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    int handle = reg.nextHandle;
    reg.nextHandle = handle == 0x7FFFFFFF ? kFirstServerHandle : handle + 1;
    reg.byHandle[handle] = server;
    return handle;
}

IJTIODeviceServer* JTIODeviceServerRegistry::serverOf(int handle)
{
    SRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    auto found = reg.byHandle.find(handle);
    return found == reg.byHandle.end() ? nullptr : found->second;
}

void JTIODeviceServerRegistry::detachHandle(int handle)
{
    SRegistry& reg = registry();
    std::lock_guard<std::mutex> guard(reg.lock);
    reg.byHandle.erase(handle);
}

CJTIODevice::CJTIODevice() : mFd(-1), mServerHandle(-1), mIsSocket(false), mLastError(ERR_NONE)
{
}

CJTIODevice::~CJTIODevice()
{
    close();
}

bool CJTIODevice::open(const char* platformPath, int accessMode)
{
    close();
    if (platformPath == nullptr || accessMode < READ || accessMode > READWRITE) {
        errno = EINVAL;
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
        return false;
    }

    int usage = 0;
    IJTIODeviceServer* server = JTIODeviceServerRegistry::findServer(platformPath, usage);
    if (server != nullptr) {
        if ((accessMode & ~usage) != 0) {
            errno = EACCES;
            mLastError.store(ERR_OTHER, std::memory_order_relaxed);
            return false;
        }
        int handle = JTIODeviceServerRegistry::attachHandle(server);
        if (!server->onOpen(handle, platformPath, accessMode)) {
            JTIODeviceServerRegistry::detachHandle(handle);
            mLastError.store(ERR_OTHER, std::memory_order_relaxed);
            return false;
        }
        mServerHandle = handle;
        mLastError.store(ERR_NONE, std::memory_order_relaxed);
        return true;
    }

    static const int kFlags[] = {O_RDONLY, O_WRONLY, O_RDWR};
    int fd = JTDeviceNode::open(platformPath, kFlags[accessMode - 1] | O_CLOEXEC);
    if (fd < 0) {
        mLastError.store(errorKind(errno), std::memory_order_relaxed);
        return false;
    }
    struct stat st;
    mIsSocket = ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
    mFd = fd;
    mLastError.store(ERR_NONE, std::memory_order_relaxed);
    return true;
}

int CJTIODevice::read(void* buf, size_t len)
{
    uint64_t timeoutNs = 0;
    const bool bounded = JTOperatingSystem::consumeKernelTimeout(timeoutNs);

    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        if (server == nullptr) {
            errno = EBADF;
            mLastError.store(ERR_OTHER, std::memory_order_relaxed);
            return -1;
        }
        return server->onRead(mServerHandle, buf, len, bounded ? static_cast<int64_t>(timeoutNs) : -1);
    }
    if (mFd < 0) {
        errno = EBADF;
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
        return -1;
    }
    if (bounded && !waitReadable(mFd, timeoutNs)) {
        errno = ETIMEDOUT;
        mLastError.store(ERR_TIMEOUT, std::memory_order_relaxed);
        return 0;
    }
    ssize_t got;
    do {
        got = ::read(mFd, buf, len);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        mLastError.store(errorKind(errno), std::memory_order_relaxed);
        return -1;
    }
    if (got == 0)
        errno = 0;   // the peer has gone; not a time-out
    mLastError.store(ERR_NONE, std::memory_order_relaxed);
    return static_cast<int>(got);
}

int CJTIODevice::write(const void* buf, size_t len)
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        if (server == nullptr) {
            errno = EBADF;
            mLastError.store(ERR_OTHER, std::memory_order_relaxed);
            return -1;
        }
        return server->onWrite(mServerHandle, buf, len);
    }
    if (mFd < 0) {
        errno = EBADF;
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
        return -1;
    }
    ssize_t written;
    do {
        written = mIsSocket ? ::send(mFd, buf, len, MSG_NOSIGNAL) : ::write(mFd, buf, len);
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
        mLastError.store(errorKind(errno), std::memory_order_relaxed);
        return -1;
    }
    mLastError.store(ERR_NONE, std::memory_order_relaxed);
    return static_cast<int>(written);
}

int CJTIODevice::devctl(uint32_t code, void* data, size_t size)
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        if (server == nullptr) {
            mLastError.store(ERR_OTHER, std::memory_order_relaxed);
            return EBADF;
        }
        return server->onDevctl(mServerHandle, code, data, size);
    }
    if (mFd < 0) {
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
        return EBADF;
    }
    int rc;
    do {
        rc = JTDeviceNode::control(mFd, code, data, size);
    } while (rc == EINTR);
    mLastError.store(errorKind(rc), std::memory_order_relaxed);
    return rc;
}

void CJTIODevice::close()
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        if (server != nullptr)
            server->onClose(mServerHandle);
        JTIODeviceServerRegistry::detachHandle(mServerHandle);
        mServerHandle = -1;
    }
    if (mFd >= 0) {
        ::close(mFd);   // not repeated on EINTR: the descriptor is gone either way on Linux
        mFd = -1;
        mIsSocket = false;
    }
}

bool CJTIODevice::isOpened() const
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        return server != nullptr && server->onIsOpened(mServerHandle);
    }
    return mFd >= 0;
}

int CJTIODevice::getLastError() const
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        return server != nullptr ? server->onGetLastError(mServerHandle) : static_cast<int>(ERR_OTHER);
    }
    return mLastError.load(std::memory_order_relaxed);
}
