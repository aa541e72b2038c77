#include "ProcessInfo.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace
{
long statusField(pid_t pid, const std::string& field)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, field.size() + 1, field + ":") == 0)
            return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
    }
    return -1;
}

std::string programOf(const std::string& pidText)
{
    std::ifstream cmdline("/proc/" + pidText + "/cmdline");
    std::string argv0;
    std::getline(cmdline, argv0, '\0');
    const size_t slash = argv0.rfind('/');
    return slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
}
}

long residentKb(pid_t pid)
{
    return statusField(pid, "VmRSS");
}

long peakKb(pid_t pid)
{
    return statusField(pid, "VmHWM");
}

pid_t findProcess(const std::string& baseName)
{
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr)
        return 0;
    pid_t found = 0;
    const pid_t self = ::getpid();
    while (const dirent* entry = ::readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (*end != '\0' || pid <= 0 || pid == self || programOf(entry->d_name) != baseName)
            continue;
        found = found == 0 ? static_cast<pid_t>(pid) : -1;
    }
    ::closedir(proc);
    return found;
}
