// CCBRadio: construction, the start and stop sequences, and the bus environment file.
#include "CCBRadio.h"
#include "CBRadioEnvars.h"

#include "CDevIpcChannelHandler.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "JTRootPrefix.h"
#include "JTSyslog.h"
#include "CTerminationSignals.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

std::atomic<int> sig_exit(0);

CCBRadio* CCBRadio::mpCBRadio = nullptr;
std::atomic<bool> CCBRadio::persistency_Ready_Flag(false);
std::atomic<bool> CCBRadio::mDbusInitilaised(false);
std::atomic<bool> CCBRadio::mWAttsReadonoff(false);
std::atomic<bool> CCBRadio::mCBRDataInitialized(false);

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_startService("CBRadio_CCBRadio", "startService");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_isDbusAvailable("CBRadio_CCBRadio", "isDbusAvailable");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onBusConnectionLost("CBRadio_CCBRadio",
                                                                                   "onBusConnectionLost");

namespace
{
const char* const ENVARS_FILE = "/tmp/envars.sh";
// The V850 needs this pacing between start frames; a stop asked meanwhile ends a pause early.
const unsigned int START_FRAME_PAUSE_MS = 1000;

// D-Bus activation (DBUS_STARTER_ADDRESS) and systemd (INVOCATION_ID, NOTIFY_SOCKET) hand the
// process the bus it is to serve in its environment; on the head unit nothing does, and the
// environment file is the only source.
bool startedByServiceManager()
{
    for (const char* name : {"DBUS_STARTER_ADDRESS", "INVOCATION_ID", "NOTIFY_SOCKET"})
        if (std::getenv(name) != nullptr)
            return true;
    return false;
}

// A session bus that activated the process names itself in DBUS_STARTER_ADDRESS; it normally
// sets DBUS_SESSION_BUS_ADDRESS too, but the starter's word is enough.
void takeStarterBusAddress()
{
    const char* type = std::getenv("DBUS_STARTER_BUS_TYPE");
    const char* starter = std::getenv("DBUS_STARTER_ADDRESS");
    if (std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr && starter != nullptr && type != nullptr &&
        std::strcmp(type, "session") == 0)
        ::setenv("DBUS_SESSION_BUS_ADDRESS", starter, 1);
}
}

CCBRadio::CCBRadio()
    : ITimerHandler(), IThreadInterface(nullptr), mServiceRegistered(false), mpIpcHandler(nullptr),
      mConnection(nullptr), mRegistration(nullptr), mAudioMgrOwnerSub(nullptr), mRiderPTTSub(nullptr),
      mPassengerPTTSub(nullptr), mPowerModeSub(nullptr), mVoxDetectedStateSub(nullptr), mttsAvailableSub(nullptr),
      minterruptSrcStateSub(nullptr), mAudioRoutingStatusSub(nullptr), mrearControllerStateSub(nullptr),
      mHuInspectionModeStateSub(nullptr), mReqHandlerTime(this)
{
    mpCBRadio = this;
    for (auto& b : mTxBuf)
        b.store(0, std::memory_order_relaxed);
    mCBRHWVersion[0].store(0xFF, std::memory_order_relaxed);
    mCBRHWVersion[1].store(0xFF, std::memory_order_relaxed);
    for (auto& b : mCBRSWVersion)
        b.store(0, std::memory_order_relaxed);
    mCBRSWVersion[0].store(0xFF, std::memory_order_relaxed);
}

CCBRadio::~CCBRadio()
{
    // Members go in reverse order: the timer stops itself, the queue frees its nodes. mpCBRadio is
    // deliberately left pointing here; the process ends right after.
}

// A query frame of the start sequence (07 00 or 08 00), built in mTxBuf like the commands.
static void writeStartFrame(unsigned char id)
{
    const std::unique_lock<CTimedMutex> frame = CCBRadio::mpCBRadio->lockTxBuf();
    if (!frame.owns_lock())
        return;
    CCBRadio::mpCBRadio->mTxBuf[0].store(id, std::memory_order_relaxed);
    CCBRadio::mpCBRadio->mTxBuf[1].store(0x00, std::memory_order_relaxed);
    CCBRadio::mpCBRadio->writeTxBuf(2);
}

