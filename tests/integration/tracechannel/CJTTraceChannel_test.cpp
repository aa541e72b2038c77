// The trace channel and trace thread against an in-process trace server that speaks the real
// bytes over real SOCK_SEQPACKET sockets in a temporary CBRADIO_ROOT.
#include "ChildProcess.h"
#include "CJTDefaultBinaryTracePersistence.h"
#include "CJTNullTracePersistence.h"
#include "CJTThreadCtrl.h"
#include "CJTTraceCallback.h"
#include "CJTTraceChannel.h"
#include "CJTTraceHelper.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CJTTraceScopeManager.h"
#include "CTraceThread.h"
#include "JTDeviceNode.h"
#include "JTSyslog.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
using Bytes = std::vector<uint8_t>;

// Answers the version request and "mk:" (making the process node), then records what the
// process writes to its node; all on a thread of its own.
class TestTraceServer
{
public:
    explicit TestTraceServer(uint8_t major = 1, uint8_t minor = 0, uint8_t patch = 0) : mVersion{major, minor, patch}
    {
        mRegister = JTDeviceNode::listen("/dev/mv2trace/register");
        mThread = std::thread([this] { loop(); });
    }
    ~TestTraceServer()
    {
        mStop = true;
        mThread.join();
        for (int fd : {mRegister, mNode.load(), mClient.load()})
            if (fd >= 0)
                close(fd);
    }

    void send(const Bytes& command)
    {
        std::lock_guard<std::mutex> g(mLock);
        EXPECT_EQ(::send(mClient, command.data(), command.size(), MSG_NOSIGNAL), ssize_t(command.size()));
    }
    std::vector<Bytes> records()
    {
        std::lock_guard<std::mutex> g(mLock);
        return mRecords;
    }
    void clearRecords()
    {
        std::lock_guard<std::mutex> g(mLock);
        mRecords.clear();
    }
    std::vector<std::string> requests()
    {
        std::lock_guard<std::mutex> g(mLock);
        return mRequests;
    }
    bool waitFor(const std::function<bool(const std::vector<Bytes>&)>& pred)
    {
        return waitUntil([&] { return pred(records()); }, 3000);
    }
    bool waitForClient()
    {
        return waitUntil([&] { return mClient >= 0; }, 3000);
    }

    std::atomic<bool> paused{false};    // reads no records: the client's sends back up
    std::atomic<bool> makeNodes{true};  // false: acknowledges "mk:" without making the node

private:
    void loop()
    {
        Bytes buffer(70000);
        while (!mStop) {
            const int client = mClient;
            pollfd fds[] = {{mRegister, POLLIN, 0}, {mNode, POLLIN, 0}, {paused ? -1 : client, POLLIN, 0}};
            if (poll(fds, 3, 20) <= 0)
                continue;
            if (fds[0].revents)
                serveRegistration(accept(mRegister, nullptr, nullptr));
            if (fds[1].revents)
                mClient = accept(mNode, nullptr, nullptr);
            if (fds[2].revents) {
                ssize_t n = recv(client, buffer.data(), buffer.size(), 0);
                std::lock_guard<std::mutex> g(mLock);
                if (n > 0) {
                    mRecords.emplace_back(buffer.begin(), buffer.begin() + n);
                } else {
                    close(client);
                    mClient = -1;
                }
            }
        }
    }

    void serveRegistration(int fd)
    {
        char request[256];
        ssize_t n = recv(fd, request, sizeof request, 0);
        if (n == 4) {
            const uint8_t answer[10] = {0, 0, 0, 0, mVersion[0], 0, mVersion[1], 0, mVersion[2], 0};
            ::send(fd, answer, sizeof answer, MSG_NOSIGNAL);
        } else if (n > 3) {
            if (std::string(request, 3) == "mk:" && makeNodes)
                mNode = JTDeviceNode::listen(("/dev/mv2trace/" + std::string(request + 3)).c_str());
            std::lock_guard<std::mutex> g(mLock);
            mRequests.emplace_back(request, size_t(n));
        }
        close(fd);
    }

    uint8_t mVersion[3];
    int mRegister = -1;
    std::atomic<int> mNode{-1};
    std::atomic<int> mClient{-1};
    std::atomic<bool> mStop{false};
    std::mutex mLock;
    std::vector<Bytes> mRecords;
    std::vector<std::string> mRequests;
    std::thread mThread;
};

