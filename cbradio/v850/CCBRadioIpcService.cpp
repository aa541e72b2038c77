// CCBRadio: opening and closing the V850 channel.
#include "CCBRadio.h"

#include "CDevIpcChannelHandler.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CMsgHandlerChannelTwelve.h"

#include <vector>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_initializeIPCService("CBRadio_CCBRadio", "initializeIPCService");

namespace
{
    const char* const CB_RADIO_DEVICE = "/dev/ipc/ch6";
    // A reader whose peer has gone sees its stop flag within a read or two; let it finish its
    // last trace before the process tears down the trace framework's statics.
    const int READER_GRACE_MS = 50;

    // Handlers stopped at shutdown are never deleted (a reader may still sit in read()); they are
    // kept here, in a list that is never destroyed either, so they stay reachable to the end.
    std::vector<CDevIpcChannelHandler*>& stoppedHandlers()
    {
        static std::vector<CDevIpcChannelHandler*>* handlers = new std::vector<CDevIpcChannelHandler*>;
        return *handlers;
    }
}

int CCBRadio::initializeIPCService()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_initializeIPCService);
    createThread();
    scope.sendFormattedMessage("\n[CBR] initializing channel for IPC...\n");
    CMsgHandlerChannelTwelve* processor = new CMsgHandlerChannelTwelve(this);
    CDevIpcChannelHandler* handler = new CDevIpcChannelHandler(processor, CB_RADIO_DEVICE);
    mpIpcHandler.store(handler);
    if (handler->trigger() < 0) {
        scope.sendFormattedMessage("\n[CBR] Error Opening %s\n", CB_RADIO_DEVICE);
        mpIpcHandler.store(nullptr);
        delete handler;
        return 0;
    }
    mChannelHandlers.insert(std::make_pair(CBR_IPC_CHANNEL_6, handler));
    return 1;
}

int CCBRadio::deInitializeIPCService()
{
    // The handlers stay allocated and their readers unjoined: the process ends right after, and a
    // reader blocked in read() could not be joined anyway.
    for (auto it = mChannelHandlers.begin(); it != mChannelHandlers.end();) {
        it->second->stop();
        it->second->waitReaderEnded(READER_GRACE_MS);
        stoppedHandlers().push_back(it->second);
        it = mChannelHandlers.erase(it);
    }
    mpIpcHandler.store(nullptr);
    return 1;
}
