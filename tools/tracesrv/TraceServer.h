// TraceServer: the trace server's sockets and its console, on one thread.
//
// It listens on the register node (under CBRADIO_ROOT): a "mk:NAME" request creates and listens on
// /dev/mv2trace/NAME before the registration connection is closed (the close acknowledges it),
// "rm:NAME" removes that node, and the device control request 0x40060502 is answered with status
// 0 and the server version. Each process node takes one client; every record it sends becomes one
// line on standard output and in the log file. Console lines (from --cmd first, then standard
// input) go to the process that connected last; a line that asks for a reply (a list, a call)
// holds back the next line until the reply is complete or 3 s have passed.
//
// run() returns 0 after "quit", after the exit time, or after requestStop() (safe in a signal
// handler); it returns 1 when the register node cannot be created. Nodes it created are removed
// when it returns.
#ifndef TRACESERVER_H
#define TRACESERVER_H

#include "TraceSession.h"
#include "TraceUserCommand.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

class TraceServer
{
public:
    struct Options
    {
        uint16_t version[3] = {1, 0, 0};
        std::vector<std::string> script;  // console lines run once a process has registered
        int exitAfterSeconds = -1;        // < 0: run until quit or a signal
        std::string logFile;              // empty: standard output only
        bool readStdin = true;
    };

    enum { DEVCTL_GET_VERSION = 0x40060502, REPLY_TIMEOUT_MS = 3000, REGISTRATION_TIMEOUT_MS = 2000 };

    explicit TraceServer(const Options& options);
    ~TraceServer();

    int run();
    static void requestStop() { sStop = 1; }

private:
    struct Node
    {
        std::string name;
        std::string hostPath;
        int listenFd = -1;
        int clientFd = -1;
        std::unique_ptr<TraceSession> session;
    };
    struct Registration
    {
        int fd;
        uint64_t deadlineMs;
    };

    void print(const std::string& line);
    void acceptRegistration();
    void serveRegistration(size_t i);
    void createNode(const std::string& name);
    void removeNode(const std::string& name);
    // Answers a 4-byte device control request: the version for DEVCTL_GET_VERSION, else EINVAL.
    void answerControl(int fd, const uint8_t* request);
    void acceptClient(Node& node);
    void readClient(Node& node);
    void dropClient(Node& node, const char* why);
    void readStdin();
    void pumpQueue();
    // Carries out one console line; false when it must stay in front (no process yet, or the
    // names it needs are being fetched).
    bool perform(const TraceUserCommand::Action& action, Node* node, uint64_t now);
    // Asks for the scope or callback list a line needs; false when that was tried for it already.
    bool fetchNames(Node& node, bool scopes, uint64_t now);
    void awaitReply(Node& node, TraceSession::Await what, uint64_t now, uint16_t callId = 0,
                    uint16_t callbackIndex = 0);
    void expireRegistrations(uint64_t now);
    bool pollOnce();  // false when polling itself failed
    bool sendTo(Node& node, const TraceProtocol::Bytes& command);
    Node* current();
    Node* findNode(const std::string& name);

    static volatile std::sig_atomic_t sStop;

    Options mOptions;
    FILE* mLog = nullptr;
    int mRegisterFd = -1;
    std::string mRegisterPath;
    std::vector<Registration> mRegistrations;
    std::vector<std::unique_ptr<Node>> mNodes;
    std::string mCurrent;  // name of the node commands go to
    std::deque<std::string> mQueue;
    bool mFetchedForFront = false;
    bool mWaitingNoted = false;
    uint64_t mPauseUntilMs = 0;
    uint64_t mReplyDeadlineMs = 0;
    bool mQuit = false;
    bool mStdinOpen = true;
    std::string mStdinBuffer;
};

#endif
