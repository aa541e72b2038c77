#include "CJTTraceHelper.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/uio.h>
#include <unistd.h>

#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CJTTraceScopeManager.h"
#include "JTAssert.h"
#include "JTKernelTrace.h"
#include "JTOperatingSystem.h"
#include "JTSyslog.h"
#include "TJTFormatString.h"

const CJTVersion CJTTraceHelper::sRequiredServerVersion(1, 0, 0);

std::atomic<CJTTraceHelper*> CJTTraceHelper::spInstance{nullptr};

namespace
{
// Module number of the trace framework's own system-log lines.
const unsigned int kSyslogModule = 0;
// Kernel trace event codes of scopes start here.
const unsigned int kKernelEventBase = 768;

std::mutex& instanceLock()
{
    static std::mutex lock;
    return lock;
}

// Writes all of the pieces with as few writev(2) calls as the descriptor allows (one for any line
// that fits a pipe's atomic size), repeating on EINTR.
void writeAll(int fd, struct iovec* parts, int count)
{
    while (count > 0) {
        ssize_t n = writev(fd, parts, count);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        size_t done = static_cast<size_t>(n);
        while (count > 0 && done >= parts->iov_len) {
            done -= parts->iov_len;
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + done;
            parts->iov_len -= done;
        }
    }
}
}

CJTTraceHelper::CJTTraceHelper(CJTTraceScopeManager& scopeManager, CJTTraceCallbackManager* callbackManager)
    : mHasProcessName(false), mProcessId(static_cast<uint32_t>(JTOperatingSystem::getCurrentPID())), mpChannel(nullptr),
      mServerVersion(), mScopeManager(scopeManager), mpCallbackManager(callbackManager), mpPersistence(nullptr)
{
    static const tTraceHandler functions[HANDLER_SLOTS] = {sendToTraceClient, sendToKernelTrace, sendToSlog,
                                                           sendToConsole};
    static const char* const names[HANDLER_SLOTS] = {"Trace Client", "Kernel Trace", "Slog", "Console"};
    for (int i = 0; i < HANDLER_SLOTS; ++i) {
        mHandlers[i].function.store(functions[i], std::memory_order_relaxed);
        mHandlers[i].name.store(names[i], std::memory_order_relaxed);
    }
}

CJTTraceHelper::~CJTTraceHelper() {}

CJTTraceHelper* CJTTraceHelper::getInstancePtr()
{
    CJTTraceHelper* helper = spInstance.load(std::memory_order_acquire);
    if (helper)
        return helper;
    std::lock_guard<std::mutex> guard(instanceLock());
    helper = spInstance.load(std::memory_order_relaxed);
    if (!helper) {
        helper = new CJTTraceHelper(CJTTraceScopeManager::getInstance(), nullptr);
        spInstance.store(helper, std::memory_order_release);
    }
    return helper;
}

CJTTraceHelper& CJTTraceHelper::getInstance()
{
    return *getInstancePtr();
}

CJTTraceHelper* CJTTraceHelper::getHelperPtr()
{
    return spInstance.load(std::memory_order_acquire);
}

void CJTTraceHelper::destroy()
{
    std::lock_guard<std::mutex> guard(instanceLock());
    delete spInstance.exchange(nullptr, std::memory_order_acq_rel);
}

void CJTTraceHelper::setProcessName(const char* name)
{
    mHasProcessName = name != nullptr;
    mProcessName = name ? name : "";
}

void CJTTraceHelper::sendTraceMsg(uint8_t kind, const char* text, const CJTTraceScopeDef& def)
{
    tTraceMessageInfo info;
    info.kind = kind;
    info.text = text ? text : "";
    info.timeMs = JTOperatingSystem::currentTimeMs();
    info.processId = mProcessId;
    info.threadId = JTOperatingSystem::getCurrentTID();
    info.scopeDef = &def;

    uint8_t media = def.getMedia();
    for (int slot = 0; slot < HANDLER_SLOTS; ++slot) {
        if ((media & (1u << slot)) == 0)
            continue;
        if (tTraceHandler handler = mHandlers[slot].function.load(std::memory_order_relaxed))
            handler(info);
    }
}

void CJTTraceHelper::sendTraceMsg(uint8_t kind, const char* text)
{
    CJTTraceScopeDef temporary("", "", kind, MEDIA_TRACE_CLIENT);
    sendTraceMsg(kind, text, temporary);
}

