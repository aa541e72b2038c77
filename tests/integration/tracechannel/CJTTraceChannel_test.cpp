// The trace channel and trace thread against an in-process trace server that speaks the real
// bytes over real SOCK_SEQPACKET sockets in a temporary CBRADIO_ROOT.
#include "CJTByteStream.h"
#include "ChildProcess.h"
#include "CJTNullTracePersistence.h"
#include "CJTThreadCtrl.h"
#include "CJTTraceCallback.h"
#include "CJTTraceChannel.h"
#include "CJTTraceHelper.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CJTTraceScopeManager.h"
#include "CTraceThread.h"
#include "IJTTracePersistence.h"
#include "JTDeviceNode.h"
#include "JTRootPrefix.h"
#include "JTSyslog.h"
#include "TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
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

    // Registration, version answer, one process node and its records, on a thread of its own.
    class TestTraceServer
    {
    public:
        TestTraceServer(uint16_t major, uint16_t minor, uint16_t patch) : mVersion{major, minor, patch}
        {
            mRegister = JTDeviceNode::listen("/dev/mv2trace/register");
            mThread = std::thread([this] { loop(); });
        }
        ~TestTraceServer()
        {
            mStop = true;
            mThread.join();
            for (int fd : {mRegister, mNode, mClient})
                if (fd >= 0)
                    close(fd);
        }

        bool send(const Bytes& command)
        {
            std::lock_guard<std::mutex> g(mLock);
            return mClient >= 0 && ::send(mClient, command.data(), command.size(), MSG_NOSIGNAL) == ssize_t(command.size());
        }
        void dropClient()
        {
            std::lock_guard<std::mutex> g(mLock);
            if (mClient >= 0)
                close(mClient);
            mClient = -1;
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
        // A paused server reads no records (its client's sends back up); registration goes on.
        void pause(bool paused) { mPaused = paused; }
        // Acknowledge "mk:" without making the node.
        void makeNodes(bool make) { mMakeNodes = make; }
        bool hasClient()
        {
            std::lock_guard<std::mutex> g(mLock);
            return mClient >= 0;
        }
        // Waits until pred holds over the records received so far.
        bool waitFor(const std::function<bool(const std::vector<Bytes>&)>& pred, int timeoutMs = 3000)
        {
            return waitUntil([&] { return pred(records()); }, timeoutMs);
        }

    private:
        void loop()
        {
            while (!mStop)
            {
                std::vector<pollfd> fds = {{mRegister, POLLIN, 0}};
                int node, client;
                {
                    std::lock_guard<std::mutex> g(mLock);
                    node = mNode;
                    client = mClient;
                }
                if (node >= 0)
                    fds.push_back({node, POLLIN, 0});
                if (client >= 0 && !mPaused)
                    fds.push_back({client, POLLIN, 0});
                if (poll(fds.data(), fds.size(), 20) <= 0)
                    continue;
                for (const pollfd& p : fds)
                {
                    if (!p.revents)
                        continue;
                    if (p.fd == mRegister)
                        serveRegistration(accept(mRegister, nullptr, nullptr));
                    else if (p.fd == node)
                    {
                        int fd = accept(node, nullptr, nullptr);
                        std::lock_guard<std::mutex> g(mLock);
                        mClient = fd;
                    }
                    else if (p.fd == client)
                    {
                        uint8_t buf[70000];
                        ssize_t n = recv(client, buf, sizeof buf, 0);
                        std::lock_guard<std::mutex> g(mLock);
                        if (n > 0)
                            mRecords.emplace_back(buf, buf + n);
                        else if (mClient == client)
                        {
                            close(mClient);
                            mClient = -1;
                        }
                    }
                }
            }
        }

        void serveRegistration(int fd)
        {
            uint8_t buf[256];
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n == 4)
            {
                uint8_t answer[10] = {0, 0, 0, 0};
                for (int i = 0; i < 3; ++i)
                {
                    answer[4 + 2 * i] = uint8_t(mVersion[i]);
                    answer[5 + 2 * i] = uint8_t(mVersion[i] >> 8);
                }
                ::send(fd, answer, sizeof answer, MSG_NOSIGNAL);
            }
            else if (n > 3)
            {
                std::string request(reinterpret_cast<char*>(buf), size_t(n));
                if (request.compare(0, 3, "mk:") == 0 && mMakeNodes)
                {
                    int node = JTDeviceNode::listen(("/dev/mv2trace/" + std::string(request.c_str() + 3)).c_str());
                    std::lock_guard<std::mutex> g(mLock);
                    mNode = node;
                }
                std::lock_guard<std::mutex> g(mLock);
                mRequests.push_back(request);
            }
            close(fd);
        }

        uint16_t mVersion[3];
        int mRegister = -1;
        int mNode = -1;
        int mClient = -1;
        std::atomic<bool> mStop{false};
        std::atomic<bool> mPaused{false};
        std::atomic<bool> mMakeNodes{true};
        std::mutex mLock;
        std::vector<Bytes> mRecords;
        std::vector<std::string> mRequests;
        std::thread mThread;
    };

    std::mutex gLogLock;
    std::vector<std::string> gLog;
    void mirror(unsigned int, const char* line)
    {
        std::lock_guard<std::mutex> g(gLogLock);
        gLog.push_back(line);
    }
    bool logged(const std::string& text)
    {
        std::lock_guard<std::mutex> g(gLogLock);
        for (const std::string& l : gLog)
            if (l.find(text) != std::string::npos)
                return true;
        return false;
    }

    Bytes command(uint8_t code, uint32_t p, const Bytes& data = {})
    {
        Bytes b;
        b.reserve(5 + data.size());
        for (uint8_t x : {code, uint8_t(p), uint8_t(p >> 8), uint8_t(p >> 16), uint8_t(p >> 24)})
            b.push_back(x);
        for (uint8_t x : data)
            b.push_back(x);
        return b;
    }
    size_t countClass(const std::vector<Bytes>& r, uint8_t cls, int sub = -1)
    {
        size_t n = 0;
        for (const Bytes& b : r)
            n += b.size() >= 8 && b[0] == cls && (sub < 0 || b[1] == sub);
        return n;
    }
    uint32_t u32At(const Bytes& b, size_t at) { return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24; }
    // Values of the progress steps (class 18, sub-code 1) in arrival order.
    std::vector<uint32_t> progressSteps(const std::vector<Bytes>& r)
    {
        std::vector<uint32_t> v;
        for (const Bytes& b : r)
            if (b[0] == 18 && b[1] == 1)
                v.push_back(u32At(b, 12));
        return v;
    }

    CJTTraceScopeDef gsWatched("ITest_CWatched", "run");

    // Hands out one fixed block and counts removals.
    class BlockPersistence : public IJTTracePersistence
    {
    public:
        void load(const char*, CJTByteStream& data) override { data.doWrite(block.data(), uint32_t(block.size())); }
        void store(const char*, CJTByteStream&) override {}
        void kill(const char*) override
        {
            ++kills;
            block.clear();
        }
        bool isKillRequired() const override { return false; }

        Bytes block;
        int kills = 0;
    };

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
            stopThread();
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
        void stopThread()
        {
            if (!mThread)
                return;
            mThread->stop();
            EXPECT_TRUE(CJTThreadCtrl::join(mTid, 3000));
            mThread.reset();
            mConfig.reset();
        }

        TempRoot mRoot;
        char mProgram[8] = "itest";
        char* mArgv[2] = {mProgram, nullptr};
        std::unique_ptr<CTraceThread::CJTConfig> mConfig;
        std::unique_ptr<CTraceThread> mThread;
        pthread_t mTid = 0;
    };
}

