// The trace helper's side of the trace server: registration and version check, the commands the
// server sends, log messages, the start-up options, and the framework's own callbacks.
#include "CJTTraceHelper.h"

#include "CJTTraceCallback.h"
#include "CJTTraceCommand.h"
#include "CJTTraceMessageData.h"
#include "CJTTraceScopeDef.h"
#include "CJTTraceScopeManager.h"
#include "IJTTraceChannel.h"
#include "JTOperatingSystem.h"
#include "JTSyslog.h"

#include <cstdio>
#include <cstring>

namespace
{
const unsigned int kSyslogModule = 0;

CJTTraceCallbackDef gsLoadPersistent(CJTTraceHelper_loadPersistent, "CJTTraceHelper_loadPersistent",
                                     "load trace settings from persistence");
CJTTraceCallbackDef gsStorePersistent(CJTTraceHelper_storePersistent, "CJTTraceHelper_storePersistent",
                                      "save trace settings to persistence");
CJTTraceCallbackDef gsKillPersistent(CJTTraceHelper_killPersistent, "CJTTraceHelper_killPersistent",
                                     "kill persistent trace settings");

// Scope list progress: every scope below 10 scopes, every tenth below 100, every fiftieth above.
uint32_t scopeListStep(uint32_t count)
{
    return count < 10 ? 1 : count < 100 ? 10 : 50;
}

CJTTraceCallbackManager& callbacksOf(const CJTTraceHelper& helper)
{
    CJTTraceCallbackManager* manager = helper.getCallbackManager();
    return manager ? *manager : CJTTraceCallbackManager::getInstance();
}

// The server's commands, one function each. Those that answer are only called with a
// connected channel; the others get the channel as it is (possibly null) and ignore it.
void sendProcessInfo(CJTTraceHelper& helper, IJTTraceChannel* channel, uint32_t)
{
    CJTTraceScopeManager& scopes = helper.getScopeManager();
    channel->writeMessage(CJTTraceMessageData::makeProcessInfo(scopes.getSettingsInStep(), helper.getProcessId(),
                                                               scopes.getNumberOfScopes(), scopes.getSilent(),
                                                               helper.getProcessName()));
}

void sendScopeList(CJTTraceHelper& helper, IJTTraceChannel* channel, uint32_t)
{
    CJTTraceScopeManager& manager = helper.getScopeManager();
    const uint32_t pid = helper.getProcessId();
    uint32_t scopes = manager.getNumberOfScopes();
    channel->writeMessage(CJTTraceMessageData::makeCount(CJTTraceMessageData::COUNT_SCOPES, scopes, pid));
    channel->writeMessage(CJTTraceMessageData::makeProgress(CJTTraceMessageData::PROGRESS_START, pid, scopes));
    uint32_t step = scopeListStep(scopes);
    char name[512];
    for (uint32_t i = 0; i < scopes; ++i) {
        const CJTTraceScopeDef& def = manager.getScopeDef(static_cast<uint16_t>(i));
        name[0] = 0;
        def.getScopeName(name, sizeof name - 1);  // at most 510 characters, as everywhere
        channel->writeMessage(CJTTraceMessageData::makeScopeInfo(pid, static_cast<uint16_t>(i), def.getKernelEvent(),
                                                                 def.getMedia(), def.getFilter(), name));
        if (i % step == 0)
            channel->writeMessage(CJTTraceMessageData::makeProgress(CJTTraceMessageData::PROGRESS_STEP, pid, i));
    }
}

// One scope: index in bits 0-15, the value in bits 16-23.
void setScope(CJTTraceHelper& helper, uint32_t parameter, bool media)
{
    CJTTraceScopeManager& manager = helper.getScopeManager();
    CJTTraceScopeDef& def = manager.getScopeDef(static_cast<uint16_t>(parameter & 0xFFFF));
    uint8_t value = static_cast<uint8_t>(parameter >> 16);
    if (media)
        def.setMedia(value);
    else
        def.setFilter(value);
    manager.setSettingsInStep(false);
}

// A run of scopes: the first (signed) in bits 0-15, the value in bits 16-23, the count in 24-31.
void setScopeRange(CJTTraceHelper& helper, uint32_t parameter, bool media)
{
    int first = static_cast<int16_t>(parameter & 0xFFFF);
    int last = first + static_cast<int>(parameter >> 24) - 1;
    uint8_t value = static_cast<uint8_t>(parameter >> 16);
    if (media)
        helper.getScopeManager().setMedia(first, last, value);
    else
        helper.getScopeManager().setFilter(first, last, value);
}

void sendCallbackCount(CJTTraceHelper& helper, IJTTraceChannel* channel, uint32_t)
{
    channel->writeMessage(CJTTraceMessageData::makeCount(CJTTraceMessageData::COUNT_CALLBACKS,
                                                         callbacksOf(helper).getNumberOfCallbacks(),
                                                         helper.getProcessId()));
}

void sendHandlerList(CJTTraceHelper& helper, IJTTraceChannel* channel, uint32_t)
{
    CJTTraceMessageData list = CJTTraceMessageData::makeHandlerList(helper.getProcessId());
    for (unsigned slot = 0; slot < CJTTraceHelper::HANDLER_SLOTS; ++slot) {
        CJTTraceHelper::tTraceHandler handler = helper.getHandler(slot);
        if (handler && handler != CJTTraceHelper::sendToNirvana)
            list.addHandler(static_cast<uint8_t>(1u << slot), helper.getHandlerName(slot));
    }
    list.complete();
    channel->writeMessage(list);
}

// Parameter 0 deletes the stored settings, 1 stores them; other values do nothing.
void persist(CJTTraceHelper& helper, IJTTraceChannel*, uint32_t parameter)
{
    if (parameter == 0)
        helper.killPersistent();
    else if (parameter == 1)
        helper.storePersistent();
}

struct tCommand
{
    uint8_t code;
    bool answers;  // writes to the server: skipped while not connected
    void (*run)(CJTTraceHelper& helper, IJTTraceChannel* channel, uint32_t parameter);
};
const tCommand kCommands[] = {
    {JTTraceCommandCode::PROCESS_INFO, true, sendProcessInfo},
    {JTTraceCommandCode::LIST_SCOPES, true, sendScopeList},
    {JTTraceCommandCode::SET_FILTER, false,
     [](CJTTraceHelper& h, IJTTraceChannel*, uint32_t p) { setScope(h, p, false); }},
    {JTTraceCommandCode::SILENT, false,
     [](CJTTraceHelper& h, IJTTraceChannel*, uint32_t p) { h.getScopeManager().setSilent(p != 0); }},
    {JTTraceCommandCode::CALLBACK_COUNT, true, sendCallbackCount},
    {JTTraceCommandCode::LIST_CALLBACKS, true,
     [](CJTTraceHelper& h, IJTTraceChannel* c, uint32_t) { callbacksOf(h).sendCallbackList(*c, h.getProcessId()); }},
    {JTTraceCommandCode::SET_FILTER_RANGE, false,
     [](CJTTraceHelper& h, IJTTraceChannel*, uint32_t p) { setScopeRange(h, p, false); }},
    {JTTraceCommandCode::PERSISTENCE, false, persist},
    {JTTraceCommandCode::SET_MEDIA, false,
     [](CJTTraceHelper& h, IJTTraceChannel*, uint32_t p) { setScope(h, p, true); }},
    {JTTraceCommandCode::SET_MEDIA_RANGE, false,
     [](CJTTraceHelper& h, IJTTraceChannel*, uint32_t p) { setScopeRange(h, p, true); }},
    {JTTraceCommandCode::LIST_HANDLERS, true, sendHandlerList},
    {JTTraceCommandCode::RELOAD_PERSISTENCE, false,
     [](CJTTraceHelper& h, IJTTraceChannel*, uint32_t) { h.reloadPersistence(); }},
};
}

