#include "PanelBus.h"

#include <condition_variable>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace panel
{

std::string compactJson(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value parsedOrNull(const std::string& text)
{
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    try {
        if (text.empty() || !reader->parse(text.data(), text.data() + text.size(), &value, &errors))
            return Json::Value();
    } catch (const std::exception&) {
        return Json::Value();  // nested beyond the reader's stack limit
    }
    return value;
}

namespace
{
std::string withoutLineEnd(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

HttpAnswer errorAnswer(int status, const std::string& error, const std::string& message)
{
    Json::Value body;
    body["error"] = error;
    body["message"] = message;
    return {status, compactJson(body)};
}

HttpAnswer failureAnswer(const std::string& method, SVCIPC_tError status, const std::string& errName,
                         const std::string& errMsg, std::chrono::milliseconds timeout)
{
    if (status == SVCIPC_ERR_TIMEOUT)
        return errorAnswer(504, "time-out",
                           "no reply to " + method + " within " + std::to_string(timeout.count()) + " ms");
    if (status == SVCIPC_ERR_NO_SERVICE)
        return errorAnswer(502, "org.freedesktop.DBus.Error.ServiceUnknown", "the CB radio service is not on the bus");
    if (!errName.empty())
        return errorAnswer(502, errName, errMsg);
    return errorAnswer(502, "bus", SVCIPC_errorText(status));
}

// One outstanding call, shared by the waiting HTTP thread and the completion callback.
struct PendingCall
{
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    SVCIPC_tError status = 0;
    std::string result;
    std::string errName;
    std::string errMsg;

    static void onResult(const SVCIPC_tCallbackStatus* status, const char* result, SVCIPC_tUserToken token)
    {
        std::unique_ptr<std::shared_ptr<PendingCall>> holder(static_cast<std::shared_ptr<PendingCall>*>(token));
        PendingCall& call = **holder;
        {
            std::lock_guard<std::mutex> lock(call.mutex);
            call.status = status->errCode == 0 ? 0 : SVCIPC_ERR(status->errCode);
            call.result = result ? result : "";
            call.errName = status->errName ? status->errName : "";
            call.errMsg = status->errMsg ? status->errMsg : "";
            call.finished = true;
        }
        call.done.notify_all();
    }
};
}  // namespace

const std::vector<std::string>& PanelBus::serviceSignals()
{
    static const std::vector<std::string> names(std::begin(CBRadioBusNames::SERVICE_SIGNALS),
                                                std::end(CBRadioBusNames::SERVICE_SIGNALS));
    return names;
}

std::string PanelBus::start()
{
    SVCIPC_tError status = SVCIPC_initialize();
    if (status != 0)
        return std::string("service-IPC library: ") + SVCIPC_errorText(status);
    mInitialized = true;
    status = SVCIPC_getConnection(SVCIPC_CONNECTION_SESSION, 0, &mConn);
    if (status != 0)
        return std::string("cannot reach the session bus: ") + SVCIPC_errorText(status);
    SVCIPC_setConnectionLostCallback(mConn, &PanelBus::onConnectionLost, this);
    for (const std::string& name : serviceSignals()) {
        SVCIPC_tSigSubHnd sub = nullptr;
        status = SVCIPC_subscribe(mConn, kServicePath, name.c_str(), &PanelBus::onSignal, this, &sub);
        if (status != 0)
            return "cannot subscribe to " + name + ": " + SVCIPC_errorText(status);
        mSubscriptions.push_back(sub);
    }
    // Watch first, then ask: an owner change between the two is then not missed.
    SVCIPC_tSigSubHnd watch = nullptr;
    status = SVCIPC_subscribeOwnerChanged(mConn, kServiceName, &PanelBus::onOwnerChanged, this, &watch);
    if (status != 0)
        return std::string("cannot watch the service's bus name: ") + SVCIPC_errorText(status);
    mSubscriptions.push_back(watch);
    SVCIPC_tBool owned = 0;
    status = SVCIPC_nameHasOwner(mConn, kServiceName, &owned, 5000);
    if (status != 0)
        return std::string("cannot ask the bus for the service: ") + SVCIPC_errorText(status);
    publishPresence(owned != 0);
    return "";
}

void PanelBus::stop()
{
    refuseCalls();
    for (SVCIPC_tSigSubHnd sub : mSubscriptions)
        SVCIPC_unsubscribe(sub);
    mSubscriptions.clear();
    if (mConn) {
        SVCIPC_closeConnection(mConn);
        mConn = nullptr;
    }
    if (mInitialized) {
        SVCIPC_shutdown();
        mInitialized = false;
    }
}

HttpAnswer PanelBus::call(const CallRequest& request, std::chrono::milliseconds timeout)
{
    if (mStopping.load(std::memory_order_relaxed))
        return errorAnswer(503, "stopping", "the panel is stopping");
    Json::Value body;
    body["method"] = request.method;
    if (!request.expectsReply) {
        SVCIPC_tError status = SVCIPC_invoke(mConn, kServiceName, kServicePath, request.method.c_str(),
                                             request.argument.c_str(), 1, 0, nullptr);
        if (status != 0)
            return failureAnswer(request.method, status, SVCIPC_getLastErrorName(), SVCIPC_getLastErrorMessage(),
                                 timeout);
        body["sent"] = true;
        return {200, compactJson(body)};
    }

    auto pending = std::make_shared<PendingCall>();
    auto* token = new std::shared_ptr<PendingCall>(pending);
    SVCIPC_tError status = SVCIPC_asyncInvoke(mConn, kServiceName, kServicePath, request.method.c_str(),
                                              request.argument.c_str(), 0, static_cast<SVCIPC_tUInt32>(timeout.count()),
                                              &PendingCall::onResult, token);
    if (status != 0) {
        delete token;
        return failureAnswer(request.method, status, SVCIPC_getLastErrorName(), SVCIPC_getLastErrorMessage(), timeout);
    }
    // The library times the call out itself; the margin only guards against a completion that
    // never comes. Stop wakes the wait every 100 ms at most.
    const auto until = std::chrono::steady_clock::now() + timeout + std::chrono::milliseconds(500);
    std::unique_lock<std::mutex> lock(pending->mutex);
    while (!pending->finished) {
        if (mStopping.load(std::memory_order_relaxed))
            return errorAnswer(503, "stopping", "the panel is stopping");
        if (std::chrono::steady_clock::now() >= until)
            return failureAnswer(request.method, SVCIPC_ERR_TIMEOUT, "", "", timeout);
        pending->done.wait_for(lock, std::chrono::milliseconds(100));
    }
    if (pending->status != 0)
        return failureAnswer(request.method, pending->status, pending->errName, pending->errMsg, timeout);
    const std::string text = withoutLineEnd(pending->result);
    body["text"] = text;
    body["result"] = parsedOrNull(text);
    return {200, compactJson(body)};
}

void PanelBus::onSignal(const char* name, const char* data, SVCIPC_tUserToken token)
{
    auto* self = static_cast<PanelBus*>(token);
    const std::string text = withoutLineEnd(data ? data : "");
    Json::Value event;
    event["name"] = name ? name : "";
    event["data"] = parsedOrNull(text);
    event["text"] = text;
    self->mHub.publish("signal", compactJson(event));
}

void PanelBus::onOwnerChanged(const char*, const char*, const char* newOwner, SVCIPC_tUserToken token)
{
    static_cast<PanelBus*>(token)->publishPresence(newOwner && *newOwner);
}

void PanelBus::onConnectionLost(SVCIPC_tUserToken token)
{
    auto* self = static_cast<PanelBus*>(token);
    self->mLost.store(true, std::memory_order_relaxed);
    Json::Value event;
    event["connected"] = false;
    self->mHub.publish("bus", compactJson(event), true);
}

void PanelBus::publishPresence(bool onBus)
{
    Json::Value event;
    event["onBus"] = onBus;
    mHub.publish("service", compactJson(event), true);
}

}  // namespace panel
