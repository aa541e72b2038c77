#include "ClientLoad.h"

#include "PlainDbus.h"

#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

bool ClientLoad::start(const std::string& address, int clients)
{
    for (int i = 0; i < clients; ++i) {
        DBusConnection* connection = PlainDbus::openConnection(address);
        if (connection == nullptr)
            return false;
        mConnections.push_back(connection);
    }
    return true;
}

void ClientLoad::stop()
{
    for (DBusConnection* connection : mConnections)
        PlainDbus::closeConnection(connection);
    mConnections.clear();
}

long ClientLoad::run(const std::string& name, const std::string& path, const char* member,
                     std::chrono::milliseconds duration)
{
    const auto end = std::chrono::steady_clock::now() + duration;
    std::atomic<long> calls{0};
    std::vector<std::thread> clients;
    for (DBusConnection* connection : mConnections) {
        clients.emplace_back([&, connection] {
            long own = 0;
            while (std::chrono::steady_clock::now() < end && PlainDbus::call(connection, name, path, member, ""))
                ++own;
            calls += own;
        });
    }
    for (std::thread& client : clients)
        client.join();
    return calls;
}

double processCpuSeconds(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return -1;
    // The command name in parentheses may hold spaces; the fields after it start with the state
    // (field 3), so utime and stime (fields 14 and 15) are the 12th and 13th after it.
    const size_t close = line.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(line.substr(close + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    unsigned long long user = 0, system = 0;
    if (!(fields >> user >> system))
        return -1;
    return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}
