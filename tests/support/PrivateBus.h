// PrivateBus: a dbus-daemon of the test's own, never the host's bus.
//
// start() writes a session-bus configuration into a fresh temporary folder, starts
// `dbus-daemon --config-file=<it> --nofork --print-address` and reads the address it listens on.
// The destructor (or stop()) kills the daemon and removes the folder. kill() ends the daemon
// abruptly, as a crash would, for tests of a bus that goes away. exportAddress() sets
// DBUS_SESSION_BUS_ADDRESS for this process and its children.
#ifndef PRIVATEBUS_H
#define PRIVATEBUS_H

#include "ChildProcess.h"

#include <string>

class PrivateBus
{
public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // False, with error() telling why, when the daemon could not be started within 10 s.
    bool start();
    void stop();
    void kill();  // SIGKILL, then reap; the folder stays until stop() or destruction

    const std::string& address() const { return mAddress; }
    const std::string& error() const { return mError; }
    pid_t pid() const { return mDaemon.pid(); }
    void exportAddress() const;

private:
    ChildProcess mDaemon;
    std::string mAddress;
    std::string mFolder;
    std::string mError;
};

#endif
