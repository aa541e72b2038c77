#include "PrivateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace
{
const char* const kConfig =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n"
    "  <type>session</type>\n"
    "  <listen>unix:path=@SOCKET@</listen>\n"
    "  <auth>EXTERNAL</auth>\n"
    "  <policy context=\"default\">\n"
    "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
    "    <allow eavesdrop=\"true\"/>\n"
    "    <allow own=\"*\"/>\n"
    "  </policy>\n"
    "</busconfig>\n";
}

PrivateBus::~PrivateBus()
{
    stop();
}

bool PrivateBus::start()
{
    stop();
    char folder[] = "/tmp/cbradio-bus-XXXXXX";
    if (!mkdtemp(folder)) {
        mError = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    mFolder = folder;
    std::string config = kConfig;
    config.replace(config.find("@SOCKET@"), 8, mFolder + "/bus");
    const std::string configPath = mFolder + "/session.conf";
    std::ofstream(configPath) << config;

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        mError = std::string("pipe: ") + strerror(errno);
        return false;
    }
    pid_t pid = fork();
    if (pid < 0) {
        mError = std::string("fork: ") + strerror(errno);
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);  // dup2 clears close-on-exec on the copy
        // The daemon's complaints (fd limits of an unprivileged run) go to its folder, not to
        // the test's output.
        int log = open((mFolder + "/daemon.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (log >= 0)
            dup2(log, STDERR_FILENO);
        const std::string configArg = "--config-file=" + configPath;
        execlp("dbus-daemon", "dbus-daemon", configArg.c_str(), "--nofork", "--print-address",
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    mPid = pid;

    std::string line;
    pollfd pfd = {fds[0], POLLIN, 0};
    while (line.find('\n') == std::string::npos && poll(&pfd, 1, 10000) > 0) {
        char buf[256];
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n <= 0)
            break;
        line.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    if (line.find('\n') == std::string::npos) {
        mError = "dbus-daemon did not print its address";
        stop();
        return false;
    }
    mAddress = line.substr(0, line.find('\n'));
    return true;
}

void PrivateBus::reap()
{
    if (mPid <= 0)
        return;
    int status = 0;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
}

void PrivateBus::kill()
{
    if (mPid > 0)
        ::kill(mPid, SIGKILL);
    reap();
}

void PrivateBus::stop()
{
    if (mPid > 0)
        ::kill(mPid, SIGTERM);
    reap();
    if (!mFolder.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(mFolder, ec);
        mFolder.clear();
    }
    mAddress.clear();
}

void PrivateBus::exportAddress() const
{
    setenv("DBUS_SESSION_BUS_ADDRESS", mAddress.c_str(), 1);
}