int CCBRadio::startService()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_startService);
    const int result = initializeIPCService();
    if (mpCBRadio->mpIpcHandler.load() != nullptr) {
        writeStartFrame(0x07);
        CTerminationSignals::pause(START_FRAME_PAUSE_MS);
        writeStartFrame(0x08);
        CTerminationSignals::pause(START_FRAME_PAUSE_MS);
        mpCBRadio->reqCBRWeatherAlertOnOffRequest(1);
        mWAttsReadonoff.store(true, std::memory_order_relaxed);
        CTerminationSignals::pause(START_FRAME_PAUSE_MS);
    }
    // A stop asked during the start frames ends the start here: the bus part and the queries of
    // the other services could hold the stop up for their time-outs.
    if (CTerminationSignals::stopping())
        return result;
    scope.sendFormattedMessage("\n[CBR] initializing State machine...\n");
    {
        // The bus library's dispatch threads, created here, inherit the blocked termination
        // signals, so that no handler cuts into their system calls. A signal that comes meanwhile
        // is recorded once the bus is up.
        const sigset_t previous = CTerminationSignals::blockOnThisThread();
        initializeDBUSService();
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }
    if (persistency_Ready_Flag.load(std::memory_order_relaxed))
        getPersistedCBRadioProperties();
    else
        mCBRDataInitialized.store(true, std::memory_order_relaxed);
    sendCBRHWConnectionStatus();
    GetPowerModeValue();
    getAudioRoutingStatus();
    getRearControllerState();
    getDiagInspmodeState();
    return result;
}

int CCBRadio::stopService()
{
    mServiceRegistered.store(false, std::memory_order_relaxed);
    // Eight of the nine: the VOX subscription is left to the closing of the connection on purpose.
    subscribeClients(false);
    deInitializeDBUSService();
    return deInitializeIPCService();
}

void CCBRadio::onBusConnectionLost(SVCIPC_tUserToken)
{
    static std::atomic<bool> reported(false);
    if (reported.exchange(true))
        return;
    // Without a bus the service can neither be called nor hear its peers, and nothing brings the
    // connection back: better a quick exit that its service manager answers with a restart.
    JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "[CBR] ERROR: bus connection lost; exiting with status %d",
                     static_cast<int>(EXIT_BUS_LOST));
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onBusConnectionLost);
    scope.sendFormattedMessage("\n[CBR] ERROR: bus connection lost, exiting\n");
    CTerminationSignals::requestStop(EXIT_BUS_LOST);
    sig_exit.store(1, std::memory_order_relaxed);
    if (mpCBRadio != nullptr)
        mpCBRadio->postRequest(REQ_CBR_EXIT);
}

int CCBRadio::isDbusAvailable(const char* path)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_isDbusAvailable);
    scope.sendFormattedMessage("\n[CBR] checking Dbus availability...\n");
    if (path == nullptr)
        path = ENVARS_FILE;
    const std::string hostPath = JTRootPrefix::resolve(path);

    std::vector<std::string> refused;
    const CBRadioEnvars::File envars = CBRadioEnvars::exportFrom(hostPath.c_str(), ::geteuid(), &refused);
    switch (envars.verdict) {
    case CBRadioEnvars::READABLE:
        break;
    case CBRadioEnvars::MISSING:
        // Started by the bus or by a service manager, the process was handed its bus instead.
        if (!startedByServiceManager())
            return 0;
        takeStarterBusAddress();
        if (std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr)
            return 0;
        scope.sendFormattedMessage("\n[CBR] INFO: DBUS_SESSION_BUS_ADDRESS now available (%s)\n",
                                   std::getenv("DBUS_SESSION_BUS_ADDRESS"));
        return 1;
    case CBRadioEnvars::UNTRUSTED:
        // Anyone who can write this file can point the service at a bus of their own.
        JTSyslog::logMsg(0, JTSyslog::SEV_ERROR, "[CBR] ERROR: not reading %s: it %s; running without a bus",
                         hostPath.c_str(), envars.why.c_str());
        scope.sendFormattedMessage("\n[CBR] ERROR: not reading %s: it %s\n", path, envars.why.c_str());
        return 0;
    case CBRadioEnvars::UNOPENABLE:
        scope.sendFormattedMessage("\n[CBR] ERROR: Unable to open: %s\n", path);
        return 0;
    }
    for (const std::string& name : refused)
        scope.sendFormattedMessage("\n[CBR] ERROR: Unable to setenv( %s )\n", name.c_str());

    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr) {
        scope.sendFormattedMessage("\n[CBR] INFO: DBUS_SESSION_BUS_ADDRESS now available (%s)\n", address);
        return 1;
    }
    scope.sendFormattedMessage("\n[CBR] ERROR : DBUS_SESSION_BUS_ADDRESS not available\n");
    return 0;
}
