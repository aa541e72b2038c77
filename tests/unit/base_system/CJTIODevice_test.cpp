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
        bool onOpen(int handle, const char*, int mode) override { open[handle] = mode; return mode != 0; }
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

    struct Registered : ::testing::Test
    {
        void SetUp() override { ASSERT_TRUE(JTIODeviceServerRegistry::registerServer(CJTIODevice::READWRITE, kPath, &server)); }
        void TearDown() override { JTIODeviceServerRegistry::unregisterServer(kPath); }
        static constexpr const char* kPath = "/dev/inproc/echo";
        EchoServer server;
    };

    // A socket node with its accepted peer.
    struct SocketNode : ::testing::Test
    {
        void SetUp() override
        {
            listener = JTDeviceNode::listen("/dev/ipc/test");
            ASSERT_GE(listener, 0) << std::strerror(errno);
            ASSERT_TRUE(device.open("/dev/ipc/test", CJTIODevice::READWRITE));
            peer = accept(listener, nullptr, nullptr);
            ASSERT_GE(peer, 0);
        }
        void TearDown() override
        {
            device.close();
            for (int fd : {peer, listener})
                if (fd >= 0)
                    close(fd);
        }
        TempRoot root;
        int listener = -1;
        int peer = -1;
        CJTIODevice device;
    };
}

TEST_F(Registered, HandlesOfTheServedPathGoToTheServer)
{
    CJTIODevice a, b;
    ASSERT_TRUE(a.open(kPath, CJTIODevice::READWRITE));
    ASSERT_TRUE(b.open(kPath, CJTIODevice::READ));
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
}

TEST_F(Registered, RegistrationRulesAndTheOperatingSystemFallback)
{
    EchoServer other;
    EXPECT_FALSE(JTIODeviceServerRegistry::registerServer(CJTIODevice::READ, kPath, &other)) << "path taken";
    EXPECT_FALSE(JTIODeviceServerRegistry::registerServer(0, "/dev/inproc/none", &other));
    ASSERT_TRUE(JTIODeviceServerRegistry::registerServer(CJTIODevice::READ, "/dev/inproc/ro", &other));

    CJTIODevice device;
    EXPECT_FALSE(device.open("/dev/inproc/ro", CJTIODevice::WRITE));
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(device.getLastError(), CJTIODevice::ERR_OTHER);
    EXPECT_TRUE(other.open.empty());
    EXPECT_TRUE(JTIODeviceServerRegistry::unregisterServer("/dev/inproc/ro"));

    TempRoot root;
    EXPECT_FALSE(device.open("/dev/inproc/ro", CJTIODevice::READ)) << "unserved paths go to the system";
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(device.open(kPath, 4));
    EXPECT_EQ(device.read(nullptr, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SocketNode, ReadHonoursTheThreadsKernelTimeoutOnce)
{
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

    close(peer);
    peer = -1;
    JTOperatingSystem::calculateKernelTimeout(1000);
    EXPECT_EQ(device.read(buffer, sizeof(buffer)), 0);
    EXPECT_EQ(errno, 0) << "a gone peer is not a time-out";
    EXPECT_EQ(device.getLastError(), CJTIODevice::ERR_NONE);
    EXPECT_EQ(device.write("x", 1), -1) << "and writing to it raises no SIGPIPE";
    EXPECT_EQ(device.getLastError(), CJTIODevice::ERR_OTHER);
}

TEST_F(SocketNode, DevctlIsOneRequestAndOneAnswer)
{
    std::thread answering([&] {
        unsigned char request[8];
        ASSERT_EQ(read(peer, request, sizeof(request)), 4);
        EXPECT_EQ(request[0], 0x02);
        EXPECT_EQ(request[3], 0x40);
        const unsigned char answer[] = {0, 0, 0, 0, 3, 0, 1, 0, 0, 0};
        EXPECT_EQ(write(peer, answer, sizeof(answer)), 10);
    });
    uint16_t version[3] = {};
    EXPECT_EQ(device.devctl(0x40060502u, version, sizeof(version)), 0);
    answering.join();
    EXPECT_EQ(version[0] * 100 + version[1] * 10 + version[2], 310);
}