bool CJTTraceHelper::requestRegister(const char* processName)
{
    setProcessName(processName);
    if (!isServerCompatibleWith(sRequiredServerVersion)) {
        JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_ERROR,
                         "Cannot use trace server: version is '%d.%d.%d', app requires '%d.%d.%d'. Please update!",
                         mServerVersion.major, mServerVersion.minor, mServerVersion.patch, sRequiredServerVersion.major,
                         sRequiredServerVersion.minor, sRequiredServerVersion.patch);
        return false;
    }
    IJTTraceChannel* channel = getChannel();
    return channel && channel->connect();
}

bool CJTTraceHelper::isServerCompatibleWith(const CJTVersion& required)
{
    if (mServerVersion.major == 0 && mServerVersion.minor == 0) {
        IJTTraceChannel* channel = getChannel();
        if (channel)
            channel->getTraceServerVersion(mServerVersion);
    }
    // A server that does not tell its version is taken as compatible.
    if (mServerVersion.major == 0 && mServerVersion.minor == 0)
        return true;
    return mServerVersion.major == required.major && mServerVersion.minor >= required.minor;
}

void CJTTraceHelper::execute(const CJTTraceCommand& command)
{
    if (command.getCode() != JTTraceCommandCode::CALL_CALLBACK) {
        executeCmd(command.getCode(), command.getParameter());
        return;
    }
    CJTTraceCallbackManager& callbacks = callbacksOf(*this);
    CJTByteStream data(command.getData());
    data.rewind();
    uint16_t index, callId;
    if (!data.readUInt16(index) || index >= callbacks.getNumberOfCallbacks() || !data.readUInt16(callId))
        return;
    int result = 0;
    if (!callbacks.executeCallback(callId, index, data, result))
        return;
    IJTTraceChannel* channel = getChannel();
    if (!channel || !channel->isConnected())
        return;
    CJTTraceMessageData reply(CJTTraceMessageData::CLASS_CALLBACK_RESULT, 0);
    reply.body().writeUInt32(mProcessId);
    reply.body().writeUInt32(index);
    reply.body().writeUInt16(callId);
    reply.body().writeUInt16(0);
    reply.body().writeUInt32(static_cast<uint32_t>(result));
    reply.complete();
    channel->writeMessage(reply);
}

