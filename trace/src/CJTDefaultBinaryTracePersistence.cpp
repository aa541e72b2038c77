#include "CJTDefaultBinaryTracePersistence.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CJTByteStream.h"
#include "JTRootPrefix.h"
#include "JTSafeFile.h"
#include "JTSyslog.h"

const char* const CJTDefaultBinaryTracePersistence::sFolder = "/var/lib/cbradio/trace";

namespace
{
const unsigned int kSyslogModule = 0;

void reportFailure(const char* action, const std::string& path)
{
    JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_WARNING, "Trace persistence: cannot %s '%s': %s", action,
                     path.c_str(), strerror(errno));
}

bool writeAll(int fd, const uint8_t* data, size_t size)
{
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}
}

CJTDefaultBinaryTracePersistence& CJTDefaultBinaryTracePersistence::getInstance()
{
    static CJTDefaultBinaryTracePersistence instance;
    return instance;
}

std::string CJTDefaultBinaryTracePersistence::getPath(const char* name)
{
    if (!name || name[0] == '\0' || strchr(name, '/') || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return std::string();
    std::string platformPath = std::string(sFolder) + "/" + name + ".bin";
    return JTRootPrefix::resolve(platformPath.c_str());
}

void CJTDefaultBinaryTracePersistence::load(const char* name, CJTByteStream& data)
{
    std::string path = getPath(name);
    if (path.empty())
        return;
    int fd;
    do {
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        if (errno != ENOENT)
            reportFailure("read", path);
        return;
    }
    uint8_t buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            reportFailure("read", path);
        if (n <= 0)
            break;
        data.doWrite(buffer, static_cast<uint32_t>(n));
    }
    close(fd);
}

void CJTDefaultBinaryTracePersistence::store(const char* name, CJTByteStream& data)
{
    std::string path = getPath(name);
    if (path.empty())
        return;
    if (!JTSafeFile::makeFolder(path.substr(0, path.rfind('/')).c_str())) {
        reportFailure("create the folder of", path);
        return;
    }
    // Written to a new file beside the target and renamed over it, so readers see the old or the
    // new block, and a link planted at the temporary name is never followed.
    std::string temporary = path + ".tmp." + std::to_string(getpid());
    int fd = JTSafeFile::createExclusive(temporary.c_str(), 0644);
    if (fd < 0) {
        reportFailure("write", temporary);
        return;
    }
    bool written = writeAll(fd, static_cast<const uint8_t*>(data.getData()), data.getSize());
    if (close(fd) != 0)
        written = false;
    if (!written || rename(temporary.c_str(), path.c_str()) != 0) {
        reportFailure("write", path);
        unlink(temporary.c_str());
    }
}

void CJTDefaultBinaryTracePersistence::kill(const char* name)
{
    std::string path = getPath(name);
    if (path.empty())
        return;
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        reportFailure("remove", path);
}

bool CJTDefaultBinaryTracePersistence::isKillRequired() const
{
    return false;
}
