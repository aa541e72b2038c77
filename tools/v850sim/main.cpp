// v850sim: stands in for the vehicle microcontroller on the CB radio channel.
//
// Listens on the platform node /dev/ipc/ch6 (under CBRADIO_ROOT) as a SOCK_SEQPACKET socket,
// accepts the head unit (one at a time; a new connection replaces the old one), announces the
// module's state to it (radio on/off, hardware connection), answers its frames
// through V850Model and logs every frame, one line each: seconds since start, RX (from the head
// unit) or TX (to it), the bytes in hex. Lines starting with '#' are notes. Commands (see
// V850Command) come from --cmd, --script and then the prompt on standard input. SIGINT/SIGTERM
// or "quit" end it; the node is removed on the way out.
#include "V850Command.h"
#include "V850Model.h"

#include "CommandInput.h"
#include "JTDeviceNode.h"
#include "JTRootPrefix.h"
#include "ToolProcess.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
typedef std::chrono::steady_clock Clock;

int gWakePipe[2] = {-1, -1};
std::atomic<bool> gQuit(false);

void onSignal(int)
{
    gQuit.store(true, std::memory_order_relaxed);
    char c = 'q';
    ssize_t ignored = ::write(gWakePipe[1], &c, 1);
    (void)ignored;
}

class Simulator
{
public:
    Simulator(int listenFd, FILE* logFile) : mListenFd(listenFd), mLogFile(logFile), mStart(Clock::now()) {}

    void note(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        writeLine("# " + text);
    }

    // Network side: accepts, reads, answers and drives the scan until quit.
    void serve()
    {
        Clock::time_point nextScan = Clock::now();
        while (!gQuit.load(std::memory_order_relaxed)) {
            int timeoutMs = -1;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (mModel.isScanning() && mClientFd >= 0) {
                    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(nextScan - Clock::now());
                    timeoutMs = left.count() < 0 ? 0 : static_cast<int>(left.count());
                }
            }
            short clientEvents = POLLIN;
            {
                std::lock_guard<std::mutex> lock(mMutex);
                if (!mOutbox.empty())
                    clientEvents |= POLLOUT;
            }
            pollfd fds[3] = {{gWakePipe[0], POLLIN, 0}, {mListenFd, POLLIN, 0}, {mClientFd, clientEvents, 0}};
            int rc = ::poll(fds, mClientFd >= 0 ? 3 : 2, timeoutMs);
            if (rc < 0 && errno != EINTR)
                break;
            std::lock_guard<std::mutex> lock(mMutex);
            if (rc > 0 && (fds[0].revents & POLLIN)) {
                char drain[16];
                ssize_t ignored = ::read(gWakePipe[0], drain, sizeof(drain));
                (void)ignored;
            }
            if (rc > 0 && (fds[1].revents & POLLIN))
                acceptClient();
            if (rc > 0 && mClientFd >= 0 && fds[2].fd == mClientFd && (fds[2].revents & POLLOUT))
                flushLocked();
            if (rc > 0 && mClientFd >= 0 && fds[2].fd == mClientFd && (fds[2].revents & ~POLLOUT))
                readClient(nextScan);
            if (mModel.isScanning() && mClientFd >= 0 && Clock::now() >= nextScan) {
                for (const V850Frame& f : mModel.onScanTick())
                    sendLocked(f);
                nextScan = Clock::now() + std::chrono::milliseconds(mScanIntervalMs);
            }
        }
        std::lock_guard<std::mutex> lock(mMutex);
        closeClient("simulator stopping");
    }

    // Command side: returns false when the simulator is to stop.
    bool execute(const std::string& line)
    {
        V850Command c;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            c = V850Command::parse(line, mModel);
        }
        switch (c.kind) {
        case V850Command::NONE:
            break;
        case V850Command::SEND:
            if (!sendSteps(c.steps))
                return false;
            break;
        case V850Command::WAIT:
            return pause(c.number);
        case V850Command::WAIT_CONNECT:
            waitForConnection(c.number);
            break;
        case V850Command::EXPECT:
            expectFrame(c.pattern, c.number);
            break;
        case V850Command::STATUS: {
            std::lock_guard<std::mutex> lock(mMutex);
            writeLine(std::string("# ") + (mClientFd >= 0 ? "connected " : "not connected ") + mModel.describe());
            break;
        }
        case V850Command::HELP:
            std::fputs(V850Command::helpText(), stdout);
            std::fflush(stdout);
            break;
        case V850Command::QUIT:
            onSignal(0);
            return false;
        case V850Command::DISCONNECT: {
            std::lock_guard<std::mutex> lock(mMutex);
            closeClient("dropped by command");
            break;
        }
        case V850Command::SCAN_INTERVAL: {
            std::lock_guard<std::mutex> lock(mMutex);
            mScanIntervalMs = c.number;
            break;
        }
        case V850Command::SETTING:
            note(c.text);
            break;
        case V850Command::ERROR:
            note("error: " + c.text);
            break;
        }
        return !quitting();
    }

