// Frames over socket nodes and the control request's answer are exercised by the device and trace
// channel tests; here what only the node layer decides.
#include "JTDeviceNode.h"
#include "TempRoot.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

TEST(DeviceNode, RegularFileOpensAsCharacterDeviceAndAnUnansweredControlTimesOut)
{
    TempRoot root;
    std::string path = root.path("dev/plain");
    ASSERT_EQ(JTDeviceNode::makeParentDirs(path.c_str()), 0);
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    fd = JTDeviceNode::open("/dev/plain", O_RDONLY);
    EXPECT_GE(fd, 0);
    close(fd);

    int server = JTDeviceNode::listen("/dev/mv2trace/register");
    ASSERT_GE(server, 0);
    fd = JTDeviceNode::open("/dev/mv2trace/register", O_RDONLY);
    ASSERT_GE(fd, 0);
    unsigned char out[6];
    EXPECT_EQ(JTDeviceNode::control(fd, 0x40060502u, out, sizeof(out), nullptr, 50), ETIMEDOUT);
    close(fd);
    close(server);
}
