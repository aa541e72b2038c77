#include "TraceServer.h"

#include "JTDeviceNode.h"
#include "JTRootPrefix.h"
#include "TraceUserCommand.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace TraceProtocol;

volatile std::sig_atomic_t TraceServer::sStop = 0;

namespace
{
const char* const kNodeDir = "/dev/mv2trace/";

uint64_t nowMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

// A process name becomes a file name under the node folder: keep it plain.
bool validName(const std::string& n)
{
    if (n.empty() || n.size() > 100 || n[0] == '.' || n == "register")
        return false;
    for (char c : n)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.'))
            return false;
    return true;
}

uint32_t controlCode(const uint8_t* b)
{
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

void closeFd(int& fd)
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}
}

TraceServer::TraceServer(const Options& options) : mOptions(options)
{
    mQueue.assign(options.script.begin(), options.script.end());
    mStdinOpen = options.readStdin;
    if (!options.logFile.empty()) {
        mLog = std::fopen(options.logFile.c_str(), "a");
        if (!mLog)
            std::fprintf(stderr, "tracesrv: cannot open log file %s: %s\n", options.logFile.c_str(),
                         std::strerror(errno));
    }
}

TraceServer::~TraceServer()
{
    for (auto& node : mNodes) {
        closeFd(node->clientFd);
        closeFd(node->listenFd);
        ::unlink(node->hostPath.c_str());
    }
    for (auto& r : mRegistrations)
        ::close(r.fd);
    if (mRegisterFd >= 0) {
        closeFd(mRegisterFd);
        ::unlink(mRegisterPath.c_str());
    }
    if (mLog)
        std::fclose(mLog);
}

void TraceServer::print(const std::string& line)
{
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
    if (mLog) {
        std::fprintf(mLog, "%s\n", line.c_str());
        std::fflush(mLog);
    }
}

TraceServer::Node* TraceServer::findNode(const std::string& name)
{
    for (auto& n : mNodes)
        if (n->name == name)
            return n.get();
    return nullptr;
}

TraceServer::Node* TraceServer::current()
{
    Node* n = findNode(mCurrent);
    return n && n->clientFd >= 0 ? n : nullptr;
}

void TraceServer::createNode(const std::string& name)
{
    if (findNode(name))
        return;  // a restarted process reuses its node
    auto node = std::make_unique<Node>();
    node->name = name;
    std::string platformPath = kNodeDir + name;
    node->hostPath = JTRootPrefix::resolve(platformPath.c_str());
    node->listenFd = JTDeviceNode::listen(platformPath.c_str(), 2);
    if (node->listenFd < 0) {
        print("cannot create " + node->hostPath + ": " + std::strerror(errno));
        return;
    }
    print(name + " registered");
    mNodes.push_back(std::move(node));
}

void TraceServer::removeNode(const std::string& name)
{
    for (size_t i = 0; i < mNodes.size(); ++i) {
        Node& n = *mNodes[i];
        if (n.name != name)
            continue;
        if (n.clientFd >= 0)
            dropClient(n, "unregistered while connected");
        closeFd(n.listenFd);
        ::unlink(n.hostPath.c_str());
        print(name + " unregistered");
        mNodes.erase(mNodes.begin() + static_cast<long>(i));
        return;
    }
}

