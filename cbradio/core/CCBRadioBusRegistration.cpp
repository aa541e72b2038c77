// CCBRadio: bringing the bus presence up at start and down at stop.
//
// One attempt per process, on the main thread: environment file, library, connection, name and
// object path with handleCBRadioRequest, then the nine client subscriptions. Method calls may
// arrive before initializeDBUSService returns; mServiceRegistered is set before the subscriptions
// so that the callbacks know they may act. A refused registration still leaves the connection in
// use for the persistence probe and the AudioManager owner watch. The closing 300 ms pause lets
// those early callbacks settle before the start sequence asks the other services for their state.
#include "CCBRadio.h"
#include "CBRadioBusNames.h"
#include "CBRadioInterfaceXml.h"

#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <unistd.h>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_initializeDBUSService("CBRadio_CCBRadio",
                                                                                     "initializeDBUSService");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_deInitializeDBUSService("CBRadio_CCBRadio",
                                                                                       "deInitializeDBUSService");

using namespace CBRadioBusNames;

namespace
{
const char* const ENVARS_FILE = "/tmp/envars.sh";
const useconds_t SETTLE_PAUSE_US = 300 * 1000;
}

int CCBRadio::initializeDBUSService()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_initializeDBUSService);
    if (mServiceRegistered.load(std::memory_order_relaxed)) {
        scope.sendFormattedMessage("\n[CBR] DBUS already initialized\n");
        return 0;
    }
    if (isDbusAvailable(ENVARS_FILE) == 0) {
        scope.sendFormattedMessage("\n[CBR] DBUS not started on the target\n");
        return 0;
    }
    SVCIPC_tError status = SVCIPC_initialize();
    if (status < 0) {
        scope.sendFormattedMessage("\n[CBR] SvcIpc failed : 0x%0X\n", static_cast<unsigned int>(status));
        return 0;
    }
    SVCIPC_tConnection connection = nullptr;
    status = SVCIPC_getConnection(0, 0, &connection);
    mConnection.store(connection);
    if (status < 0) {
        scope.sendFormattedMessage("\n[CBR] Failed to get connection: 0x%0X\n", static_cast<unsigned int>(status));
        return 0;
    }
    SVCIPC_setConnectionLostCallback(connection, &CCBRadio::onBusConnectionLost, nullptr);

    // Described before the name is claimed, so that even the call that started the service
    // (bus activation) is introspectable and answered as the interface says.
    SVCIPC_setInterfaceDescription(mConnection, SERVICE_OBJECT, CBRADIO_INTERFACE_XML);
    int result = 0;
    // Marked registered before the name is claimed: the bus hands over a call queued for the name
    // (the one that activated the service) as soon as the name is ours, and that call is served,
    // not turned away as too early.
    mServiceRegistered.store(true, std::memory_order_relaxed);
    status = SVCIPC_registerService(mConnection, SERVICE_NAME, SERVICE_OBJECT, 0, &CCBRadio::handleCBRadioRequest,
                                    CLIENT_TOKEN, &mRegistration);
    if (status < 0) {
        mServiceRegistered.store(false, std::memory_order_relaxed);
        scope.sendFormattedMessage("\n[CBR] Failed to register service: 0x%0X\n", static_cast<unsigned int>(status));
    } else {
        subscribeClients(true);
        scope.sendFormattedMessage("\n[CBR] registering Clients...\n");
        result = 1;
    }

    persistency_Ready_Flag.store(isServiceAvailable(KV_SERVICE), std::memory_order_relaxed);
    status = SVCIPC_subscribeOwnerChanged(mConnection, AUDIO_MANAGER_SERVICE,
                                          &CCBRadio::onNotifyAudioManagerAvailability, nullptr, &mAudioMgrOwnerSub);
    if (status < 0)
        scope.sendFormattedMessage("\n[CBR] ERROR subscribe AudioManager\n");
    ::usleep(SETTLE_PAUSE_US);
    mDbusInitilaised.store(true, std::memory_order_relaxed);
    return result;
}

int CCBRadio::deInitializeDBUSService()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_deInitializeDBUSService);
    // Also runs when the bus never came up: the library rejects the unset handles.
    int result = 1;
    if (SVCIPC_unregisterService(mRegistration) < 0) {
        scope.sendFormattedMessage("\n[CBR] Failed to unregister service\n");
        result = 0;
    }
    // Closing the connection also ends the VOX subscription and the AudioManager owner watch.
    if (SVCIPC_closeConnection(mConnection) < 0) {
        scope.sendFormattedMessage("\n[CBR] Failed to close connection\n");
        result = 0;
    }
    SVCIPC_shutdown();
    return result;
}
