// The scope manager's persistence: the binary block and the text file of trace settings.
#include "CJTTraceScopeManager.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CJTByteStream.h"
#include "CJTSortedScopeDefList.h"
#include "CJTTraceHelper.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "IJTTracePersistence.h"
#include "JTAssert.h"
#include "JTSyslog.h"
#include "TJTFormatString.h"

namespace
{
// Module number of the trace framework's own system-log lines.
const unsigned int kSyslogModule = 0;
// Bytes read from a text file at a time; lines are never split across two reads.
const size_t kChunkSize = 4095;

CJTTraceScopeDef gsTraceServerScopeDef_imp_sys_tracesrv_CJTTraceScopeManager_persistence(
    "imp_sys_tracesrv_CJTTraceScopeManager", "persistence");

ssize_t readRepeating(int fd, char* buffer, size_t size)
{
    ssize_t n;
    do {
        n = read(fd, buffer, size);
    } while (n < 0 && errno == EINTR);
    return n;
}
}

CJTTraceScopeDef& getPersistenceScopeDef()
{
    return gsTraceServerScopeDef_imp_sys_tracesrv_CJTTraceScopeManager_persistence;
}

bool CJTTraceScopeManager::loadBinaryPersistence(IJTTracePersistence& persistence, const char* name)
{
    CJTTraceScope scope(getPersistenceScopeDef());
    if (!name)
        name = "";

    std::lock_guard<std::recursive_mutex> guard(mLock);
    const size_t count = mDefs.size();
    const size_t expected = 3 * count + 1;
    CJTByteStream data;
    data.reserve(static_cast<uint32_t>(expected));
    persistence.load(name, data);
    mSettingsInStep.store(0, std::memory_order_relaxed);

    const size_t length = data.getSize();
    if (length == expected) {
        const uint8_t* bytes = static_cast<const uint8_t*>(data.getData());
        setSilent(bytes[0] == 1);
        for (size_t i = 0; i < count; ++i)
            configureScope(static_cast<uint16_t>(i), bytes[1 + 3 * i], bytes[2 + 3 * i], bytes[3 + 3 * i]);
        mSettingsInStep.store(1, std::memory_order_relaxed);
        return true;
    }
    if (length == 0) {
        JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_INFO, "Binary persistence for '%s' is empty.", name);
        scope.sendFormattedMessage("Binary persistence for '%s' is empty.", name);
        return false;
    }
    int found = static_cast<int>((length - 1) / 3);
    JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_WARNING,
                     "Binary persistence for '%s' does not match: expected %d scopes, but found %d.", name,
                     static_cast<int>(count), found);
    scope.sendFormattedError("Binary persistence for '%s' does not match: expected %d scopes, but found %d.", name,
                             static_cast<int>(count), found);
    return false;
}

bool CJTTraceScopeManager::storeBinaryPeristence(IJTTracePersistence& persistence, const char* name)
{
    CJTTraceScope scope(getPersistenceScopeDef());
    std::lock_guard<std::recursive_mutex> guard(mLock);
    CJTByteStream data;
    data.reserve(static_cast<uint32_t>(3 * mDefs.size() + 1));
    data.writeUInt8(getSilent());
    for (CJTTraceScopeDef* def : mDefs) {
        if (!def)
            continue;
        data.writeUInt8(def->getFilter());
        data.writeUInt8(def->getMedia());
        data.writeUInt8(def->getKernelEvent());
    }
    persistence.store(name ? name : "", data);
    mSettingsInStep.store(1, std::memory_order_relaxed);
    return true;
}

