#include "CJTIODevice.h"

#include "JTDeviceNode.h"
#include "JTOperatingSystem.h"

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <string>

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

CJTIODevice::CJTIODevice() : mServerHandle(-1), mLastError(ERR_NONE) {}

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
    if (mLink.open(platformPath, kFlags[accessMode - 1] | O_CLOEXEC, false) < 0) {
        mLastError.store(errorKind(errno), std::memory_order_relaxed);
        return false;
    }
    mLastError.store(ERR_NONE, std::memory_order_relaxed);
    return true;
}

IJTIODeviceServer* CJTIODevice::attachedServer()
{
    IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
    if (server == nullptr) {
        errno = EBADF;
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
    }
    return server;
}

int CJTIODevice::read(void* buf, size_t len)
{
    uint64_t timeoutNs = 0;
    const bool bounded = JTOperatingSystem::consumeKernelTimeout(timeoutNs);

    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = attachedServer();
        if (server == nullptr)
            return -1;
        return server->onRead(mServerHandle, buf, len, bounded ? static_cast<int64_t>(timeoutNs) : -1);
    }
    ssize_t got = mLink.read(buf, len, bounded ? static_cast<int64_t>(timeoutNs) : -1);
    if (got < 0) {
        mLastError.store(errorKind(errno), std::memory_order_relaxed);
        return -1;
    }
    if (got == 0 && errno == ECANCELED)
        errno = ETIMEDOUT;  // woken by shutdown(): the reader looks at its stop flag as after a time-out
    mLastError.store(got == 0 && errno == ETIMEDOUT ? ERR_TIMEOUT : ERR_NONE, std::memory_order_relaxed);
    return static_cast<int>(got);
}

int CJTIODevice::write(const void* buf, size_t len)
{
    return writeWithin(buf, len, CJTDeviceLink::WRITE_TIMEOUT_MS);
}

int CJTIODevice::writeNow(const void* buf, size_t len)
{
    return writeWithin(buf, len, 0);
}

int CJTIODevice::writeWithin(const void* buf, size_t len, int timeoutMs)
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = attachedServer();
        if (server == nullptr)
            return -1;
        return server->onWrite(mServerHandle, buf, len);
    }
    ssize_t written = mLink.write(buf, len, timeoutMs);
    if (written < 0) {
        // A frame not taken in time is a failed write, not a time-out of the kind reads report.
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
        return -1;
    }
    mLastError.store(ERR_NONE, std::memory_order_relaxed);
    return static_cast<int>(written);
}

bool CJTIODevice::waitWritable(int timeoutMs)
{
    return mServerHandle >= 0 || mLink.waitWritable(timeoutMs);
}

void CJTIODevice::shutdown()
{
    mLink.shutdown(false);
}

int CJTIODevice::devctl(uint32_t code, void* data, size_t size)
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = attachedServer();
        if (server == nullptr)
            return EBADF;
        return server->onDevctl(mServerHandle, code, data, size);
    }
    if (!mLink.isOpen()) {
        mLastError.store(ERR_OTHER, std::memory_order_relaxed);
        return EBADF;
    }
    int rc;
    do {
        rc = JTDeviceNode::control(mLink.descriptor(), code, data, size);
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
    mLink.close();
}

bool CJTIODevice::isOpened() const
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        return server != nullptr && server->onIsOpened(mServerHandle);
    }
    return mLink.isOpen();
}

int CJTIODevice::getLastError() const
{
    if (mServerHandle >= 0) {
        IJTIODeviceServer* server = JTIODeviceServerRegistry::serverOf(mServerHandle);
        return server != nullptr ? server->onGetLastError(mServerHandle) : static_cast<int>(ERR_OTHER);
    }
    return mLastError.load(std::memory_order_relaxed);
}
