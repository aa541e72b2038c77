// The platform layer on real sockets and files in a temporary root: device links that lose and
// regain their peer or meet one that does not read, what only the node layer decides, and the
// root prefix. Frames over socket nodes and the control answer are exercised by the trace channel.
#include "CJTDeviceLink.h"
#include "ChildProcess.h"
#include "JTDeviceNode.h"
#include "JTOperatingSystem.h"
#include "JTRootPrefix.h"
#include "JTSyslog.h"
#include "TempRoot.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
const char* const kNode = "/dev/ipc/ch6";

std::mutex gLogLock;
std::vector<std::pair<unsigned, std::string>> gLog;
void mirror(unsigned severity, const char* line)
{
    std::lock_guard<std::mutex> guard(gLogLock);
    gLog.emplace_back(severity, line);
}

uint64_t msSince(uint64_t startNs)
{
    return (JTOperatingSystem::getMonotonicTime() - startNs) / 1000000;
}

// Voluntary context switches of one thread of this process: each sleep that ends is one.
long wakeUps(pid_t tid)
{
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
            return std::stol(line.substr(line.find(':') + 1));
    return -1;
}

struct DeviceLink : ::testing::Test
{
    void SetUp() override
    {
        listener = JTDeviceNode::listen(kNode);
        ASSERT_GE(listener, 0) << std::strerror(errno);
        ASSERT_EQ(link.open(kNode, O_RDWR | O_CLOEXEC, true), 0) << std::strerror(errno);
        peer = accept(listener, nullptr, nullptr);
        ASSERT_GE(peer, 0);
    }
    void TearDown() override
    {
        JTSyslog::setMirror(nullptr);
        for (int fd : {peer, listener})
            if (fd >= 0)
                close(fd);
    }
    TempRoot root;
    int listener = -1;
    int peer = -1;
    CJTDeviceLink link;
};
}

TEST_F(DeviceLink, PeerHangUpIsWaitedOutQuietlyAndTheNextConnectionCarriesOn)
{
    gLog.clear();
    JTSyslog::setMirror(mirror);
    std::atomic<pid_t> readerTid{0};
    std::atomic<ssize_t> got{-2};
    unsigned char frame[128] = {};
    std::thread reader([&] {
        readerTid = static_cast<pid_t>(JTOperatingSystem::getCurrentTID());
        got = link.read(frame, sizeof frame);
    });

    // The simulator goes away: its socket file stays behind, refusing connections.
    close(peer);
    close(listener);
    peer = listener = -1;
    ASSERT_TRUE(waitUntil([&] { return link.isDown(); }, 2000));
    uint64_t start = JTOperatingSystem::getMonotonicTime();
    EXPECT_EQ(link.write("\x02\x01\x05", 3), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_LT(msSince(start), 100u) << "a write while the link is down fails at once";

    long before = wakeUps(readerTid);
    JTOperatingSystem::sleepMs(1000);
    long during = wakeUps(readerTid) - before;
    EXPECT_LE(during, 15) << "about ten reconnection attempts a second, no spinning";
    EXPECT_GE(during, 5);
    EXPECT_EQ(got.load(), -2) << "the read waits for the link to return";

    listener = JTDeviceNode::listen(kNode);
    ASSERT_GE(listener, 0);
    peer = accept(listener, nullptr, nullptr);
    ASSERT_GE(peer, 0);
    ASSERT_EQ(write(peer, "\x01\x01\x01", 3), 3);
    reader.join();
    ASSERT_EQ(got.load(), 3) << "the first frame of the new connection";
    EXPECT_EQ(std::memcmp(frame, "\x01\x01\x01", 3), 0);

    ASSERT_EQ(link.write("\x02\x01\x05", 3), 3);
    unsigned char buf[16];
    EXPECT_EQ(read(peer, buf, sizeof buf), 3) << "writes go to the new connection";

    JTSyslog::setMirror(nullptr);
    std::lock_guard<std::mutex> guard(gLogLock);
    ASSERT_EQ(gLog.size(), 2u) << "loss and return are logged once each";
    EXPECT_EQ(gLog[0].first, 3u);
    EXPECT_NE(gLog[0].second.find("/dev/ipc/ch6"), std::string::npos);
    EXPECT_EQ(gLog[1].first, 5u);
}

TEST_F(DeviceLink, WritesToAPeerThatDoesNotReadFailWithinASecondAndShutdownReleasesEveryWait)
{
    char frame[100] = {};
    int written = 0;
    while (link.write(frame, sizeof frame, 0) == static_cast<ssize_t>(sizeof frame))
        ASSERT_LT(++written, 100000);
    EXPECT_EQ(errno, EAGAIN) << "a try that the node cannot take at once";

    uint64_t start = JTOperatingSystem::getMonotonicTime();
    EXPECT_EQ(link.write(frame, sizeof frame), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(msSince(start), 900u);
    EXPECT_LT(msSince(start), 3000u);

    std::atomic<int> readErrno{0}, writeErrno{0};
    std::thread reader([&] {
        char buf[16];
        EXPECT_EQ(link.read(buf, sizeof buf), 0);
        readErrno = errno;
    });
    std::thread writer([&] {
        EXPECT_EQ(link.write(frame, sizeof frame, 10000), -1);
        writeErrno = errno;
    });
    JTOperatingSystem::sleepMs(50);
    start = JTOperatingSystem::getMonotonicTime();
    link.shutdown();
    reader.join();
    writer.join();
    EXPECT_LT(msSince(start), 500u);
    EXPECT_EQ(readErrno.load(), ECANCELED);
    EXPECT_EQ(writeErrno.load(), ECANCELED);
}

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

TEST(RootPrefix, AbsolutePathsGoUnderAnAbsolutePrefix)
{
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    struct Case
    {
        const char* root;
        const char* path;
        std::string resolved;
    };
    // Unset or empty changes nothing; relative paths are not platform paths and stay as given.
    const Case cases[] = {
        {nullptr, "/dev/ipc/ch6", "/dev/ipc/ch6"},
        {"", "/tmp/envars.sh", "/tmp/envars.sh"},
        {"", nullptr, ""},
        {"sim/root", "/dev/ipc/ch6", std::string(cwd) + "/sim/root/dev/ipc/ch6"},
        {"/srv/hu1", "trace.cfg", "trace.cfg"},
        {"/srv/hu1//", "/dev/mv2trace/register", "/srv/hu1/dev/mv2trace/register"},
    };
    for (const Case& c : cases) {
        if (c.root)
            setenv("CBRADIO_ROOT", c.root, 1);
        else
            unsetenv("CBRADIO_ROOT");
        JTRootPrefix::reload();
        EXPECT_EQ(JTRootPrefix::resolve(c.path), c.resolved) << (c.root ? c.root : "(unset)");
    }
    EXPECT_EQ(JTRootPrefix::get(), "/srv/hu1");
    unsetenv("CBRADIO_ROOT");
    JTRootPrefix::reload();
}