std::mutex gLogLock;
std::string gLog;
void mirror(unsigned int, const char* line)
{
    std::lock_guard<std::mutex> g(gLogLock);
    gLog += std::string(line) + "\n";
}
bool logged(const std::string& text)
{
    std::lock_guard<std::mutex> g(gLogLock);
    return gLog.find(text) != std::string::npos;
}

Bytes command(uint8_t code, uint32_t p, const Bytes& data = {})
{
    Bytes b(5 + data.size());
    b[0] = code;
    for (int i = 0; i < 4; ++i)
        b[1 + i] = uint8_t(p >> 8 * i);
    std::copy(data.begin(), data.end(), b.begin() + 5);
    return b;
}
size_t countClass(const std::vector<Bytes>& r, uint8_t cls, int sub = -1)
{
    size_t n = 0;
    for (const Bytes& b : r)
        n += b.size() >= 8 && b[0] == cls && (sub < 0 || b[1] == sub);
    return n;
}
uint32_t u32At(const Bytes& b, size_t at)
{
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24;
}
std::string textAt(const Bytes& b, size_t at)
{
    return reinterpret_cast<const char*>(&b.at(at));
}
// Values of the progress steps (class 18, sub-code 1) in arrival order.
std::vector<uint32_t> progressSteps(const std::vector<Bytes>& r)
{
    std::vector<uint32_t> v;
    for (const Bytes& b : r)
        if (b[0] == 18 && b[1] == 1)
            v.push_back(u32At(b, 12));
    return v;
}
std::vector<uint32_t> everyNth(uint32_t count, uint32_t step)
{
    std::vector<uint32_t> v;
    for (uint32_t i = 0; i < count; i += step)
        v.push_back(i);
    return v;
}

CJTTraceScopeDef gsWatched("ITest_CWatched", "run");

int timesTen(int);
CJTTraceCallbackDef gsTimesTen(timesTen, "ITest_timesTen", "multiply by ten");
CJTTraceCallbackParam gsValue(gsTimesTen, "value", CJTTraceCallbackParam::TYPE_INT);
CJTTraceCallbackRetVal gsText(gsTimesTen, "text", CJTTraceCallbackParam::TYPE_STRING);
int timesTen(int)
{
    gsText.returnString(std::string(300, 'z').c_str());
    return gsValue.getInt(0) * 10;
}

class TraceChannelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(mRoot.ok());
        JTSyslog::setMirror(mirror);
        std::lock_guard<std::mutex> g(gLogLock);
        gLog.clear();
    }
    void TearDown() override
    {
        if (mThread && mTid != 0) {
            mThread->stop();
            EXPECT_TRUE(CJTThreadCtrl::join(mTid, 3000));
        }
        mThread.reset();
        mConfig.reset();
        CJTTraceHelper::destroy();  // forget the cached server version
        JTSyslog::setMirror(nullptr);
    }
    void startThread(IJTTracePersistence& persistence = CJTNullTracePersistence::sInstance)
    {
        mConfig.reset(new CTraceThread::CJTConfig(1, mArgv, "ITest", persistence));
        mThread.reset(new CTraceThread(*mConfig));
        mTid = CJTThreadCtrl::startThread(mThread.get(), false, CJTThreadCtrl::DEFAULTPRIORITY,
                                          CJTThreadCtrl::DEFAULTSTACKSIZE);
        ASSERT_NE(mTid, pthread_t(0));
    }

    TempRoot mRoot;
    char mProgram[8] = "itest";
    char* mArgv[2] = {mProgram, nullptr};
    std::unique_ptr<CTraceThread::CJTConfig> mConfig;
    std::unique_ptr<CTraceThread> mThread;
    pthread_t mTid = 0;
};
}

