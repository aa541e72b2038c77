#include "CtlEnvironment.h"

#include <cstdlib>
#include <fstream>

namespace cbradioctl
{

std::string addressFromEnvFile(const std::string& hostPath)
{
    static const std::string kKey = "DBUS_SESSION_BUS_ADDRESS=";
    std::ifstream in(hostPath);
    std::string line, address;
    while (std::getline(in, line)) {
        size_t at = line.find(kKey);
        if (at == std::string::npos)
            continue;
        std::string value = line.substr(at + kKey.size());
        value = value.substr(0, value.find(';'));
        while (!value.empty() && (value.back() == '\r' || value.back() == '\n'))
            value.pop_back();
        size_t first = value.find_first_not_of('\'');
        size_t last = value.find_last_not_of('\'');
        address = first == std::string::npos ? "" : value.substr(first, last - first + 1);
    }
    return address;  // the last assignment wins, as in a shell
}

std::string resolveBusAddress()
{
    const char* env = getenv("DBUS_SESSION_BUS_ADDRESS");
    if (env && *env)
        return env;
    // The root prefix as every program of the system applies it; this tool never changes its
    // working directory, so a relative prefix needs no resolving.
    const char* root = getenv("CBRADIO_ROOT");
    std::string address = addressFromEnvFile(std::string(root ? root : "") + "/tmp/envars.sh");
    if (!address.empty())
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    return address;
}

}  // namespace cbradioctl
