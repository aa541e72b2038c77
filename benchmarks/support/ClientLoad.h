// ClientLoad: several clients calling one method as fast as the replies come, each a thread with
// a private plain libdbus connection of its own, for a fixed time; and the CPU time a process has
// used, to put a server's cost per call beside its throughput.
#ifndef CLIENTLOAD_H
#define CLIENTLOAD_H

#include <dbus/dbus.h>

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

class ClientLoad
{
public:
    ~ClientLoad() { stop(); }
    // Opens one connection per client; false when one cannot be opened.
    bool start(const std::string& address, int clients);
    void stop();

    // Every client calls `member` with an empty argument on the peer `name` (also its interface)
    // at `path`, one call after another, until `duration` has passed. Returns the calls answered;
    // a call without an answer ends that client's run.
    long run(const std::string& name, const std::string& path, const char* member, std::chrono::milliseconds duration);

private:
    std::vector<DBusConnection*> mConnections;
};

// User plus system time of every thread of process `pid` so far, in seconds (/proc/<pid>/stat,
// clock-tick resolution); negative when it cannot be read.
double processCpuSeconds(pid_t pid);

#endif
