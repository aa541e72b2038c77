// V850Peer: the microcontroller's end of /dev/ipc/ch6 for tests. Exports a private CBRADIO_ROOT,
// listens on the node there as a SOCK_SEQPACKET socket, accepts the service's connection and
// reads or writes single frames with a deadline.
#ifndef V850PEER_H
#define V850PEER_H

#include "JTDeviceNode.h"
#include "TempRoot.h"

#include <cstdint>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

class V850Peer
{
public:
    typedef std::vector<uint8_t> Frame;

    ~V850Peer()
    {
        closeConnection();
        if (mListenFd >= 0)
            ::close(mListenFd);
    }

    const std::string& root() const { return mRoot.path(); }

    bool listen() { return (mListenFd = JTDeviceNode::listen("/dev/ipc/ch6")) >= 0; }

    bool accept(int timeoutMs = 2000)
    {
        pollfd p = {mListenFd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) != 1)
            return false;
        mFd = ::accept(mListenFd, nullptr, nullptr);
        return mFd >= 0;
    }

    // The next frame, or an empty one when none arrives in time.
    Frame read(int timeoutMs = 2000)
    {
        pollfd p = {mFd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) != 1)
            return Frame();
        uint8_t buffer[256];
        ssize_t n = ::recv(mFd, buffer, sizeof(buffer), 0);
        return n > 0 ? Frame(buffer, buffer + n) : Frame();
    }

    bool write(const Frame& frame)
    {
        return ::send(mFd, frame.data(), frame.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size());
    }

    void closeConnection()
    {
        if (mFd >= 0)
            ::close(mFd);
        mFd = -1;
    }

private:
    TempRoot mRoot;
    int mListenFd = -1;
    int mFd = -1;
};

#endif