void TraceServer::acceptRegistration()
{
    int fd = ::accept4(mRegisterFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
        mRegistrations.push_back({fd, nowMs() + REGISTRATION_TIMEOUT_MS});
}

void TraceServer::serveRegistration(size_t i)
{
    int fd = mRegistrations[i].fd;
    uint8_t buf[512];
    ssize_t n = ::recv(fd, buf, sizeof buf - 1, 0);
    if (n > 0) {
        buf[n] = 0;
        std::string request(reinterpret_cast<char*>(buf),
                            strnlen(reinterpret_cast<char*>(buf), static_cast<size_t>(n)));
        bool mk = request.compare(0, 3, "mk:") == 0, rm = request.compare(0, 3, "rm:") == 0;
        if (mk || rm) {
            std::string name = request.substr(3);
            if (!validName(name))
                print("refused registration of '" + TraceProtocol::printable(name) + "'");
            else if (mk)
                createNode(name);  // before the close below: the close is the acknowledgement
            else
                removeNode(name);
        } else if (n == 4) {
            answerControl(fd, buf);
        } else
            print("malformed registration request of " + std::to_string(n) + " bytes");
    }
    ::close(fd);
    mRegistrations.erase(mRegistrations.begin() + static_cast<long>(i));
}

void TraceServer::answerControl(int fd, const uint8_t* request)
{
    Bytes answer;
    if (controlCode(request) == DEVCTL_GET_VERSION) {
        putU32(answer, 0);
        for (uint16_t v : mOptions.version)
            putU16(answer, v);
    } else
        putU32(answer, EINVAL);
    if (::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(answer.size()))
        print(std::string("cannot answer a device control request: ") + std::strerror(errno));
}

void TraceServer::acceptClient(Node& node)
{
    int fd = ::accept4(node.listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    if (node.clientFd >= 0) {
        print(node.name + ": refused a second client");
        ::close(fd);
        return;
    }
    node.clientFd = fd;
    node.session = std::make_unique<TraceSession>(node.name);
    mCurrent = node.name;
    print(node.name + " connected");
}

void TraceServer::dropClient(Node& node, const char* why)
{
    closeFd(node.clientFd);
    print(node.name + " " + why);
    if (node.name == mCurrent) {
        mReplyDeadlineMs = 0;
        mCurrent.clear();
        for (auto& n : mNodes)
            if (n->clientFd >= 0)
                mCurrent = n->name;
    }
}

void TraceServer::readClient(Node& node)
{
    static uint8_t buf[70000];  // larger than any record (the body length is 16 bits)
    ssize_t n = ::recv(node.clientFd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (n <= 0) {
        dropClient(node, "disconnected");
        return;
    }
    if (n == 4 && controlCode(buf) == DEVCTL_GET_VERSION) {
        // A version request on the node itself (a client asking again while connected).
        answerControl(node.clientFd, buf);
        return;
    }
    Record record;
    std::string why;
    if (!parseRecord(buf, static_cast<size_t>(n), record, &why)) {
        print(node.name + ": malformed record: " + why);
        return;
    }
    print(node.session->onRecord(record));
}

bool TraceServer::sendTo(Node& node, const Bytes& command)
{
    if (::send(node.clientFd, command.data(), command.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(command.size()))
        return true;
    dropClient(node, "lost (write failed)");
    return false;
}

void TraceServer::readStdin()
{
    char buf[1024];
    ssize_t n = ::read(STDIN_FILENO, buf, sizeof buf);
    if (n < 0 && errno == EINTR)
        return;
    if (n <= 0) {
        mStdinOpen = false;  // end of input is not a quit: scripts and --exit-after still run
        return;
    }
    mStdinBuffer.append(buf, static_cast<size_t>(n));
    size_t nl;
    while ((nl = mStdinBuffer.find('\n')) != std::string::npos) {
        mQueue.push_back(mStdinBuffer.substr(0, nl));
        mStdinBuffer.erase(0, nl + 1);
    }
}

void TraceServer::pumpQueue()
{
    uint64_t now = nowMs();
    Node* node = current();
    if (mReplyDeadlineMs && node && node->session->awaiting()) {
        if (now < mReplyDeadlineMs)
            return;
        print(node->name + ": no complete reply");
        node->session->giveUp();
    }
    mReplyDeadlineMs = 0;
    while (!mQueue.empty() && !mQuit && now >= mPauseUntilMs) {
        node = current();
        if (!perform(TraceUserCommand::translate(mQueue.front(), node ? node->session.get() : nullptr), node, now))
            return;  // the line stays in front
        mQueue.pop_front();
        mFetchedForFront = false;
        mWaitingNoted = false;
        if (mReplyDeadlineMs)
            return;
    }
}

bool TraceServer::perform(const TraceUserCommand::Action& a, Node* node, uint64_t now)
{
    using TraceUserCommand::Action;
    switch (a.kind) {
    case Action::NEEDS_PROCESS:
        if (!mWaitingNoted)
            print("(waiting for a traced process to connect)");
        mWaitingNoted = true;
        return false;
    case Action::NEEDS_SCOPES:
    case Action::NEEDS_CALLBACKS:
        return !fetchNames(*node, a.kind == Action::NEEDS_SCOPES, now);
    case Action::SEND:
        for (const Bytes& c : a.commands)
            if (!sendTo(*node, c))
                break;
        if (a.await != TraceSession::Await::NOTHING && node->clientFd >= 0)
            awaitReply(*node, a.await, now, a.callId, a.callbackIndex);
        return true;
    case Action::HELP:
        print(TraceUserCommand::helpText());
        return true;
    case Action::QUIT:
        mQuit = true;
        return true;
    case Action::WAIT:
        mPauseUntilMs = now + a.waitMs;
        return true;
    case Action::USE:
        if (findNode(a.text) && findNode(a.text)->clientFd >= 0)
            mCurrent = a.text;
        else
            print("no connected process '" + a.text + "'");
        return true;
    case Action::PROCESSES:
        for (auto& n : mNodes)
            print(n->name + (n->clientFd >= 0 ? " connected" : " registered") +
                  (n->name == mCurrent ? " (current)" : ""));
        return true;
    case Action::ERROR:
        print("error: " + a.text);
        return true;
    case Action::EMPTY:
        return true;
    }
    return true;
}

bool TraceServer::fetchNames(Node& node, bool scopes, uint64_t now)
{
    if (mFetchedForFront) {
        print(std::string("cannot learn the ") + (scopes ? "scope" : "callback") + " names");
        return false;
    }
    mFetchedForFront = true;
    if (sendTo(node, buildCommand(scopes ? Cmd::LIST_SCOPES : Cmd::LIST_CALLBACKS, 0)))
        awaitReply(node, scopes ? TraceSession::Await::SCOPES : TraceSession::Await::CALLBACKS, now);
    return true;
}

void TraceServer::awaitReply(Node& node, TraceSession::Await what, uint64_t now, uint16_t callId,
                             uint16_t callbackIndex)
{
    node.session->expect(what, callId, callbackIndex);
    mReplyDeadlineMs = now + REPLY_TIMEOUT_MS;
}

void TraceServer::expireRegistrations(uint64_t now)
{
    for (size_t i = mRegistrations.size(); i-- > 0;)
        if (now >= mRegistrations[i].deadlineMs) {
            ::close(mRegistrations[i].fd);
            mRegistrations.erase(mRegistrations.begin() + static_cast<long>(i));
        }
}

bool TraceServer::pollOnce()
{
    // What each poll entry stands for: the kind of descriptor and its index in its list.
    enum Kind { REGISTER, STDIN, REGISTRATION, LISTEN, CLIENT };
    std::vector<pollfd> fds;
    std::vector<std::pair<Kind, size_t>> what;
    auto watch = [&](int fd, Kind kind, size_t i) {
        fds.push_back({fd, POLLIN, 0});
        what.push_back({kind, i});
    };
    watch(mRegisterFd, REGISTER, 0);
    if (mStdinOpen)
        watch(STDIN_FILENO, STDIN, 0);
    for (size_t i = 0; i < mRegistrations.size(); ++i)
        watch(mRegistrations[i].fd, REGISTRATION, i);
    for (size_t i = 0; i < mNodes.size(); ++i) {
        watch(mNodes[i]->listenFd, LISTEN, i);
        if (mNodes[i]->clientFd >= 0)
            watch(mNodes[i]->clientFd, CLIENT, i);
    }
    if (::poll(fds.data(), fds.size(), 100) < 0 && errno != EINTR) {
        print(std::string("poll failed: ") + std::strerror(errno));
        return false;
    }

    // Registrations are served last and from the back, so erasing them keeps indices valid;
    // a node removed by "rm:" is gone only after its own entries were handled.
    std::vector<size_t> regs;
    for (size_t k = 0; k < fds.size(); ++k) {
        if (!fds[k].revents)
            continue;
        size_t i = what[k].second;
        switch (what[k].first) {
        case REGISTER:
            acceptRegistration();
            break;
        case STDIN:
            readStdin();
            break;
        case REGISTRATION:
            regs.push_back(i);
            break;
        case LISTEN:
            acceptClient(*mNodes[i]);
            break;
        case CLIENT:
            if (mNodes[i]->clientFd == fds[k].fd)
                readClient(*mNodes[i]);
            break;
        }
    }
    for (size_t r = regs.size(); r-- > 0;)
        serveRegistration(regs[r]);
    return true;
}

int TraceServer::run()
{
    mRegisterPath = JTRootPrefix::resolve("/dev/mv2trace/register");
    mRegisterFd = JTDeviceNode::listen("/dev/mv2trace/register");
    if (mRegisterFd < 0) {
        std::fprintf(stderr, "tracesrv: cannot listen on %s: %s\n", mRegisterPath.c_str(), std::strerror(errno));
        return 1;
    }
    print("tracesrv " + std::to_string(mOptions.version[0]) + "." + std::to_string(mOptions.version[1]) + "." +
          std::to_string(mOptions.version[2]) + " listening on " + mRegisterPath);
    uint64_t endMs = mOptions.exitAfterSeconds >= 0 ? nowMs() + static_cast<uint64_t>(mOptions.exitAfterSeconds) * 1000
                                                    : 0;
    while (!mQuit && !sStop) {
        uint64_t now = nowMs();
        if (endMs && now >= endMs)
            break;
        expireRegistrations(now);
        if (!pollOnce())
            break;
        pumpQueue();
    }
    return 0;
}
