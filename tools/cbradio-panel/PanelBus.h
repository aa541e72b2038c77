// PanelBus: the panel as a client of the CB radio service, through the service-IPC library.
//
// start() connects to the session bus, subscribes to the service's seven signals and watches its
// bus name. Each signal becomes a "signal" event of the hub ({"name","data","text"}: data is the
// payload parsed, text the payload as sent); the service's presence is the sticky "service" event
// ({"onBus":bool}), published at start and whenever the name changes owner. A lost bus connection
// becomes a "bus" event ({"connected":false}) and lost() turns true.
//
// call() forwards one method call and answers with an HTTP status and a JSON body: 200
// {"method","text","result"} with the reply (result is the reply parsed, null when it is not JSON;
// a method the service never answers gives {"method","sent":true}); 502 {"error","message"} with
// the D-Bus error name of an error reply (org.freedesktop.DBus.Error.ServiceUnknown when the service
// is not on the bus); 504 on time-out; 503 when the panel is stopping. It may be called from any
// thread and never waits longer than its time-out; refuseCalls() ends every wait early.
// Callbacks run on the library's dispatch threads and only publish to the hub.
#ifndef PANELBUS_H
#define PANELBUS_H

#include "CBRadioBusNames.h"
#include "EventHub.h"
#include "PanelRequest.h"
#include "svcipc.h"

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace panel
{

const char* const kServiceName = CBRadioBusNames::SERVICE_NAME;
const char* const kServicePath = CBRadioBusNames::SERVICE_OBJECT;

struct HttpAnswer
{
    int status = 200;
    std::string json;
};

class PanelBus
{
public:
    explicit PanelBus(EventHub& hub) : mHub(hub) {}
    ~PanelBus() { stop(); }
    PanelBus(const PanelBus&) = delete;
    PanelBus& operator=(const PanelBus&) = delete;

    // "" on success, else why the bus could not be used.
    std::string start();
    // From now on calls are refused and waiting ones give up within 100 ms; stop() implies it.
    void refuseCalls() { mStopping.store(true, std::memory_order_relaxed); }
    // Ends the subscriptions and the connection; no call may be running or start any more.
    void stop();
    bool lost() const { return mLost.load(std::memory_order_relaxed); }

    HttpAnswer call(const CallRequest& request, std::chrono::milliseconds timeout);

    // The signals the service emits.
    static const std::vector<std::string>& serviceSignals();

private:
    static void onSignal(const char* name, const char* data, SVCIPC_tUserToken token);
    static void onOwnerChanged(const char* busName, const char* oldOwner, const char* newOwner,
                               SVCIPC_tUserToken token);
    static void onConnectionLost(SVCIPC_tUserToken token);
    void publishPresence(bool onBus);

    EventHub& mHub;
    bool mInitialized = false;
    SVCIPC_tConnection mConn = nullptr;
    std::vector<SVCIPC_tSigSubHnd> mSubscriptions;
    std::atomic<bool> mLost{false};
    std::atomic<bool> mStopping{false};
};

// Compact one-line JSON of `value`.
std::string compactJson(const Json::Value& value);
// `text` parsed as JSON, or null when it is not JSON.
Json::Value parsedOrNull(const std::string& text);

}  // namespace panel

#endif
