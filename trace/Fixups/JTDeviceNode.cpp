#include "JTDeviceNode.h"

#include "JTRootPrefix.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{
bool fillAddress(const char* hostPath, sockaddr_un& addr)
{
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    if (std::strlen(hostPath) >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::strcpy(addr.sun_path, hostPath);
    return true;
}

int connectSocket(const char* hostPath, int flags)
{
    sockaddr_un addr;
    if (!fillAddress(hostPath, addr))
        return -1;
    int type = SOCK_SEQPACKET;
    if (flags & O_CLOEXEC)
        type |= SOCK_CLOEXEC;
    if (flags & O_NONBLOCK)
        type |= SOCK_NONBLOCK;  // a listener with a full backlog then fails with EAGAIN
    int fd = ::socket(AF_UNIX, type, 0);
    if (fd < 0)
        return -1;
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

bool isSocket(int fd)
{
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}
}

int JTDeviceNode::openHost(const char* hostPath, int flags)
{
    if (hostPath == nullptr || *hostPath == '\0') {
        errno = ENOENT;
        return -1;
    }
    struct stat st;
    if (::stat(hostPath, &st) == 0 && S_ISSOCK(st.st_mode))
        return connectSocket(hostPath, flags);
    int fd;
    do {
        fd = ::open(hostPath, flags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int JTDeviceNode::open(const char* platformPath, int flags)
{
    return openHost(JTRootPrefix::resolve(platformPath).c_str(), flags);
}

int JTDeviceNode::control(int fd, uint32_t code, void* out, size_t outSize, size_t* outLen, int timeoutMs)
{
    if (outLen != nullptr)
        *outLen = 0;
    if (!isSocket(fd)) {
        if (::ioctl(fd, static_cast<unsigned long>(code), out) < 0)
            return errno != 0 ? errno : EIO;
        if (outLen != nullptr)
            *outLen = outSize;
        return 0;
    }
    unsigned char request[4] = {static_cast<unsigned char>(code), static_cast<unsigned char>(code >> 8),
                                static_cast<unsigned char>(code >> 16), static_cast<unsigned char>(code >> 24)};
    ssize_t sent;
    do {
        sent = ::send(fd, request, sizeof(request), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent != static_cast<ssize_t>(sizeof(request)))
        return sent < 0 ? errno : EIO;

    pollfd pfd{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&pfd, 1, timeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready == 0)
        return ETIMEDOUT;
    if (ready < 0)
        return errno;

    unsigned char answer[4 + 512];
    ssize_t got;
    do {
        got = ::recv(fd, answer, sizeof(answer), 0);
    } while (got < 0 && errno == EINTR);
    if (got < 0)
        return errno;
    if (got < 4)
        return EPROTO;
    uint32_t status = answer[0] | (answer[1] << 8) | (answer[2] << 16) | (static_cast<uint32_t>(answer[3]) << 24);
    if (status != 0)
        return static_cast<int>(status);
    size_t available = static_cast<size_t>(got) - 4;
    size_t count = available < outSize ? available : outSize;
    if (out != nullptr && count > 0)
        std::memcpy(out, answer + 4, count);
    if (outLen != nullptr)
        *outLen = count;
    return 0;
}

int JTDeviceNode::makeParentDirs(const char* hostPath)
{
    std::string path(hostPath != nullptr ? hostPath : "");
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return 0;
    std::string dir = path.substr(0, slash);
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos == dir.size() || dir[pos] == '/') {
            std::string part = dir.substr(0, pos);
            if (::mkdir(part.c_str(), 0755) < 0 && errno != EEXIST)
                return -1;
        }
    }
    return 0;
}

int JTDeviceNode::listenHost(const char* hostPath, int backlog)
{
    sockaddr_un addr;
    if (hostPath == nullptr || !fillAddress(hostPath, addr))
        return -1;
    if (makeParentDirs(hostPath) < 0)
        return -1;
    ::unlink(hostPath);
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0 || ::listen(fd, backlog) < 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

int JTDeviceNode::listen(const char* platformPath, int backlog)
{
    return listenHost(JTRootPrefix::resolve(platformPath).c_str(), backlog);
}
