// CCBRadio: the request queue, its worker thread, the timer handler and the V850 status queries.
#include "CCBRadio.h"

#include "CDevIpcChannelHandler.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "CTerminationSignals.h"

#include <mutex>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_run("CBRadio_CCBRadio", "run");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_handleTimerEvent("CBRadio_CCBRadio", "handleTimerEvent");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_CHN_SELECT_toV850("CBRadio_CCBRadio",
                                                                                         "req_CBR_CHN_SELECT_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_SET_SQUELCH_LEVEL_toV850(
    "CBRadio_CCBRadio", "req_CBR_SET_SQUELCH_LEVEL_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_STOP_SCAN_toV850("CBRadio_CCBRadio",
                                                                                        "req_CBR_STOP_SCAN_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_VERSION_INFO_toV850(
    "CBRadio_CCBRadio", "req_CBR_VERSION_INFO_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_ANTENNA_STATUS_toV850(
    "CBRadio_CCBRadio", "req_CBR_ANTENNA_STATUS_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_ANTENNA_SENSITIVITY_toV850(
    "CBRadio_CCBRadio", "req_CBR_ANTENNA_SENSITIVITY_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_TX_STATUS_toV850("CBRadio_CCBRadio",
                                                                                        "req_CBR_TX_STATUS_toV850");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_RX_STATUS_toV850("CBRadio_CCBRadio",
                                                                                        "req_CBR_RX_STATUS_toV850");

namespace
{
// Every status query is the same two bytes; the V850 tells them apart by nothing else.
void writeStatusQuery(const CJTTraceScopeDef& def)
{
    CJTTraceScope scope(def);
    CDevIpcChannelHandler* handler = CCBRadio::mpCBRadio->mpIpcHandler.load();
    if (handler == nullptr)
        return;
    unsigned char frame[2] = {0x00, 0x01};
    handler->writeData(frame, 2);
}
}

int CCBRadio::postRequest(ERequest req)
{
    mReqMutex.lock();
    mReqList.push_back(req);
    mReqMutex.condSignal();
    return mReqMutex.unlock();
}

void CCBRadio::run()
{
    // Termination signals go to the main thread only, so no handler cuts into this thread's waits.
    CTerminationSignals::blockOnThisThread();

    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_run);
    scope.sendFormattedMessage("\n[CBR run] Req processing thread running...\n");
    while (sig_exit.load(std::memory_order_relaxed) == 0) {
        const std::lock_guard<CMutex> guard(mReqMutex);
        // No predicate on the queue on purpose: a wake-up is a request to drain whatever is
        // queued. The exit flag alone is looked at once more under the lock: the stop (signal
        // or lost bus) sets it before it takes the lock to post, so an exit requested between the
        // loop test and this point is not lost with its wake-up.
        if (sig_exit.load(std::memory_order_relaxed) == 0)
            mReqMutex.condWait();
        requestHandler();
    }
    scope.sendFormattedMessage("\n[CBR run] exiting Req processing thread...\n");
}

int CCBRadio::requestHandler()
{
    while (!mReqList.empty()) {
        switch (mReqList.front()) {
        case REQ_CBR_CHN_SELECT:
            req_CBR_CHN_SELECT_toV850();
            break;
        case REQ_CBR_SET_SQUELCH_LEVEL:
            req_CBR_SET_SQUELCH_LEVEL_toV850();
            break;
        case REQ_CBR_STOP_SCAN:
            req_CBR_STOP_SCAN_toV850();
            break;
        case REQ_CBR_VERSION_INFO:
            req_CBR_VERSION_INFO_toV850();
            break;
        case REQ_CBR_ANTENNA_STATUS:
            req_CBR_ANTENNA_STATUS_toV850();
            break;
        case REQ_CBR_ANTENNA_SENSITIVITY:
            req_CBR_ANTENNA_SENSITIVITY_toV850();
            break;
        case REQ_CBR_TX_STATUS:
            req_CBR_TX_STATUS_toV850();
            break;
        case REQ_CBR_RX_STATUS:
            req_CBR_RX_STATUS_toV850();
            break;
        default:
            break;
        }
        mReqList.pop_front();
    }
    return 1;
}

void CCBRadio::handleTimerEvent(CTimer* timer)
{
    if (timer == nullptr || timer != &mReqHandlerTime)
        return;
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_handleTimerEvent);
    scope.sendFormattedMessage("\n[CBR mReqHandlerTime] \n");
}

void CCBRadio::req_CBR_CHN_SELECT_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_CHN_SELECT_toV850);
}

void CCBRadio::req_CBR_SET_SQUELCH_LEVEL_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_SET_SQUELCH_LEVEL_toV850);
}

void CCBRadio::req_CBR_STOP_SCAN_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_STOP_SCAN_toV850);
}

void CCBRadio::req_CBR_VERSION_INFO_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_VERSION_INFO_toV850);
}

void CCBRadio::req_CBR_ANTENNA_STATUS_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_ANTENNA_STATUS_toV850);
}

void CCBRadio::req_CBR_ANTENNA_SENSITIVITY_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_ANTENNA_SENSITIVITY_toV850);
}

void CCBRadio::req_CBR_TX_STATUS_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_TX_STATUS_toV850);
}

void CCBRadio::req_CBR_RX_STATUS_toV850()
{
    writeStatusQuery(gsTraceServerScopeDef_CBRadio_CCBRadio_req_CBR_RX_STATUS_toV850);
}
