#include "CBRadioEnvars.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
const char* const KEYS[] = {"DBUS_SESSION_BUS_ADDRESS=", "DBUS_SESSION_BUS_PID=", "SVCIPC_DISPATCH_PRIORITY="};

CBRadioEnvars::File refuse(int fd, CBRadioEnvars::Verdict verdict, const std::string& why)
{
    if (fd >= 0)
        ::close(fd);
    CBRadioEnvars::File file;
    file.verdict = verdict;
    file.why = why;
    return file;
}
}

CBRadioEnvars::File CBRadioEnvars::open(const char* hostPath, uid_t user)
{
    struct stat st;
    if (hostPath == nullptr || ::lstat(hostPath, &st) != 0 || st.st_size == 0 || S_ISFIFO(st.st_mode))
        return File();
    if (S_ISLNK(st.st_mode))
        return refuse(-1, UNTRUSTED, "is a symbolic link");
    const int fd = ::open(hostPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return refuse(-1, errno == ELOOP ? UNTRUSTED : UNOPENABLE, std::strerror(errno));
    if (::fstat(fd, &st) != 0)
        return refuse(fd, UNOPENABLE, std::strerror(errno));
    char why[128];
    if (!S_ISREG(st.st_mode))
        return refuse(fd, UNTRUSTED, "is not a regular file");
    if (st.st_uid != 0 && st.st_uid != user) {
        std::snprintf(why, sizeof(why), "is owned by uid %u, neither root nor this process's user (uid %u)",
                      static_cast<unsigned>(st.st_uid), static_cast<unsigned>(user));
        return refuse(fd, UNTRUSTED, why);
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        std::snprintf(why, sizeof(why), "is writable by group or others (mode %03o)",
                      static_cast<unsigned>(st.st_mode & 0777));
        return refuse(fd, UNTRUSTED, why);
    }
    // Reads from a regular file never block; the flag only mattered while it could be a FIFO.
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    File file;
    file.verdict = READABLE;
    file.fd = fd;
    return file;
}

bool CBRadioEnvars::parseLine(char* line, char** name, char** value)
{
    char* start = nullptr;
    for (const char* key : KEYS) {
        start = std::strstr(line, key);
        if (start != nullptr)
            break;
    }
    if (start == nullptr)
        return false;
    char* semicolon = std::strchr(start, ';');
    if (semicolon != nullptr)
        *semicolon = '\0';
    char* equals = std::strchr(start, '=');
    if (equals == nullptr)
        return false;
    *equals = '\0';
    char* text = equals + 1;
    while (*text == '\'')
        ++text;
    size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '\'') {
        while (length > 0 && text[length - 1] == '\'')
            text[--length] = '\0';
    }
    *name = start;
    *value = text;
    return true;
}

CBRadioEnvars::File CBRadioEnvars::exportFrom(const char* hostPath, uid_t user, std::vector<std::string>* refused)
{
    File envars = open(hostPath, user);
    if (envars.verdict != READABLE)
        return envars;
    const int fd = envars.fd;
    envars.fd = -1;
    FILE* file = ::fdopen(fd, "r");
    if (file == nullptr)
        return refuse(fd, UNOPENABLE, std::strerror(errno));
    char line[512];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        char* name = nullptr;
        char* value = nullptr;
        if (parseLine(line, &name, &value) && ::setenv(name, value, 1) != 0 && refused != nullptr)
            refused->push_back(name);
    }
    std::fclose(file);
    return envars;
}

std::string CBRadioEnvars::busAddressForTool(std::string& refusal)
{
    refusal.clear();
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr && *address != '\0')
        return address;
    // The root prefix as every program of the system applies it; the tools never change their
    // working directory, so a relative prefix needs no resolving.
    const char* root = std::getenv("CBRADIO_ROOT");
    const std::string hostPath = std::string(root != nullptr ? root : "") + "/tmp/envars.sh";
    const File envars = exportFrom(hostPath.c_str(), ::geteuid());
    if (envars.verdict == UNTRUSTED)
        refusal = "not reading " + hostPath + ": it " + envars.why;
    else if (envars.verdict == UNOPENABLE)
        refusal = "cannot open " + hostPath + ": " + envars.why;
    address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    return address != nullptr ? address : "";
}