void CJTTraceHelper::sendTraceMsgEx(uint8_t kind, uint32_t identifier, const char* text, const CJTTraceScopeDef& def)
{
    // Extended messages go only to the trace server; without a channel there is nowhere to send.
    writeTraceRecordEx(kind, identifier, text, def);
}

const char* CJTTraceHelper::getPrefix(uint8_t kind)
{
    switch (kind) {
    case CJTTraceScope::KIND_ERROR:
        return "ERR";
    case CJTTraceScope::KIND_ENTRY:
        return "-->";
    case CJTTraceScope::KIND_EXIT:
        return "<--";
    case CJTTraceScope::KIND_WARNING:
        return "WRN";
    case CJTTraceScope::KIND_MESSAGE:
        return "MSG";
    default:
        return "???";
    }
}

void CJTTraceHelper::setHandler(uint8_t mediaBit, tTraceHandler function, const char* name)
{
    if (!function)
        return;
    if (mediaBit < 1 || mediaBit > 8)
        doAssert(809, "src/CJTTraceHelper", nullptr);
    int slot;
    switch (mediaBit) {
    case MEDIA_TRACE_CLIENT:
        slot = 0;
        break;
    case MEDIA_KERNEL_TRACE:
        slot = 1;
        break;
    case MEDIA_SLOG:
        slot = 2;
        break;
    case MEDIA_CONSOLE:
        slot = 3;
        break;
    default:
        return;
    }
    mHandlers[slot].name.store(name, std::memory_order_relaxed);
    mHandlers[slot].function.store(function, std::memory_order_relaxed);
}

CJTTraceHelper::tTraceHandler CJTTraceHelper::getHandler(unsigned slot) const
{
    return slot < HANDLER_SLOTS ? mHandlers[slot].function.load(std::memory_order_relaxed) : nullptr;
}

const char* CJTTraceHelper::getHandlerName(unsigned slot) const
{
    return slot < HANDLER_SLOTS ? mHandlers[slot].name.load(std::memory_order_relaxed) : nullptr;
}

void CJTTraceHelper::sendToNirvana(const tTraceMessageInfo& info)
{
    (void)info;
}

void CJTTraceHelper::sendToTraceClient(const tTraceMessageInfo& info)
{
    // Records reach the trace server only through a connected trace channel.
    if (CJTTraceHelper* helper = getHelperPtr())
        helper->writeTraceRecord(info);
}

void CJTTraceHelper::sendToKernelTrace(const tTraceMessageInfo& info)
{
    TJTFormatString<512> line("[%s] %s", getPrefix(info.kind), info.text);
    unsigned int event = kKernelEventBase + (info.scopeDef ? info.scopeDef->getKernelEvent() : 0);
    JTKernelTrace::addStringUserEvent(event, line);
}

void CJTTraceHelper::sendToSlog(const tTraceMessageInfo& info)
{
    unsigned int severity = JTSyslog::SEV_INFO;
    if (info.kind == CJTTraceScope::KIND_ERROR)
        severity = JTSyslog::SEV_WARNING;
    else if (info.kind == CJTTraceScope::KIND_WARNING)
        severity = JTSyslog::SEV_NOTICE;
    JTSyslog::logMsg(kSyslogModule, severity, "[%s]@%d (%d.%d): %s", getPrefix(info.kind),
                     static_cast<int>(info.timeMs), static_cast<int>(info.processId), static_cast<int>(info.threadId),
                     info.text);
}

void CJTTraceHelper::sendToConsole(const tTraceMessageInfo& info)
{
    bool toStderr = info.kind == CJTTraceScope::KIND_ERROR || info.kind == CJTTraceScope::KIND_WARNING;
    FILE* stream = toStderr ? stderr : stdout;

    TJTFormatString<96> head("[%s]@%d (%d.%d): ", getPrefix(info.kind), static_cast<int>(info.timeMs),
                             static_cast<int>(info.processId), static_cast<int>(info.threadId));
    struct iovec parts[3];
    parts[0].iov_base = const_cast<char*>(head.c_str());
    parts[0].iov_len = head.length();
    parts[1].iov_base = const_cast<char*>(info.text);
    parts[1].iov_len = strlen(info.text);
    parts[2].iov_base = const_cast<char*>("\n");
    parts[2].iov_len = 1;

    // The stream's lock orders the line after anything the process printed through stdio before
    // and keeps lines of different threads whole; the line itself bypasses stdio buffering.
    flockfile(stream);
    fflush_unlocked(stream);
    writeAll(fileno(stream), parts, 3);
    funlockfile(stream);
}
