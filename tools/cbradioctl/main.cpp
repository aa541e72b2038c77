// cbradioctl: operate and watch the CB radio service from a shell. See --help and
// docs/cbradioctl.md; exit codes in CtlCommand.h.
#include "CtlCommand.h"
#include "CBRadioEnvars.h"
#include "svcipc.h"

#include <sys/time.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

using namespace cbradioctl;

namespace
{
using Clock = std::chrono::steady_clock;

// The error the library answers a call with when the service gave it no result.
const char* const kNoResultError = "com.quorin.SvcIpc.Error.NoResult";

// Signals as they arrive on the library's thread, for the main thread to print.
struct SignalQueue
{
    std::mutex mutex;
    std::condition_variable cond;
    std::deque<std::string> lines;

    static void onSignal(const char* name, const char* data, SVCIPC_tUserToken token)
    {
        auto* self = static_cast<SignalQueue*>(token);
        std::string payload = data;
        while (!payload.empty() && payload.back() == '\n')
            payload.pop_back();
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.push_back(timestamp() + " " + name + " " + payload);
        self->cond.notify_all();
    }
    static std::string timestamp()
    {
        timeval tv;
        gettimeofday(&tv, nullptr);
        tm local;
        localtime_r(&tv.tv_sec, &local);
        char buf[32];
        snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
                 static_cast<long>(tv.tv_usec / 1000));
        return buf;
    }
    // Waits until a line is there or `until`; returns false on time-out.
    bool pop(Clock::time_point until, std::string& line)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!cond.wait_until(lock, until, [&] { return !lines.empty(); }))
            return false;
        line = lines.front();
        lines.pop_front();
        return true;
    }
};

unsigned timeoutMs(double seconds)
{
    return static_cast<unsigned>(seconds * 1000.0 + 0.5);
}

std::string withNewline(std::string text)
{
    if (text.empty() || text.back() != '\n')
        text += '\n';
    return text;
}

int reportFailure(const Command& cmd, SVCIPC_tError status, double timeoutS)
{
    if (status == SVCIPC_ERR_NO_SERVICE) {
        fprintf(stderr, "cbradioctl: %s is not on the bus\n", cmd.busName.c_str());
        return EXIT_NOT_ON_BUS;
    }
    if (status == SVCIPC_ERR_TIMEOUT) {
        fprintf(stderr, "cbradioctl: no reply to %s within %g s\n", cmd.method.c_str(), timeoutS);
        return EXIT_TIMEOUT;
    }
    if (status == SVCIPC_ERR_REMOTE) {
        fprintf(stderr, "cbradioctl: %s failed: %s: %s\n", cmd.method.c_str(), SVCIPC_getLastErrorName(),
                SVCIPC_getLastErrorMessage());
        return EXIT_BUS_ERROR;
    }
    fprintf(stderr, "cbradioctl: bus error: %s (0x%08X)\n", SVCIPC_errorText(status), static_cast<unsigned>(status));
    return EXIT_BUS_ERROR;
}

// Whether the service is there; on a failing bus prints why and sets `exitCode`.
bool serviceOnBus(SVCIPC_tConnection conn, const Command& cmd, int& exitCode)
{
    SVCIPC_tBool owned = 0;
    SVCIPC_tError status = SVCIPC_nameHasOwner(conn, cmd.busName.c_str(), &owned, 5000);
    if (status != 0) {
        exitCode = reportFailure(cmd, status, 5);
        return false;
    }
    if (!owned) {
        fprintf(stderr, "cbradioctl: %s is not on the bus\n", cmd.busName.c_str());
        exitCode = EXIT_NOT_ON_BUS;
    }
    return owned != 0;
}

int runCall(SVCIPC_tConnection conn, const Command& cmd, double timeoutS)
{
    SVCIPC_tResponse* resp = nullptr;
    SVCIPC_tError status = SVCIPC_invoke(conn, cmd.busName.c_str(), cmd.objPath.c_str(), cmd.method.c_str(),
                                         cmd.params.c_str(), 0, timeoutMs(timeoutS), &resp);
    if (status == SVCIPC_ERR_REMOTE && cmd.resultless && strcmp(SVCIPC_getLastErrorName(), kNoResultError) == 0) {
        fprintf(stderr, "cbradioctl: %s done (the service gives it no result)\n", cmd.method.c_str());
        return EXIT_OK;
    }
    if (status != 0)
        return reportFailure(cmd, status, timeoutS);
    std::string reply = resp->result;
    SVCIPC_freeResponse(resp);
    fputs(withNewline(reply).c_str(), stdout);
    return exitCodeForReply(reply);
}