private:
    static bool quitting() { return gQuit.load(std::memory_order_relaxed); }

    // Sends the frames with their pauses; false when a pause was cut short by quitting.
    bool sendSteps(const std::vector<V850Step>& steps)
    {
        for (const V850Step& step : steps) {
            {
                std::lock_guard<std::mutex> lock(mMutex);
                sendLocked(step.frame);
            }
            if (step.waitMs > 0 && !pause(step.waitMs))
                return false;
        }
        return true;
    }

    void waitForConnection(int ms)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mChanged.wait_for(lock, std::chrono::milliseconds(ms), [this] { return mClientFd >= 0 || quitting(); }))
            writeLine("# waitconnect: no head unit after " + std::to_string(ms) + " ms");
    }

    // Waits for a frame from the head unit that starts with pattern, received from now on.
    void expectFrame(const V850Frame& pattern, int ms)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        size_t from = mReceived.size();
        bool seen = mChanged.wait_for(lock, std::chrono::milliseconds(ms), [&] {
            for (size_t i = from; i < mReceived.size(); ++i)
                if (mReceived[i].size() >= pattern.size() &&
                    std::equal(pattern.begin(), pattern.end(), mReceived[i].begin()))
                    return true;
            return quitting();
        });
        if (!seen)
            writeLine("# expect: no frame " + V850Model::toHex(pattern) + " within " + std::to_string(ms) + " ms");
    }

    bool pause(int ms)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, std::chrono::milliseconds(ms), [] { return quitting(); });
        return !quitting();
    }

    void writeLine(const std::string& line)
    {
        double seconds = std::chrono::duration<double>(Clock::now() - mStart).count();
        char stamp[32];
        std::snprintf(stamp, sizeof(stamp), "%9.3f ", seconds);
        std::string text = stamp + line + "\n";
        std::fputs(text.c_str(), stdout);
        std::fflush(stdout);
        if (mLogFile) {
            std::fputs(text.c_str(), mLogFile);
            std::fflush(mLogFile);
        }
    }

    // Frames to the head unit are queued and sent without blocking, so that the simulator
    // keeps reading while the head unit is slow to read: a microcontroller that stopped
    // reading whenever its own reports backed up would stall every writer of the service.
    void sendLocked(const V850Frame& frame)
    {
        if (frame.empty())
            return;
        if (mClientFd < 0) {
            writeLine("# not connected, not sent: " + V850Model::toHex(frame));
            return;
        }
        mOutbox.push_back(frame);
        flushLocked();
        if (!mOutbox.empty()) {
            // Have the network side wait for the socket to take the rest.
            char c = 'o';
            ssize_t ignored = ::write(gWakePipe[1], &c, 1);
            (void)ignored;
        }
    }

    void flushLocked()
    {
        while (!mOutbox.empty() && mClientFd >= 0) {
            const V850Frame& frame = mOutbox.front();
            ssize_t n = ::send(mClientFd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return;
            if (n < 0 && errno == EINTR)
                continue;
            if (n == static_cast<ssize_t>(frame.size()))
                writeLine("TX " + V850Model::toHex(frame));
            else
                writeLine(std::string("# send failed: ") + std::strerror(errno) + ": " + V850Model::toHex(frame));
            mOutbox.pop_front();
        }
    }

    void acceptClient()
    {
        int fd = ::accept4(mListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        closeClient("replaced by a new connection");
        mClientFd = fd;
        writeLine("# head unit connected");
        // A new connection is a service that knows nothing yet (restarted, or reconnected
        // after a loss): tell it the state of the module.
        for (const V850Frame& f : mModel.announcement())
            sendLocked(f);
        mChanged.notify_all();
    }

    void closeClient(const char* why)
    {
        if (mClientFd < 0)
            return;
        ::close(mClientFd);
        mClientFd = -1;
        mOutbox.clear();
        writeLine(std::string("# head unit disconnected (") + why + ")");
        mChanged.notify_all();
    }

    void readClient(Clock::time_point& nextScan)
    {
        uint8_t buffer[256];
        ssize_t n = ::recv(mClientFd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR)
            return;
        if (n <= 0) {
            closeClient(n == 0 ? "peer closed" : std::strerror(errno));
            return;
        }
        writeLine("RX " + V850Model::toHex(buffer, static_cast<size_t>(n)));
        mReceived.emplace_back(buffer, buffer + n);
        bool wasScanning = mModel.isScanning();
        for (const V850Frame& f : mModel.onFrame(buffer, static_cast<size_t>(n)))
            sendLocked(f);
        if (!wasScanning && mModel.isScanning())
            nextScan = Clock::now() + std::chrono::milliseconds(mScanIntervalMs);
        mChanged.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    V850Model mModel;
    int mListenFd;
    int mClientFd = -1;
    FILE* mLogFile;
    Clock::time_point mStart;
    int mScanIntervalMs = 500;
    std::vector<V850Frame> mReceived;
    std::deque<V850Frame> mOutbox;
};

void usage()
{
    std::printf("usage: v850sim [--cmd \"COMMAND\"]... [--script FILE]... [--log=FILE] [--no-stdin]\n"
                "               [--node PLATFORM_PATH]\n"
                "Simulates the vehicle microcontroller on /dev/ipc/ch6 (under CBRADIO_ROOT).\n"
                "--cmd and --script run in the given order, then commands are read from standard input.\n\n%s",
                V850Command::helpText());
}
}

int main(int argc, char** argv)
{
    CommandInput input;
    std::string logPath;
    std::string node = "/dev/ipc/ch6";
    for (int i = 1; i < argc; ++i) {
        if (input.takeOption(argc, argv, i))
            continue;
        const std::string a = argv[i];
        if (takeOptionValue(a, "--log", logPath))
            continue;
        if ((a == "--log" || a == "--node") && i + 1 < argc)
            (a == "--log" ? logPath : node) = argv[++i];
        else
            return refuseArgument("v850sim", a, usage);
    }

    FILE* logFile = nullptr;
    if (!logPath.empty() && (logFile = openLogFile("v850sim", logPath)) == nullptr)
        return 1;
    if (::pipe2(gWakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::perror("v850sim: pipe");
        return 1;
    }
    int listenFd = JTDeviceNode::listen(node.c_str());
    const std::string hostPath = JTRootPrefix::resolve(node.c_str());
    if (listenFd < 0) {
        std::fprintf(stderr, "v850sim: cannot listen on %s: %s\n", hostPath.c_str(), std::strerror(errno));
        return 1;
    }
    catchStopSignals(onSignal);

    Simulator sim(listenFd, logFile);
    sim.note("listening on " + hostPath);
    std::thread commands([&] {
        input.run([&](const std::string& line) { return sim.execute(line); },
                  [&](const std::string& text) { sim.note(text); }, "v850> ");
    });
    commands.detach();

    sim.serve();
    ::close(listenFd);
    ::unlink(hostPath.c_str());
    sim.note("stopped");
    endTool(logFile, 0);
}
