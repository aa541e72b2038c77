// ChildProcess: a program of the system started as a real process for a test, and the polling
// helpers such tests wait with.
//
// start() forks and execve()s argv[0] (a path, no search) with exactly the environment given;
// environmentWith() builds one from ours. Standard input is the given descriptor or /dev/null;
// standard output and error go to the given files, or stay ours.
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
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// Polls `condition` every pollMs milliseconds; false when it did not hold within timeoutMs.
inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs, int pollMs = 5)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
    }
    return true;
}

// The whole file, or "" when it cannot be read.
inline std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// How often `what` occurs in `text` at or after `from`.
inline size_t countOf(const std::string& text, const std::string& what, size_t from = 0)
{
    size_t count = 0;
    for (size_t at = text.find(what, from); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

// Whether `text` holds a clock time "HH:MM:SS.mmm" at `at` (std::regex would do, but gcc's
// sanitizer build warns falsely inside it).
inline bool isClockTime(const std::string& text, size_t at = 0)
{
    const char* shape = "dd:dd:dd.ddd";
    for (size_t i = 0; shape[i] != '\0'; ++i) {
        const char c = at + i < text.size() ? text[at + i] : '\0';
        if (shape[i] == 'd' ? (c < '0' || c > '9') : c != shape[i])
            return false;
    }
    return true;
}

// The build folder the tests run from (CBRADIO_BUILD_DIR).
inline std::string buildDir()
{
    const char* dir = std::getenv("CBRADIO_BUILD_DIR");
    return dir != nullptr ? dir : ".";
}

class ChildProcess
{
public:
    struct Io
    {
        int in = -1;          // -1: /dev/null
        std::string outPath;  // empty: ours
        std::string errPath;  // empty: ours
    };

    ChildProcess() = default;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess()
    {
        if (mPid > 0) {
            ::kill(mPid, SIGKILL);
            ::waitpid(mPid, nullptr, 0);
        }
    }

    // False when fork failed; a program that cannot be executed exits with status 127.
    bool start(const std::vector<std::string>& args, const std::vector<std::string>& env, const Io& io)
    {
        std::vector<char*> argv, envp;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        for (const std::string& e : env)
            envp.push_back(const_cast<char*>(e.c_str()));
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        auto output = [](const std::string& path) {
            return path.empty() ? -1 : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        };
        const int in = io.in >= 0 ? io.in : ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int out = output(io.outPath);
        const int err = output(io.errPath);
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
        for (int fd : {io.in < 0 ? in : -1, out, err})
            if (fd >= 0)
                ::close(fd);
        return mPid > 0;
    }

    pid_t pid() const { return mPid; }
    bool running() const { return mPid > 0; }

    // The exit status (128 + signal number when killed by one), or -1 when it has not ended in time.
    int wait(int timeoutMs)
    {
        int status = 0;
        if (mPid <= 0 || !waitUntil([&] { return ::waitpid(mPid, &status, WNOHANG) == mPid; }, timeoutMs))
            return -1;
        mPid = -1;
        if (WIFEXITED(status))
            return WEXITSTATUS(status);
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    }

    // SIGTERM, repeated, then SIGKILL after graceMs; reaps it. The exit status as wait() gives it,
    // or -1 when SIGKILL was needed (or there was nothing to stop).
    int stop(int graceMs = 3000)
    {
        // A program may miss a signal that comes before its handlers are set; a repeated one is harmless.
        for (int waited = 0; mPid > 0 && waited < graceMs; waited += 500) {
            ::kill(mPid, SIGTERM);
            const int status = wait(500);
            if (mPid <= 0)
                return status;
        }
        if (mPid > 0) {
            ::kill(mPid, SIGKILL);
            ::waitpid(mPid, nullptr, 0);
            mPid = -1;
        }
        return -1;
    }

    // Our environment with `set` replaced or added and the names in `unset` removed.
    static std::vector<std::string> environmentWith(const std::map<std::string, std::string>& set,
                                                    const std::vector<std::string>& unset = {})
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

private:
    pid_t mPid = -1;
};

#endif