TEST_F(TraceChannelTest, VersionCheck)
{
    struct Case { uint16_t major, minor, patch; bool connects; };
    for (Case c : {Case{1, 3, 7, true}, Case{2, 0, 0, false}, Case{0, 0, 0, true}})
    {
        SCOPED_TRACE(std::to_string(c.major) + "." + std::to_string(c.minor) + "." + std::to_string(c.patch));
        TestTraceServer server(c.major, c.minor, c.patch);
        CJTTraceChannel channel("ITest");
        CJTTraceHelper& helper = CJTTraceHelper::getInstance();
        helper.setChannel(&channel);
        EXPECT_EQ(helper.requestRegister("ITest"), c.connects);
        EXPECT_EQ(channel.isConnected(), c.connects);
        EXPECT_EQ(server.requests().size(), c.connects ? 1u : 0u);
        if (!c.connects)
        {
            EXPECT_TRUE(logged("Cannot use trace server: version is '2.0.0', app requires '1.0.0'. Please update!"));
        }
        channel.disconnect();
        helper.setChannel(nullptr);
        if (c.connects)
        {
            EXPECT_TRUE(server.waitFor([&](const std::vector<Bytes>&) { return server.requests().size() == 2; }));
            EXPECT_EQ(server.requests().back(), std::string("rm:ITest", 9));
        }
        CJTTraceHelper::destroy();
    }
}

