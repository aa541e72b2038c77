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
    uint32_t scopeListStep(uint32_t count) { return count < 10 ? 1 : count < 100 ? 10 : 50; }
}

bool CJTTraceHelper::requestRegister(const char* processName)
{
    setProcessName(processName);
    if (!isServerCompatibleWith(sRequiredServerVersion))
    {
        JTSyslog::logMsg(kSyslogModule, JTSyslog::SEV_ERROR,
                         "Cannot use trace server: version is '%d.%d.%d', app requires '%d.%d.%d'. Please update!",
                         mServerVersion.major, mServerVersion.minor, mServerVersion.patch,
                         sRequiredServerVersion.major, sRequiredServerVersion.minor, sRequiredServerVersion.patch);
        return false;
    }
    IJTTraceChannel* channel = getChannel();
    return channel && channel->connect();
}

bool CJTTraceHelper::isServerCompatibleWith(const CJTVersion& required)
{
    if (mServerVersion.major == 0 && mServerVersion.minor == 0)
    {
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
    if (command.getCode() != JTTraceCommandCode::CALL_CALLBACK)
    {
        executeCmd(command.getCode(), command.getParameter());
        return;
    }
    CJTTraceCallbackManager& callbacks = mpCallbackManager ? *mpCallbackManager : CJTTraceCallbackManager::getInstance();
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
    uint16_t index = static_cast<uint16_t>(parameter & 0xFFFF);
    int first = static_cast<int16_t>(parameter & 0xFFFF);
    uint8_t value = static_cast<uint8_t>(parameter >> 16);
    int count = static_cast<int>(parameter >> 24);

    switch (code)
    {
    case JTTraceCommandCode::PROCESS_INFO:
        if (connected)
            channel->writeMessage(CJTTraceMessageData::makeProcessInfo(
                mScopeManager.getSettingsInStep(), mProcessId, mScopeManager.getNumberOfScopes(),
                mScopeManager.getSilent(), getProcessName()));
        break;
    case JTTraceCommandCode::LIST_SCOPES:
    {
        if (!connected)
            break;
        uint32_t scopes = mScopeManager.getNumberOfScopes();
        channel->writeMessage(CJTTraceMessageData::makeCount(CJTTraceMessageData::COUNT_SCOPES, scopes, mProcessId));
        channel->writeMessage(CJTTraceMessageData::makeProgress(CJTTraceMessageData::PROGRESS_START, mProcessId, scopes));
        uint32_t step = scopeListStep(scopes);
        char name[512];
        for (uint32_t i = 0; i < scopes; ++i)
        {
            const CJTTraceScopeDef& def = mScopeManager.getScopeDef(static_cast<uint16_t>(i));
            name[0] = 0;
            def.getScopeName(name, sizeof name - 1);  // at most 510 characters, as everywhere
            channel->writeMessage(CJTTraceMessageData::makeScopeInfo(mProcessId, static_cast<uint16_t>(i),
                                                                     def.getKernelEvent(), def.getMedia(),
                                                                     def.getFilter(), name));
            if (i % step == 0)
                channel->writeMessage(CJTTraceMessageData::makeProgress(CJTTraceMessageData::PROGRESS_STEP, mProcessId, i));
        }
        break;
    }
    case JTTraceCommandCode::SET_FILTER:
        mScopeManager.getScopeDef(index).setFilter(value);
        mScopeManager.setSettingsInStep(false);
        break;
    case JTTraceCommandCode::SILENT:
        mScopeManager.setSilent(parameter != 0);
        break;
    case JTTraceCommandCode::CALLBACK_COUNT:
        if (connected)
        {
            CJTTraceCallbackManager& callbacks = mpCallbackManager ? *mpCallbackManager : CJTTraceCallbackManager::getInstance();
            channel->writeMessage(CJTTraceMessageData::makeCount(CJTTraceMessageData::COUNT_CALLBACKS,
                                                                 callbacks.getNumberOfCallbacks(), mProcessId));
        }
        break;
    case JTTraceCommandCode::LIST_CALLBACKS:
        if (connected)
            (mpCallbackManager ? *mpCallbackManager : CJTTraceCallbackManager::getInstance()).sendCallbackList(*channel, mProcessId);
        break;
    case JTTraceCommandCode::SET_FILTER_RANGE:
        mScopeManager.setFilter(first, first + count - 1, value);
        break;
    case JTTraceCommandCode::PERSISTENCE:
        if (parameter == 0)
            killPersistent();
        else if (parameter == 1)
            storePersistent();
        break;
    case JTTraceCommandCode::SET_MEDIA:
        mScopeManager.getScopeDef(index).setMedia(value);
        mScopeManager.setSettingsInStep(false);
        break;
    case JTTraceCommandCode::SET_MEDIA_RANGE:
        mScopeManager.setMedia(first, first + count - 1, value);
        break;
    case JTTraceCommandCode::LIST_HANDLERS:
        if (connected)
        {
            CJTTraceMessageData list = CJTTraceMessageData::makeHandlerList(mProcessId);
            for (unsigned slot = 0; slot < HANDLER_SLOTS; ++slot)
            {
                tTraceHandler handler = getHandler(slot);
                if (handler && handler != sendToNirvana)
                    list.addHandler(static_cast<uint8_t>(1u << slot), getHandlerName(slot));
            }
            list.complete();
            channel->writeMessage(list);
        }
        break;
    case JTTraceCommandCode::RELOAD_PERSISTENCE:
        reloadPersistence();
        break;
    default:
        std::fprintf(stderr, "Unknown command %d:%d\n", code, static_cast<int>(parameter));
        break;
    }
}

void CJTTraceHelper::sendLogMessage(uint8_t code, uint16_t value, const char* text)
{
    IJTTraceChannel* channel = getChannel();
    if (!channel || !channel->isConnected())
        return;
    channel->writeMessage(CJTTraceMessageData::makeLogMessage(code, JTOperatingSystem::currentTimeMs(), mProcessId,
                                                              value, text));
}

void CJTTraceHelper::initialize(int argc, char** argv, bool keep)
{
    mStartupOptions.clear();
    if (argc > 0 && argv)
    {
        for (int i = 0; i < argc; ++i)
        {
            const char* arg = argv[i];
            if (arg && (std::strncmp(arg, "--tp=", 5) == 0 || std::strcmp(arg, "--bp") == 0))
                mStartupOptions.append(CJTString(arg));
        }
    }
    reloadPersistence();
    if (!keep)
    {
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

void CJTTraceHelper::writeTraceRecordEx(uint8_t kind, uint32_t identifier, const char* text, const CJTTraceScopeDef& def)
{
    IJTTraceChannel* channel = getChannel();
    if (!channel || !channel->isConnected())
        return;
    channel->writeMessage(CJTTraceMessageData::makeTraceMessageEx(kind, JTOperatingSystem::currentTimeMs(), mProcessId,
                                                                  JTOperatingSystem::getCurrentTID(), def.getIndex(),
                                                                  identifier, text));
}
