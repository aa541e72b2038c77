#include "CDevIpcChannelHandler.h"

#include "CDevIpcChannel.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CTerminationSignals.h"
#include "IMsgProcessor.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CDevIpcChannelHandler_run("CBRadio_CDevIpcChannelHandler", "run");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CDevIpcChannelHandler_stop("CBRadio_CDevIpcChannelHandler",
                                                                                 "stop");

CDevIpcChannelHandler::CDevIpcChannelHandler(IMsgProcessor* processor, const char* path)
    : IThreadInterface(path), mpChannel(new CDevIpcChannel(path)), mpProcessor(processor), mStopFlag(false),
      mReading(false)
{
}

CDevIpcChannelHandler::~CDevIpcChannelHandler()
{
    delete mpChannel;
    mpChannel = nullptr;
    delete mpProcessor;
    mpProcessor = nullptr;
    mStopFlag.store(false, std::memory_order_relaxed);
}

int CDevIpcChannelHandler::trigger()
{
    if (mpChannel->openChannel(O_RDWR) == -1)
        return -1;
    mReading.store(true, std::memory_order_release);
    createThread();
    return 0;
}

int CDevIpcChannelHandler::writeData(unsigned char* buffer, unsigned int length)
{
    int result = mpChannel->writeData(buffer, length);
    return result < 0 ? -1 : result;
}

void CDevIpcChannelHandler::stop()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CDevIpcChannelHandler_stop);
    scope.sendFormattedMessage("\n[CBRadio] Recvd signal to stop IPC thread...\n");
    mStopFlag.store(true, std::memory_order_relaxed);
    mpChannel->wake();
}

void CDevIpcChannelHandler::run()
{
    // A handler running here would leave EINTR in errno, and readData repeats reads on a stale
    // EINTR; keep the process's asynchronous signals away from this thread.
    CTerminationSignals::blockOnThisThread(true);

    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CDevIpcChannelHandler_run);
    // One buffer for the thread's life: after a failed read the processor sees what the previous
    // reads left in it.
    unsigned char buffer[READ_SIZE] = {};
    while (!mStopFlag.load(std::memory_order_relaxed)) {
        const int result = mpChannel->readData(buffer, READ_SIZE);
        // A frame that arrives once the stop was asked is not decoded: the service it would
        // update is going away.
        if (mStopFlag.load(std::memory_order_relaxed))
            break;
        if (result != 0 && mpProcessor != nullptr)
            mpProcessor->processMsg(buffer, static_cast<unsigned int>(result));
        ::usleep(READ_PAUSE_US);
    }
    scope.sendFormattedMessage("\n[CBRadio] stopping thread...\n");
    mStopFlag.store(false, std::memory_order_relaxed);
    mReading.store(false, std::memory_order_release);
}

bool CDevIpcChannelHandler::stopAndJoin(int timeoutMs)
{
    stop();
    if (getThreadHandle() == 0)
        return true;
    if (!waitReaderEnded(timeoutMs))
        return false;
    waitStop();
    return true;
}

bool CDevIpcChannelHandler::waitReaderEnded(int timeoutMs) const
{
    for (int waited = 0; mReading.load(std::memory_order_acquire); waited += 1) {
        if (waited >= timeoutMs)
            return false;
        ::usleep(1000);
    }
    return true;
}