// A server of another major version is refused (the exact log line is checked end to end).
TEST_F(TraceChannelTest, RegistrationChecksTheMajorVersionAndRemovalIsAnnounced)
{
    struct Case
    {
        uint8_t major, minor, patch;
        bool connects;
    };
    for (Case c : {Case{1, 3, 7, true}, Case{2, 0, 0, false}, Case{0, 0, 0, true}}) {
        SCOPED_TRACE(std::to_string(c.major) + "." + std::to_string(c.minor) + "." + std::to_string(c.patch));
        TestTraceServer server(c.major, c.minor, c.patch);
        CJTTraceChannel channel("ITest");
        CJTTraceHelper& helper = CJTTraceHelper::getInstance();
        helper.setChannel(&channel);
        EXPECT_EQ(helper.requestRegister("ITest"), c.connects);
        EXPECT_EQ(channel.isConnected(), c.connects);
        channel.disconnect();
        helper.setChannel(nullptr);
        if (c.connects) {
            EXPECT_TRUE(waitUntil([&] { return server.requests().size() == 2; }, 3000));
            EXPECT_EQ(server.requests(),
                      (std::vector<std::string>{std::string("mk:ITest", 9), std::string("rm:ITest", 9)}));
        }
        EXPECT_EQ(server.requests().empty(), !c.connects);
        CJTTraceHelper::destroy();
    }

    CJTTraceChannel channel("ITest");
    {
        TestTraceServer server;
        ASSERT_TRUE(channel.connect());
    }
    channel.disconnect();
    EXPECT_FALSE(channel.isConnected());
    EXPECT_TRUE(logged("Cannot remove trace device: rm:ITest"));
}

TEST_F(TraceChannelTest, BinaryBlockThatDoesNotLoadIsReportedThenKilled)
{
    TestTraceServer server;
    const std::string block = mRoot.path("var/lib/cbradio/trace/ITest.bin");
    ASSERT_EQ(JTDeviceNode::makeParentDirs(block.c_str()), 0);
    std::ofstream(block) << "\x01\x02";  // fits no number of scopes
    startThread(CJTDefaultBinaryTracePersistence::getInstance());
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 38, 64) == 2; }));
    std::vector<uint32_t> codes;
    for (const Bytes& b : server.records())
        if (b[0] == 38)
            codes.push_back(b[16] | b[17] << 8);
    EXPECT_EQ(codes, (std::vector<uint32_t>{259, 258}));
    EXPECT_NE(0, access(block.c_str(), F_OK));
}

TEST_F(TraceChannelTest, ServesTheCommandTableAndCallbacks)
{
    TestTraceServer server;
    // Enough scopes and callbacks for the every-fiftieth and every-tenth progress steps;
    // definitions live on (indices are not reused).
    static std::vector<CJTTraceScopeDef*> extra;
    while (CJTTraceScopeManager::getInstance().getNumberOfScopes() < 120)
        extra.push_back(new CJTTraceScopeDef("ITest_CExtra", "scope"));
    static std::vector<CJTTraceCallbackDef*> extraCallbacks;
    while (CJTTraceCallbackManager::getInstance().getNumberOfCallbacks() < 150)
        extraCallbacks.push_back(new CJTTraceCallbackDef(nullptr, "ITest_extra", "no function"));
    startThread();
    ASSERT_TRUE(server.waitForClient());

    server.send(command(1, 0));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 23) == 1; }));
    EXPECT_EQ(u32At(server.records().back(), 8), uint32_t(getpid()));
    EXPECT_EQ(textAt(server.records().back(), 15), "ITest");

    uint32_t scopeCount = CJTTraceScopeManager::getInstance().getNumberOfScopes();
    server.clearRecords();
    server.send(command(2, 0));
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>& r) { return countClass(r, 24) == scopeCount; }));
    std::vector<Bytes> list = server.records();
    EXPECT_EQ(countClass({list.at(0)}, 20, 6), 1u);
    EXPECT_EQ(u32At(list.at(1), 12), scopeCount);  // progress start with the count
    EXPECT_EQ(progressSteps(list), everyNth(scopeCount, 50));

    // A filter set through the server (its effect on messages is checked end to end), then the
    // handler list.
    server.send(command(3, gsWatched.getIndex() | 64u << 16));
    ASSERT_TRUE(waitUntil([] { return gsWatched.getFilter() == 64; }, 3000));
    server.clearRecords();
    server.send(command(16, 0));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 45) == 1; }));
    const char body[] = "\x01Trace Client\0\x02Kernel Trace\0\x04Slog\0\x08"
                        "Console";
    const Bytes handlers = server.records().back();
    EXPECT_EQ(Bytes(handlers.begin() + 12, handlers.end()), Bytes(body, body + sizeof body));

    // The callback list.
    uint32_t count = CJTTraceCallbackManager::getInstance().getNumberOfCallbacks();
    server.clearRecords();
    server.send(command(8, 0));
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>& r) { return countClass(r, 26) == count; }));
    EXPECT_EQ(countClass(server.records(), 26, 255), 1u);
    EXPECT_EQ(progressSteps(server.records()), everyNth(count, 10));

    // Call ITest_timesTen with value 4 (row 0): result 40, a return value cut to 252 bytes.
    uint16_t index = 0;
    while (CJTTraceCallbackManager::getInstance().getCallbackDef(index) != &gsTimesTen)
        ++index;
    Bytes data = {uint8_t(index), uint8_t(index >> 8), 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0};
    server.clearRecords();
    server.send(command(9, uint32_t(data.size()), data));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 30) == 1; }));
    std::vector<Bytes> r = server.records();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0][0], 38);  // the server is told of the cut string
    EXPECT_EQ(textAt(r[0], 20), "Callback string retval truncated");
    EXPECT_EQ(r[1][0], 31);
    EXPECT_EQ(r[1].size(), 8u + 4u + 253u);
    EXPECT_EQ(r[1][8], 1);  // return row: last parameter row + 1
    EXPECT_EQ(r[1][10], 0x34);
    EXPECT_EQ(u32At(r[2], 8), uint32_t(getpid()));  // then the row, the cookie and the result
    const Bytes result = {uint8_t(index), uint8_t(index >> 8), 0, 0, 0x34, 0x12, 0, 0, 40, 0, 0, 0};
    EXPECT_EQ(Bytes(r[2].begin() + 12, r[2].end()), result);

    // A call shorter than it says, then an ordinary command: both served, nothing breaks.
    server.clearRecords();
    server.send(command(9, 3, {0, 0}));
    server.send(command(7, 0));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 20, 5) == 1; }));
}