TEST_F(TraceChannelTest, RemovalIsLoggedWhenTheServerIsGone)
{
    CJTTraceChannel channel("ITest");
    {
        TestTraceServer server(1, 0, 0);
        ASSERT_TRUE(channel.connect());
    }
    channel.disconnect();
    EXPECT_FALSE(channel.isConnected());
    EXPECT_TRUE(logged("Cannot remove trace device: rm:ITest"));
}

TEST_F(TraceChannelTest, BinaryBlockThatDoesNotLoadIsReportedThenKilled)
{
    TestTraceServer server(1, 0, 0);
    BlockPersistence store;
    store.block = {1, 2};  // fits no number of scopes
    startThread(store);
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 38, 64) == 2; }));
    std::vector<uint32_t> codes;
    for (const Bytes& b : server.records())
        if (b[0] == 38)
            codes.push_back(b[16] | b[17] << 8);
    EXPECT_EQ(codes, (std::vector<uint32_t>{259, 258}));
    EXPECT_EQ(store.kills, 1);
}

TEST_F(TraceChannelTest, ServesTheCommandTable)
{
    TestTraceServer server(1, 0, 0);
    // Enough scopes for the every-fiftieth progress step; definitions live on (indices are not reused).
    static std::vector<CJTTraceScopeDef*> extra;
    while (CJTTraceScopeManager::getInstance().getNumberOfScopes() < 120)
        extra.push_back(new CJTTraceScopeDef("ITest_CExtra", "scope"));
    startThread();
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>&) { return server.hasClient(); }));
    EXPECT_EQ(server.requests().at(0), std::string("mk:ITest", 9));

    server.send(command(1, 0));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 23) == 1; }));
    Bytes info = server.records().back();
    EXPECT_EQ(u32At(info, 8), uint32_t(getpid()));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&info[15])), "ITest");

    uint32_t scopeCount = CJTTraceScopeManager::getInstance().getNumberOfScopes();
    server.clearRecords();
    server.send(command(2, 0));
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>& r) { return countClass(r, 24) == scopeCount; }));
    std::vector<Bytes> list = server.records();
    EXPECT_EQ(list.at(0)[0], 20);
    EXPECT_EQ(list.at(0)[1], 6);
    EXPECT_EQ(u32At(list.at(1), 12), scopeCount);  // progress start with the count
    std::vector<uint32_t> expectedSteps;
    for (uint32_t i = 0; i < scopeCount; i += 50)
        expectedSteps.push_back(i);
    EXPECT_EQ(progressSteps(list), expectedSteps);

    // A filter set through the server makes the next message of that scope arrive.
    server.clearRecords();
    gsWatched.setMedia(1);
    server.send(command(3, gsWatched.getIndex() | 64u << 16));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>&) { return gsWatched.getFilter() == 64; }));
    {
        CJTTraceScope scope(gsWatched);
        scope.sendFormattedMessage("value %d", 7);
    }
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 17, 64) == 1; }));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&server.records().back()[24])), "value 7");

    server.clearRecords();
    server.send(command(16, 0));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 45) == 1; }));
    Bytes handlers = server.records().back();
    Bytes expectedBody = {1};
    for (const char* s : {"Trace Client", "\x02Kernel Trace", "\x04Slog", "\x08" "Console"})
        expectedBody.insert(expectedBody.end(), s, s + strlen(s) + 1);
    EXPECT_EQ(Bytes(handlers.begin() + 12, handlers.end()), expectedBody);
}