int runProps(SVCIPC_tConnection conn, const Command& cmd, double timeoutS)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs(timeoutS));
    SignalQueue queue;
    SVCIPC_tSigSubHnd sub = nullptr;
    SVCIPC_tError status = SVCIPC_subscribe(conn, cmd.objPath.c_str(), cmd.signals[0].c_str(), &SignalQueue::onSignal,
                                            &queue, &sub);
    if (status != 0)
        return reportFailure(cmd, status, timeoutS);
    SVCIPC_tResponse* resp = nullptr;
    status = SVCIPC_invoke(conn, cmd.busName.c_str(), cmd.objPath.c_str(), cmd.method.c_str(), cmd.params.c_str(), 0,
                           timeoutMs(timeoutS), &resp);
    if (status != 0)
        return reportFailure(cmd, status, timeoutS);
    std::string reply = resp->result;
    SVCIPC_freeResponse(resp);
    if (exitCodeForReply(reply) != EXIT_OK) {
        fputs(withNewline(reply).c_str(), stdout);
        return EXIT_FAILURE_REPLY;
    }
    std::string line;
    if (!queue.pop(deadline, line)) {
        fprintf(stderr, "cbradioctl: the service accepted the query but sent no %s within %g s\n",
                cmd.signals[0].c_str(), timeoutS);
        return EXIT_TIMEOUT;
    }
    // "HH:MM:SS.mmm <signal> <json>": props prints the payload only.
    line = line.substr(line.find(' ', line.find(' ') + 1) + 1);
    fputs(withNewline(line).c_str(), stdout);
    return EXIT_OK;
}

int runWatch(SVCIPC_tConnection conn, const Command& cmd)
{
    int exitCode = EXIT_OK;
    if (!serviceOnBus(conn, cmd, exitCode)) {
        if (exitCode != EXIT_NOT_ON_BUS)
            return exitCode;
        fprintf(stderr, "cbradioctl: watching anyway; signals appear once the service starts\n");
    }
    SignalQueue queue;
    const std::vector<std::string>& names = cmd.signals.empty() ? serviceSignals() : cmd.signals;
    for (const std::string& name : names) {
        SVCIPC_tSigSubHnd sub = nullptr;
        SVCIPC_tError status = SVCIPC_subscribe(conn, cmd.objPath.c_str(), name.c_str(), &SignalQueue::onSignal, &queue,
                                                &sub);
        if (status != 0)
            return reportFailure(cmd, status, 0);
    }
    const bool limited = cmd.timeoutS > 0;
    const Clock::time_point end = limited ? Clock::now() + std::chrono::milliseconds(timeoutMs(cmd.timeoutS))
                                          : Clock::time_point::max();
    long printed = 0;
    while (cmd.count == 0 || printed < cmd.count) {
        // Wake at least once a second to notice a bus that went away.
        const Clock::time_point until = std::min(end, Clock::now() + std::chrono::seconds(1));
        std::string line;
        if (queue.pop(until, line)) {
            fputs(withNewline(line).c_str(), stdout);
            fflush(stdout);
            ++printed;
            continue;
        }
        if (Clock::now() >= end)
            return cmd.count > 0 ? EXIT_TIMEOUT : EXIT_OK;
        SVCIPC_tBool owned = 0;
        SVCIPC_tError status = SVCIPC_nameHasOwner(conn, cmd.busName.c_str(), &owned, 5000);
        if (status != 0 && status != SVCIPC_ERR_TIMEOUT)
            return reportFailure(cmd, status, 0);
    }
    return EXIT_OK;
}
}  // namespace

int main(int argc, char** argv)
{
    Command cmd = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (cmd.kind == Command::Kind::Help) {
        fputs(cmd.text.c_str(), stdout);
        return EXIT_OK;
    }
    if (cmd.kind == Command::Kind::Usage) {
        fputs(cmd.text.c_str(), stderr);
        return EXIT_USAGE;
    }
    std::string refusal;
    if (CBRadioEnvars::busAddressForTool(refusal).empty()) {
        if (!refusal.empty())
            fprintf(stderr, "cbradioctl: %s\n", refusal.c_str());
        fprintf(stderr, "cbradioctl: no session bus: DBUS_SESSION_BUS_ADDRESS is not set and "
                        "$CBRADIO_ROOT/tmp/envars.sh names none\n");
        return EXIT_BUS_ERROR;
    }
    SVCIPC_tConnection conn = nullptr;
    SVCIPC_tError status = SVCIPC_initialize();
    if (status == 0)
        status = SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 0, &conn);
    if (status != 0) {
        fprintf(stderr, "cbradioctl: cannot reach the session bus (%s)\n", SVCIPC_errorText(status));
        return EXIT_BUS_ERROR;
    }

    const double timeoutS = cmd.timeoutS > 0 ? cmd.timeoutS : kDefaultCallTimeoutS;
    int exitCode = EXIT_OK;
    switch (cmd.kind) {
    case Command::Kind::Call:
        exitCode = runCall(conn, cmd, timeoutS);
        break;
    case Command::Kind::Props:
        exitCode = runProps(conn, cmd, timeoutS);
        break;
    case Command::Kind::Watch:
        exitCode = runWatch(conn, cmd);
        break;
    default:
        break;
    }
    fflush(stdout);
    SVCIPC_shutdown();
    return exitCode;
}