TEST_F(TraceChannelTest, ServerThatAcknowledgesWithoutANodeIsTakenAsAbsent)
{
    TestTraceServer server;
    server.makeNodes = false;
    startThread();
    EXPECT_TRUE(CJTThreadCtrl::join(mTid, 1000)) << "nothing to serve: the thread ends at once";
    mTid = 0;
    EXPECT_FALSE(mConfig->getChannel()->isConnected());
    EXPECT_TRUE(logged("Cannot open trace device"));
    EXPECT_EQ(server.requests().at(0), std::string("mk:ITest", 9));
}

TEST_F(TraceChannelTest, ServerThatStopsReadingCostsDroppedRecordsOnly)
{
    TestTraceServer server;
    startThread();
    ASSERT_TRUE(server.waitForClient());
    gsWatched.setMedia(1);
    gsWatched.setFilter(64);
    CJTTraceChannel& channel = *mConfig->getChannel();
    auto flood = [&] {
        CJTTraceScope scope(gsWatched);
        for (int i = 0; i < 5000; ++i)
            scope.sendFormattedMessage("record %d", i);
    };

    server.paused = true;
    auto start = std::chrono::steady_clock::now();
    flood();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "no traced thread waits";
    uint32_t dropped = channel.getDroppedCount();
    EXPECT_GT(dropped, 0u);
    EXPECT_TRUE(channel.isConnected()) << "a slow server is no broken channel";

    server.paused = false;
    ASSERT_TRUE(waitUntil(
        [&] {
            size_t before = server.records().size();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            return before > 0 && server.records().size() == before;
        },
        3000));
    server.clearRecords();
    CJTTraceScope(gsWatched).sendFormattedMessage("after");
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 17) == 1; }));
    std::vector<Bytes> r = server.records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(countClass({r[0]}, 38, 32), 1u) << "one warning first";
    EXPECT_EQ(textAt(r[0], 20), std::to_string(dropped) + " trace records dropped");
    EXPECT_EQ(textAt(r[1], 24), "after");

    // Stopping the thread and destroying the channel while the server reads nothing.
    server.paused = true;
    flood();
    start = std::chrono::steady_clock::now();
    mThread->stop();
    EXPECT_TRUE(CJTThreadCtrl::join(mTid, 1000)) << "the stop wakes the thread's wait";
    mThread.reset();
    mConfig.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}
