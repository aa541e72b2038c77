#include "JTDeviceNode.h"
#include "TempRoot.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{
    class DeviceNode : public ::testing::Test
    {
    protected:
        TempRoot root;
    };
}

TEST_F(DeviceNode, SocketNodeCarriesWholeFramesBothWays)
{
    int server = JTDeviceNode::listen("/dev/ipc/ch6");
    ASSERT_GE(server, 0) << std::strerror(errno);
    int client = JTDeviceNode::open("/dev/ipc/ch6", O_RDWR | O_CLOEXEC);
    ASSERT_GE(client, 0) << std::strerror(errno);
    int peer = accept(server, nullptr, nullptr);
    ASSERT_GE(peer, 0);

    const unsigned char frame[] = {0x02, 0x01, 0x05};
    ASSERT_EQ(write(client, frame, 3), 3);
    ASSERT_EQ(write(client, frame, 2), 2);
    unsigned char buf[128];
    EXPECT_EQ(read(peer, buf, sizeof(buf)), 3);
    EXPECT_EQ(read(peer, buf, sizeof(buf)), 2);

    close(peer);
    EXPECT_EQ(read(client, buf, sizeof(buf)), 0) << "a closed peer reads as 0 bytes";
    close(client);
    close(server);
}

TEST_F(DeviceNode, MissingNodeFailsWithErrno)
{
    errno = 0;
    EXPECT_EQ(JTDeviceNode::open("/dev/ipc/ch6", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(DeviceNode, RegularFileOpensAsCharacterDevice)
{
    std::string path = root.path("dev/plain");
    ASSERT_EQ(JTDeviceNode::makeParentDirs(path.c_str()), 0);
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    fd = JTDeviceNode::open("/dev/plain", O_RDONLY);
    EXPECT_GE(fd, 0);
    close(fd);
}

TEST_F(DeviceNode, ControlRequestOnSocketGetsStatusAndBytes)
{
    int server = JTDeviceNode::listen("/dev/mv2trace/register");
    ASSERT_GE(server, 0);
    std::thread serve([server] {
        int peer = accept(server, nullptr, nullptr);
        unsigned char req[16];
        ssize_t n = recv(peer, req, sizeof(req), 0);
        uint32_t code = req[0] | req[1] << 8 | req[2] << 16 | uint32_t(req[3]) << 24;
        if (n == 4 && code == 0x40060502u) {
            const unsigned char answer[] = {0, 0, 0, 0, 1, 0, 2, 0, 3, 0};
            send(peer, answer, sizeof(answer), 0);
        } else {
            const unsigned char answer[] = {EINVAL, 0, 0, 0};
            send(peer, answer, sizeof(answer), 0);
        }
        close(peer);
    });
    int fd = JTDeviceNode::open("/dev/mv2trace/register", O_RDONLY);
    ASSERT_GE(fd, 0);
    unsigned char out[6] = {};
    size_t len = 0;
    EXPECT_EQ(JTDeviceNode::control(fd, 0x40060502u, out, sizeof(out), &len), 0);
    EXPECT_EQ(len, 6u);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[2], 2);
    EXPECT_EQ(out[4], 3);
    serve.join();
    close(fd);
    close(server);
}

TEST_F(DeviceNode, ControlWithoutAnswerTimesOut)
{
    int server = JTDeviceNode::listen("/dev/mv2trace/register");
    ASSERT_GE(server, 0);
    int fd = JTDeviceNode::open("/dev/mv2trace/register", O_RDONLY);
    ASSERT_GE(fd, 0);
    unsigned char out[6];
    EXPECT_EQ(JTDeviceNode::control(fd, 0x40060502u, out, sizeof(out), nullptr, 50), ETIMEDOUT);
    close(fd);
    close(server);
}
