#include "CJTIODevice.h"
#include "JTDeviceNode.h"
#include "JTOperatingSystem.h"
#include "TempRoot.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{
// Echoes each written frame back on the next read of the same handle, and tells what it was asked.
struct EchoServer : IJTIODeviceServer
{
    bool onOpen(int handle, const char*, int mode) override
    {
        open[handle] = mode;
        return mode != 0;
    }
    int onRead(int handle, void* buffer, size_t length, int64_t timeoutNs) override
    {
        lastTimeout = timeoutNs;
        size_t count = std::min(length, frames[handle].size());
        std::memcpy(buffer, frames[handle].data(), count);
        frames[handle].clear();
        return static_cast<int>(count);
    }
    int onWrite(int handle, const void* buffer, size_t length) override
    {
        frames[handle].assign(static_cast<const char*>(buffer), length);
        return static_cast<int>(length);
    }
    int onDevctl(int, uint32_t code, void* data, size_t size) override
    {
        std::memcpy(data, &code, std::min(size, sizeof(code)));
        return 0;
    }
    void onClose(int handle) override { open.erase(handle); }
    bool onIsOpened(int handle) override { return open.count(handle) != 0; }
    int onGetLastError(int) override { return 42; }

    std::map<int, int> open;
    std::map<int, std::string> frames;
    int64_t lastTimeout = 0;
};
}

TEST(CJTIODevice, HandlesOfAServedPathGoToItsServerOthersToTheSystem)
{
    const char* const path = "/dev/inproc/echo";
    EchoServer server, other;
    ASSERT_TRUE(JTIODeviceServerRegistry::registerServer(CJTIODevice::READWRITE, path, &server));
    CJTIODevice a, b;
    ASSERT_TRUE(a.open(path, CJTIODevice::READWRITE));
    ASSERT_TRUE(b.open(path, CJTIODevice::READ));
    EXPECT_EQ(server.open.size(), 2u);
    EXPECT_EQ(a.write("ping", 4), 4);
    char buffer[16] = {};
    EXPECT_EQ(b.read(buffer, sizeof(buffer)), 0) << "each handle has its own frames";
    EXPECT_EQ(server.lastTimeout, -1);
    JTOperatingSystem::calculateKernelTimeout(7);
    EXPECT_EQ(a.read(buffer, sizeof(buffer)), 4);
    EXPECT_STREQ(buffer, "ping");
    EXPECT_EQ(server.lastTimeout, 7000000) << "the server is told the caller's time-out";
    uint32_t answer = 0;
    EXPECT_EQ(a.devctl(0x40060502u, &answer, sizeof(answer)), 0);
    EXPECT_EQ(answer, 0x40060502u);
    EXPECT_EQ(a.getLastError(), 42);
    a.close();
    EXPECT_FALSE(a.isOpened());
    EXPECT_TRUE(b.isOpened());
    EXPECT_EQ(server.open.size(), 1u);

    EXPECT_FALSE(JTIODeviceServerRegistry::registerServer(CJTIODevice::READ, path, &other)) << "path taken";
    EXPECT_FALSE(JTIODeviceServerRegistry::registerServer(0, "/dev/inproc/none", &other));
    ASSERT_TRUE(JTIODeviceServerRegistry::registerServer(CJTIODevice::READ, "/dev/inproc/ro", &other));
    EXPECT_FALSE(a.open("/dev/inproc/ro", CJTIODevice::WRITE));
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(a.getLastError(), CJTIODevice::ERR_OTHER);
    EXPECT_TRUE(other.open.empty());
    EXPECT_TRUE(JTIODeviceServerRegistry::unregisterServer("/dev/inproc/ro"));
    EXPECT_FALSE(a.open(path, 4));
    EXPECT_TRUE(JTIODeviceServerRegistry::unregisterServer(path));

    TempRoot root;
    EXPECT_FALSE(a.open("/dev/inproc/ro", CJTIODevice::READ)) << "unserved paths go to the system";
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(a.read(nullptr, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

// The version request over a socket node is checked by the trace channel's registration; a gone
// peer (read as an error, not a time-out; no SIGPIPE on writing) by the e2e trace server tests.
TEST(CJTIODevice, SocketReadHonoursTheThreadsKernelTimeoutOnce)
{
    TempRoot root;
    int listener = JTDeviceNode::listen("/dev/ipc/test");
    ASSERT_GE(listener, 0) << std::strerror(errno);
    CJTIODevice device;
    ASSERT_TRUE(device.open("/dev/ipc/test", CJTIODevice::READWRITE));
    int peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    char buffer[128];
    JTOperatingSystem::calculateKernelTimeout(20);
    EXPECT_EQ(device.read(buffer, sizeof(buffer)), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(device.getLastError(), CJTIODevice::ERR_TIMEOUT);

    std::thread late([&] {
        JTOperatingSystem::sleepMs(30);
        EXPECT_EQ(write(peer, "\x02\x01\x05", 3), 3);
    });
    EXPECT_EQ(device.read(buffer, sizeof(buffer)), 3) << "the time-out was used up: this read waits";
    EXPECT_EQ(device.getLastError(), CJTIODevice::ERR_NONE);
    late.join();
    device.close();
    close(peer);
    close(listener);
}