void CJTTraceHelper::executeCmd(uint8_t code, uint32_t parameter)
{
    IJTTraceChannel* channel = getChannel();
    bool connected = channel && channel->isConnected();
    for (const tCommand& command : kCommands)
        if (command.code == code) {
            if (connected || !command.answers)
                command.run(*this, channel, parameter);
            return;
        }
    std::fprintf(stderr, "Unknown command %d:%d\n", code, static_cast<int>(parameter));
}

void CJTTraceHelper::sendLogMessage(uint8_t code, uint16_t value, const char* text)
{
    IJTTraceChannel* channel = getChannel();
    if (!channel || !channel->isConnected())
        return;
    channel->writeMessage(
        CJTTraceMessageData::makeLogMessage(code, JTOperatingSystem::currentTimeMs(), mProcessId, value, text));
}

void CJTTraceHelper::initialize(int argc, char** argv, bool keep)
{
    mStartupOptions.clear();
    if (argc > 0 && argv) {
        for (int i = 0; i < argc; ++i) {
            const char* arg = argv[i];
            if (arg && (std::strncmp(arg, "--tp=", 5) == 0 || std::strcmp(arg, "--bp") == 0))
                mStartupOptions.append(CJTString(arg));
        }
    }
    reloadPersistence();
    if (!keep) {
        mStartupOptions.clear();
        mStartupOptions.trim();
    }
}

void CJTTraceHelper::writeTraceRecord(const tTraceMessageInfo& info)
{
    IJTTraceChannel* channel = getChannel();
    if (!channel || !channel->isConnected())
        return;
    channel->writeMessage(CJTTraceMessageData::makeTraceMessage(info.kind, info.timeMs, info.processId, info.threadId,
                                                                info.scopeDef ? info.scopeDef->getIndex() : 0,
                                                                info.text));
}

void CJTTraceHelper::writeTraceRecordEx(uint8_t kind, uint32_t identifier, const char* text,
                                        const CJTTraceScopeDef& def)
{
    IJTTraceChannel* channel = getChannel();
    if (!channel || !channel->isConnected())
        return;
    channel->writeMessage(CJTTraceMessageData::makeTraceMessageEx(kind, JTOperatingSystem::currentTimeMs(), mProcessId,
                                                                  JTOperatingSystem::getCurrentTID(), def.getIndex(),
                                                                  identifier, text));
}
