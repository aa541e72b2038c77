#include "JTSafeFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool JTSafeFile::isSafeFolder(const char* hostFolder)
{
    struct stat st;
    if (hostFolder == nullptr || ::lstat(hostFolder, &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    if ((st.st_mode & S_IWOTH) != 0 && (st.st_mode & S_ISVTX) == 0) {
        errno = EPERM;
        return false;
    }
    return true;
}

bool JTSafeFile::makeFolder(const char* hostFolder, mode_t mode)
{
    char buffer[512];
    size_t length = hostFolder != nullptr ? std::strlen(hostFolder) : 0;
    if (length == 0 || length >= sizeof(buffer)) {
        errno = length == 0 ? ENOENT : ENAMETOOLONG;
        return false;
    }
    std::memcpy(buffer, hostFolder, length + 1);
    for (size_t pos = 1; pos <= length; ++pos) {
        if (buffer[pos] != '/' && buffer[pos] != '\0')
            continue;
        char saved = buffer[pos];
        buffer[pos] = '\0';
        if (::mkdir(buffer, mode) != 0 && errno != EEXIST)
            return false;
        buffer[pos] = saved;
    }
    return isSafeFolder(hostFolder);
}

int JTSafeFile::createExclusive(const char* hostPath, mode_t mode)
{
    for (int attempt = 0;; ++attempt) {
        int fd;
        do {
            fd = ::open(hostPath, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        } while (fd < 0 && errno == EINTR);
        if (fd >= 0 || errno != EEXIST || attempt > 0 || ::unlink(hostPath) != 0)
            return fd;
    }
}
