// ChildProcess: a program of the system started as a real process for a test, and the polling
// helpers such tests wait with.
//
// start() forks and execve()s argv[0] (a path, no search) with exactly the environment given;
// environmentWith() builds one from ours. Standard input is the given descriptor or /dev/null;
// standard output and error go to the given files, or to the given descriptor, or stay ours.
// Everything the child needs is prepared before fork, so the child only calls
// async-signal-safe functions. stop() sends SIGTERM every half second and SIGKILL after the
// grace time; the destructor kills a child still running. Waiting always has a deadline.
//
// Not thread-safe; one object per child. Header-only, so programs that compile HeadUnit.cpp on
// their own need no further source.
#ifndef CHILDPROCESS_H
#define CHILDPROCESS_H

#include <sys/types.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <functional>
#include <map>
#include <string>
#include <vector>

class ChildProcess
{
public:
    struct Io
    {
        int in = -1;            // -1: /dev/null
        std::string outPath;    // empty: outFd
        std::string errPath;    // empty: errFd
        int outFd = -1;         // -1 (and no path): ours
        int errFd = -1;
    };

    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // False when fork failed; a program that cannot be executed exits with status 127.
    bool start(const std::vector<std::string>& argv, const std::vector<std::string>& env, const Io& io);
    pid_t pid() const { return mPid; }
    bool running() const { return mPid > 0; }
    // The exit status (128 + signal number when killed by one), or -1 when it has not ended in time.
    int wait(int timeoutMs);
    // SIGTERM, repeated, then SIGKILL after graceMs; reaps it. The exit status as wait() gives it,
    // or -1 when SIGKILL was needed (or there was nothing to stop).
    int stop(int graceMs = 3000);
    // Forgets the child without waiting for it (it reaped itself, or someone else did).
    void release() { mPid = -1; }

    // Our environment with `set` replaced or added and the names in `unset` removed.
    static std::vector<std::string> environmentWith(const std::map<std::string, std::string>& set,
                                                    const std::vector<std::string>& unset = {});

private:
    pid_t mPid = -1;
};

// Polls `condition` every few milliseconds; false when it did not hold within timeoutMs.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs);
// The whole file, or "" when it cannot be read.
inline std::string readFile(const std::string& path);
// The build folder the tests run from (CBRADIO_BUILD_DIR).
inline std::string buildDir();


namespace childprocess_detail
{
    inline int decode(int status)
    {
        if (WIFEXITED(status))
            return WEXITSTATUS(status);
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    }
}

inline ChildProcess::~ChildProcess()
{
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        ::waitpid(mPid, nullptr, 0);
    }
}

inline bool ChildProcess::start(const std::vector<std::string>& args, const std::vector<std::string>& env, const Io& io)
{
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& e : env)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    const int in = io.in >= 0 ? io.in : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int out = io.outPath.empty() ? io.outFd : ::open(io.outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int err = io.errPath.empty() ? io.errFd : ::open(io.errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);

    mPid = ::fork();
    if (mPid == 0) {
        ::dup2(in, 0);
        if (out >= 0)
            ::dup2(out, 1);
        if (err >= 0)
            ::dup2(err, 2);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    if (io.in < 0)
        ::close(in);
    if (!io.outPath.empty() && out >= 0)
        ::close(out);
    if (!io.errPath.empty() && err >= 0)
        ::close(err);
    return mPid > 0;
}

inline int ChildProcess::wait(int timeoutMs)
{
    if (mPid <= 0)
        return -1;
    int status = 0;
    if (!waitUntil([&] { return ::waitpid(mPid, &status, WNOHANG) == mPid; }, timeoutMs))
        return -1;
    mPid = -1;
    return childprocess_detail::decode(status);
}

inline int ChildProcess::stop(int graceMs)
{
    if (mPid <= 0)
        return -1;
    // A program may miss a signal that comes before its handlers are set; a repeated one is harmless.
    for (int waited = 0; waited < graceMs; waited += 500) {
        ::kill(mPid, SIGTERM);
        const int status = wait(500);
        if (mPid <= 0)
            return status;
    }
    ::kill(mPid, SIGKILL);
    ::waitpid(mPid, nullptr, 0);
    mPid = -1;
    return -1;
}

inline std::vector<std::string> ChildProcess::environmentWith(const std::map<std::string, std::string>& set,
                                                       const std::vector<std::string>& unset)
{
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        const std::string name = entry.substr(0, entry.find('='));
        bool drop = set.count(name) > 0;
        for (const std::string& u : unset)
            drop = drop || u == name;
        if (!drop)
            env.push_back(entry);
    }
    for (const auto& kv : set)
        env.push_back(kv.first + "=" + kv.second);
    return env;
}

inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string buildDir()
{
    const char* dir = std::getenv("CBRADIO_BUILD_DIR");
    return dir != nullptr ? dir : ".";
}

#endif