TEST_F(TraceChannelTest, CallbackListAndCall)
{
    TestTraceServer server(1, 0, 0);
    static std::vector<CJTTraceCallbackDef*> extra;
    while (CJTTraceCallbackManager::getInstance().getNumberOfCallbacks() < 150)
        extra.push_back(new CJTTraceCallbackDef(nullptr, "ITest_extra", "no function"));
    startThread();
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>&) { return server.hasClient(); }));

    uint32_t count = CJTTraceCallbackManager::getInstance().getNumberOfCallbacks();
    server.send(command(8, 0));
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>& r) { return countClass(r, 26) == count; }));
    std::vector<Bytes> list = server.records();
    EXPECT_EQ(countClass(list, 26, 255), 1u);
    std::vector<uint32_t> expectedSteps;
    for (uint32_t i = 0; i < count; i += 10)
        expectedSteps.push_back(i);
    EXPECT_EQ(progressSteps(list), expectedSteps);

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
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&r[0][20])), "Callback string retval truncated");
    EXPECT_EQ(r[1][0], 31);
    EXPECT_EQ(r[1].size(), 8u + 4u + 253u);
    EXPECT_EQ(r[1][8], 1);   // return row: last parameter row + 1
    EXPECT_EQ(r[1][10], 0x34);
    Bytes result = {uint8_t(getpid()), uint8_t(getpid() >> 8), uint8_t(getpid() >> 16), uint8_t(getpid() >> 24),
                    uint8_t(index), uint8_t(index >> 8), 0, 0, 0x34, 0x12, 0, 0, 40, 0, 0, 0};
    EXPECT_EQ(Bytes(r[2].begin() + 8, r[2].end()), result);

    // A call shorter than it says, then an ordinary command: both served, nothing breaks.
    server.clearRecords();
    server.send(command(9, 3, {0, 0}));
    server.send(command(7, 0));
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 20, 5) == 1; }));
}

TEST_F(TraceChannelTest, ServerThatAcknowledgesWithoutANodeIsTakenAsAbsent)
{
    TestTraceServer server(1, 0, 0);
    server.makeNodes(false);
    startThread();
    EXPECT_TRUE(CJTThreadCtrl::join(mTid, 1000)) << "nothing to serve: the thread ends at once";
    mTid = 0;
    EXPECT_FALSE(mConfig->getChannel()->isConnected());
    EXPECT_TRUE(logged("Cannot open trace device"));
    EXPECT_EQ(server.requests().at(0), std::string("mk:ITest", 9));
    mThread.reset();
    mConfig.reset();
}

TEST_F(TraceChannelTest, ServerThatStopsReadingCostsDroppedRecordsOnly)
{
    TestTraceServer server(1, 0, 0);
    startThread();
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>&) { return server.hasClient(); }));
    gsWatched.setMedia(1);
    gsWatched.setFilter(64);
    CJTTraceChannel& channel = *mConfig->getChannel();
    auto flood = [&] {
        CJTTraceScope scope(gsWatched);
        for (int i = 0; i < 5000; ++i)
            scope.sendFormattedMessage("record %d", i);
    };

    server.pause(true);
    auto start = std::chrono::steady_clock::now();
    flood();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << "no traced thread waits";
    uint32_t dropped = channel.getDroppedCount();
    EXPECT_GT(dropped, 0u);
    EXPECT_TRUE(channel.isConnected()) << "a slow server is no broken channel";

    server.pause(false);
    server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 17) > 0; });
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>&) {
        size_t before = server.records().size();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return server.records().size() == before;
    }));
    server.clearRecords();
    {
        CJTTraceScope scope(gsWatched);
        scope.sendFormattedMessage("after");
    }
    ASSERT_TRUE(server.waitFor([](const std::vector<Bytes>& r) { return countClass(r, 17) == 1; }));
    std::vector<Bytes> r = server.records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0][0], 38) << "one warning first";
    EXPECT_EQ(r[0][1], 32);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&r[0][20])), std::to_string(dropped) + " trace records dropped");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&r[1][24])), "after");

    // Stopping the thread and destroying the channel while the server reads nothing.
    server.pause(true);
    flood();
    start = std::chrono::steady_clock::now();
    mThread->stop();
    EXPECT_TRUE(CJTThreadCtrl::join(mTid, 1000)) << "the stop wakes the thread's wait";
    mThread.reset();
    mConfig.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST_F(TraceChannelTest, BrokenConnectionEndsTheThread)
{
    TestTraceServer server(1, 0, 0);
    startThread();
    ASSERT_TRUE(server.waitFor([&](const std::vector<Bytes>&) { return server.hasClient(); }));
    server.dropClient();
    EXPECT_TRUE(CJTThreadCtrl::join(mTid, 3000));
    EXPECT_TRUE(logged("Error during read(), closing trace device"));
    EXPECT_FALSE(mConfig->getChannel()->isConnected());
    mThread.reset();
    mConfig.reset();
}
