#include "CDevIpcChannel.h"

#include "JTDeviceNode.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

CDevIpcChannel::CDevIpcChannel() : mDescriptor(-1), mPath(), mIsSocket(false)
{
}

CDevIpcChannel::CDevIpcChannel(const char* path) : mDescriptor(-1), mPath(), mIsSocket(false)
{
    if (path != nullptr)
        std::snprintf(mPath, sizeof(mPath), "%s", path);
}

CDevIpcChannel::~CDevIpcChannel()
{
    if (mDescriptor != -1)
        ::close(mDescriptor);
}

int CDevIpcChannel::openChannel(int flags)
{
    mDescriptor = JTDeviceNode::open(mPath, flags | O_CLOEXEC);
    if (mDescriptor < 0) {
        mDescriptor = -1;
        std::fprintf(stderr, "\n[CBRadio] Error opening %s!\n", mPath);
        std::fflush(stderr);
        return -1;
    }
    struct stat st;
    mIsSocket = ::fstat(mDescriptor, &st) == 0 && S_ISSOCK(st.st_mode);
    return 0;
}

int CDevIpcChannel::readData(unsigned char* buffer, unsigned int length)
{
    ssize_t result;
    do {
        result = ::read(mDescriptor, buffer, length);
    } while (errno == EINTR);
    if (result >= 0)
        return static_cast<int>(result);
    std::fprintf(stderr, "\n[CBRadio] Msg reading failed!\n");
    return -1;
}

int CDevIpcChannel::writeData(unsigned char* buffer, unsigned int length)
{
    const ssize_t result = mIsSocket ? ::send(mDescriptor, buffer, length, MSG_NOSIGNAL)
                                     : ::write(mDescriptor, buffer, length);
    if (result >= 0)
        return static_cast<int>(result);
    if (errno == EINTR)
        std::fprintf(stderr, "\n[CBRadio] Msg sending failed!\n");
    return -1;
}
