// CCBRadio: opening and closing the V850 channel.
#include "CCBRadio.h"

#include "CDevIpcChannelHandler.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CMsgHandlerChannelTwelve.h"

#include <vector>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_initializeIPCService("CBRadio_CCBRadio",
                                                                                    "initializeIPCService");

namespace
{
const char* const CB_RADIO_DEVICE = "/dev/ipc/ch6";
// The reader is woken at once; a frame it is decoding may still need a
// bus call, which fails fast once the connection is closed.
const int READER_JOIN_MS = 1000;

// Stopped handlers are never deleted: a bus callback that took mpIpcHandler just before the
// stop may still be writing through it. They are kept here, in a list that is never destroyed
// either, so they stay reachable to the end of the process.
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
    // Each reader is woken and joined, so that no frame is decoded against a service that is being
    // taken down. One still busy in the decoder after READER_JOIN_MS decodes nothing more.
    for (auto it = mChannelHandlers.begin(); it != mChannelHandlers.end();) {
        it->second->stopAndJoin(READER_JOIN_MS);
        stoppedHandlers().push_back(it->second);
        it = mChannelHandlers.erase(it);
    }
    mpIpcHandler.store(nullptr);
    return 1;
}
