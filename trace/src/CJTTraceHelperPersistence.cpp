// The trace helper's persistence actions, started by the trace thread, the trace server's commands
// and the remote callbacks.
#include "CJTTraceHelper.h"

#include <cstdio>
#include <cstring>

#include "CJTNullTracePersistence.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeManager.h"
#include "IJTTracePersistence.h"

bool CJTTraceHelper::persistenceUsable() const
{
    IJTTracePersistence* persistence = getPersistence();
    return mHasProcessName && persistence && persistence != &CJTNullTracePersistence::sInstance;
}

bool CJTTraceHelper::loadPersistent()
{
    if (!persistenceUsable())
        return false;
    IJTTracePersistence& persistence = *getPersistence();
    if (persistence.isKillRequired())
        return killPersistent();
    if (!mScopeManager.loadBinaryPersistence(persistence, mProcessName.c_str())) {
        sendLogMessage(CJTTraceScope::KIND_MESSAGE, LOG_PERSISTENCE_LOAD_FAILED, nullptr);
        // A block that does not fit this build is of no further use; drop it, and tell the server
        // so as any other removal.
        killPersistent();
        return false;
    }
    sendLogMessage(CJTTraceScope::KIND_MESSAGE, LOG_PERSISTENCE_LOADED, nullptr);
    return true;
}

bool CJTTraceHelper::storePersistent()
{
    if (!persistenceUsable())
        return false;
    if (!mScopeManager.storeBinaryPeristence(*getPersistence(), mProcessName.c_str()))
        return false;
    sendLogMessage(CJTTraceScope::KIND_MESSAGE, LOG_PERSISTENCE_STORED, nullptr);
    return true;
}

bool CJTTraceHelper::killPersistent()
{
    if (!persistenceUsable())
        return false;
    getPersistence()->kill(mProcessName.c_str());
    sendLogMessage(CJTTraceScope::KIND_MESSAGE, LOG_PERSISTENCE_KILLED, nullptr);
    return true;
}

void CJTTraceHelper::reloadPersistence()
{
    if (mStartupOptions.size() == 0) {
        loadPersistent();
        return;
    }
    for (uint32_t i = 0; i < mStartupOptions.size(); ++i) {
        const char* option = mStartupOptions[i].c_str();
        if (strncmp(option, "--tp=", 5) == 0) {
            char file[256];
            if (sscanf(option + 5, "%255s", file) == 1)
                mScopeManager.loadTextPersistence(file);
        } else if (strcmp(option, "--bp") == 0) {
            loadPersistent();
        }
    }
}

extern "C" {

int CJTTraceHelper_loadPersistent(int)
{
    if (CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr())
        helper->loadPersistent();
    return 0;
}

int CJTTraceHelper_storePersistent(int)
{
    if (CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr())
        helper->storePersistent();
    return 0;
}

int CJTTraceHelper_killPersistent(int)
{
    if (CJTTraceHelper* helper = CJTTraceHelper::getHelperPtr())
        helper->killPersistent();
    return 0;
}
}