int CJTTraceScopeManager::openTextPersistenceFile(const char* file)
{
    CJTTraceScope scope(getPersistenceScopeDef());
    struct stat info;
    if (!file || stat(file, &info) != 0) {
        scope.sendFormattedWarning("Unable to load text trace persistence: '%s' does not exist", file ? file : "");
        return -1;
    }

    // Opened without waiting (a FIFO would block until a writer came), and taken only when it is
    // a regular file: a FIFO, socket, folder or device is refused like an unreadable file.
    int fd;
    do {
        fd = open(file, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0 && (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))) {
        close(fd);
        fd = -1;
    }
    if (fd < 0) {
        TJTFormatString<400> text("Unable to load text trace persistence: %s could not be opened", file);
        JT_ASSERT_MSG(false, text.c_str());
        return -1;
    }

    // The header is scanned like fscanf("JTTracePersistence %d.%d.%d\n") would: the file then
    // continues after the numbers and any white space that follows them.
    char head[kChunkSize + 1];
    ssize_t n = readRepeating(fd, head, kChunkSize);
    head[n > 0 ? n : 0] = '\0';
    int major = 0;
    int minor = 0;
    int patch = 0;
    int consumed = 0;
    if (sscanf(head, "JTTracePersistence %d.%d.%d%n", &major, &minor, &patch, &consumed) < 3) {
        scope.sendFormattedError("Unable to load text trace persistence: '%s' does not include version info.", file);
        close(fd);
        return -1;
    }
    if (major != sTextFormatVersion.major || minor < 0 || minor > sTextFormatVersion.minor) {
        scope.sendFormattedError(
            "Unable to load text trace persistence: '%s' requires version %d.%d.%d, but current version is %d.%d.%d.",
            file, major, minor, patch, sTextFormatVersion.major, sTextFormatVersion.minor, sTextFormatVersion.patch);
        close(fd);
        return -1;
    }
    while (consumed < n && isspace(static_cast<unsigned char>(head[consumed])))
        ++consumed;
    if (lseek(fd, consumed, SEEK_SET) != static_cast<off_t>(consumed)) {
        close(fd);
        return -1;
    }
    return fd;
}

bool CJTTraceScopeManager::loadTextPersistence(const char* file)
{
    CJTTraceScope scope(getPersistenceScopeDef());
    setSilent(false);
    int fd = openTextPersistenceFile(file);
    if (fd < 0)
        return false;

    CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr();
    const char* processName = helper ? helper->getProcessName() : nullptr;
    bool selected = true;  // lines before the first section header apply to every process
    int lineNumber = 1;    // the header was line 1
    bool atEnd = false;
    char chunk[kChunkSize + 1];

    for (;;) {
        ssize_t n = readRepeating(fd, chunk, kChunkSize);
        if (n <= 0) {
            atEnd = n == 0;
            break;
        }
        size_t used = static_cast<size_t>(n);
        if (used == kChunkSize) {
            // Maybe not at the end: keep whole lines only and read the rest again next time. A
            // chunk without any newline is one over-long line and is taken as it is.
            const char* last = static_cast<const char*>(memrchr(chunk, '\n', used));
            if (last && last != chunk + used - 1) {
                size_t keep = static_cast<size_t>(last - chunk) + 1;
                if (lseek(fd, -static_cast<off_t>(used - keep), SEEK_CUR) < 0)
                    break;  // cannot step back to the cut line: stop, not at the end
                used = keep;
            }
        }
        chunk[used] = '\0';
        char* save = nullptr;
        for (char* line = strtok_r(chunk, "\n", &save); line; line = strtok_r(nullptr, "\n", &save))
            applyTextLine(scope, file, ++lineNumber, line, selected, processName);
    }

    {
        std::lock_guard<std::recursive_mutex> guard(mLock);
        mpSortedList.reset();
    }
    close(fd);
    return atEnd;
}

void CJTTraceScopeManager::applyTextLine(const CJTTraceScope& scope, const char* file, int lineNumber, char* line,
                                         bool& selected, const char* processName)
{
    if (line[0] == '#')
        return;
    if (line[0] == '[') {
        char section[258] = "";
        if (sscanf(line, "[%256s]", section) < 1)
            section[0] = '\0';
        if (char* bracket = strchr(section, ']'))
            *bracket = '\0';
        selected = strcmp(section, "*") == 0 || (processName && strcmp(section, processName) == 0);
        return;
    }
    if (!selected)
        return;

    char format[32];
    snprintf(format, sizeof(format), "%%%3ds %%2x %%2x %%2x", 400);
    char prefix[401] = "";
    unsigned int filter = 0;
    unsigned int media = 0;
    unsigned int kernelEvent = 0;
    int fields = sscanf(line, format, prefix, &filter, &media, &kernelEvent);
    if (fields < 3) {
        scope.sendFormattedError("%s:%d: Skipping invalid text persistence line '%s'", file, lineNumber, line);
        return;
    }
    bool matched = fields == 3
                       ? configureScopesByName(prefix, static_cast<uint8_t>(filter), static_cast<uint8_t>(media))
                       : configureScopesByName(prefix, static_cast<uint8_t>(filter), static_cast<uint8_t>(media),
                                               static_cast<uint8_t>(kernelEvent));
    if (!matched)
        scope.sendFormattedWarning("%s:%d: No scope matches '%s'", file, lineNumber, prefix);
}
