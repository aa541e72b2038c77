#include "CDevIpcChannel.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

CDevIpcChannel::CDevIpcChannel() : mPath() {}

CDevIpcChannel::CDevIpcChannel(const char* path) : mPath()
{
    if (path != nullptr)
        std::snprintf(mPath, sizeof(mPath), "%s", path);
}

CDevIpcChannel::~CDevIpcChannel()
{
    mLink.close();
}

int CDevIpcChannel::openChannel(int flags)
{
    if (mLink.open(mPath, flags | O_CLOEXEC, true) != 0) {
        std::fprintf(stderr, "\n[CBRadio] Error opening %s!\n", mPath);
        std::fflush(stderr);
        return -1;
    }
    return 0;
}

int CDevIpcChannel::readData(unsigned char* buffer, unsigned int length)
{
    ssize_t result;
    do {
        result = mLink.read(buffer, length);
    } while (errno == EINTR);
    if (result >= 0)
        return static_cast<int>(result);
    std::fprintf(stderr, "\n[CBRadio] Msg reading failed!\n");
    return -1;
}

int CDevIpcChannel::writeData(unsigned char* buffer, unsigned int length)
{
    const ssize_t result = mLink.write(buffer, length);
    if (result >= 0)
        return static_cast<int>(result);
    if (errno == EINTR)
        std::fprintf(stderr, "\n[CBRadio] Msg sending failed!\n");
    return -1;
}

void CDevIpcChannel::wake()
{
    mLink.shutdown();
}
