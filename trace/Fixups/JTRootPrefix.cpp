#include "JTRootPrefix.h"

#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace
{
std::string& prefixStorage()
{
    static std::string prefix;
    return prefix;
}

std::string readPrefix()
{
    const char* value = std::getenv("CBRADIO_ROOT");
    if (value == nullptr || *value == '\0')
        return std::string();
    std::string prefix(value);
    if (prefix[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof(cwd)) != nullptr)
            prefix = std::string(cwd) + "/" + prefix;
    }
    while (prefix.size() > 1 && prefix.back() == '/')
        prefix.pop_back();
    if (prefix == "/")
        prefix.clear();
    return prefix;
}

// Taken during static initialisation, before main() can change the working directory.
const bool sInitialised = (JTRootPrefix::reload(), true);
}

const std::string& JTRootPrefix::get()
{
    (void)sInitialised;
    return prefixStorage();
}

const std::string& JTRootPrefix::reload()
{
    prefixStorage() = readPrefix();
    return prefixStorage();
}

std::string JTRootPrefix::resolve(const char* platformPath)
{
    if (platformPath == nullptr)
        return std::string();
    const std::string& prefix = get();
    if (prefix.empty() || platformPath[0] != '/')
        return std::string(platformPath);
    return prefix + platformPath;
}
