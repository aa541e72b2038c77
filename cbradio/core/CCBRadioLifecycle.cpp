// CCBRadio: construction, the start and stop sequences, and the bus environment file.
#include "CCBRadio.h"

#include "CDevIpcChannelHandler.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"
#include "JTRootPrefix.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

std::atomic<int> sig_exit(0);

CCBRadio* CCBRadio::mpCBRadio = nullptr;
std::atomic<bool> CCBRadio::persistency_Ready_Flag(false);
std::atomic<bool> CCBRadio::mDbusInitilaised(false);
std::atomic<bool> CCBRadio::mWAttsReadonoff(false);
std::atomic<bool> CCBRadio::mCBRDataInitialized(false);

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_startService("CBRadio_CCBRadio", "startService");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_isDbusAvailable("CBRadio_CCBRadio", "isDbusAvailable");

namespace
{
    const char* const ENVARS_FILE = "/tmp/envars.sh";
    const char* const ENVARS_KEYS[] = {"DBUS_SESSION_BUS_ADDRESS=", "DBUS_SESSION_BUS_PID=",
                                       "SVCIPC_DISPATCH_PRIORITY="};
    const unsigned int START_FRAME_PAUSE_S = 1;   // the V850 needs this pacing between start frames
}

CCBRadio::CCBRadio()
    : ITimerHandler(), IThreadInterface(nullptr), mServiceRegistered(false), mpIpcHandler(nullptr),
      mConnection(nullptr), mRegistration(nullptr), mAudioMgrOwnerSub(nullptr), mRiderPTTSub(nullptr),
      mPassengerPTTSub(nullptr), mPowerModeSub(nullptr), mVoxDetectedStateSub(nullptr),
      mttsAvailableSub(nullptr), minterruptSrcStateSub(nullptr), mAudioRoutingStatusSub(nullptr),
      mrearControllerStateSub(nullptr), mHuInspectionModeStateSub(nullptr), mReqHandlerTime(this)
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

int CCBRadio::startService()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_startService);
    const int result = initializeIPCService();
    if (mpCBRadio->mpIpcHandler.load() != nullptr) {
        mTxBuf[0].store(0x07, std::memory_order_relaxed);
        mTxBuf[1].store(0x00, std::memory_order_relaxed);
        writeTxBuf(2);
        ::sleep(START_FRAME_PAUSE_S);
        mTxBuf[0].store(0x08, std::memory_order_relaxed);
        mTxBuf[1].store(0x00, std::memory_order_relaxed);
        writeTxBuf(2);
        ::sleep(START_FRAME_PAUSE_S);
        mpCBRadio->reqCBRWeatherAlertOnOffRequest(1);
        mWAttsReadonoff.store(true, std::memory_order_relaxed);
        ::sleep(START_FRAME_PAUSE_S);
    }
    scope.sendFormattedMessage("\n[CBR] initializing State machine...\n");
    {
        // The bus library's dispatch threads, created here, inherit the blocked termination
        // signals: the handler traces and must not interrupt a callback in the middle of a trace.
        // A signal that comes meanwhile is handled once the bus is up.
        sigset_t termination, previous;
        sigemptyset(&termination);
        sigaddset(&termination, SIGINT);
        sigaddset(&termination, SIGHUP);
        sigaddset(&termination, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &termination, &previous);
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
    // The VOX subscription is left to the closing of the connection on purpose.
    subscribeRiderPTT(false);
    subscribePassengerPTT(false);
    subscribePowerMode(false);
    subscribettsAvailable(false);
    subscribeinterruptSrcState(false);
    subscribeAudioRoutingStatus(false);
    subscriberearControllerState(false);
    subscribeHuInpectionModeState(false);
    deInitializeDBUSService();
    return deInitializeIPCService();
}

int CCBRadio::isDbusAvailable(const char* path)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_isDbusAvailable);
    scope.sendFormattedMessage("\n[CBR] checking Dbus availability...\n");
    if (path == nullptr)
        path = ENVARS_FILE;
    const std::string hostPath = JTRootPrefix::resolve(path);

    struct stat st;
    if (::stat(hostPath.c_str(), &st) != 0 || st.st_size == 0)
        return 0;
    FILE* file = std::fopen(hostPath.c_str(), "r");
    if (file == nullptr) {
        scope.sendFormattedMessage("\n[CBR] ERROR: Unable to open: %s\n", path);
        return 0;
    }
    char line[512];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        char* name = nullptr;
        for (const char* key : ENVARS_KEYS) {
            name = std::strstr(line, key);
            if (name != nullptr)
                break;
        }
        if (name == nullptr)
            continue;
        char* semicolon = std::strchr(name, ';');
        if (semicolon != nullptr)
            *semicolon = '\0';
        char* equals = std::strchr(name, '=');
        if (equals == nullptr)
            continue;
        *equals = '\0';
        char* value = equals + 1;
        // Quotes go only at the very ends: a value not cut by ';' keeps its newline, and with it
        // the closing quote before that newline.
        while (*value == '\'')
            ++value;
        size_t length = std::strlen(value);
        if (length > 0 && value[length - 1] == '\'') {
            while (length > 0 && value[length - 1] == '\'')
                value[--length] = '\0';
        }
        if (::setenv(name, value, 1) != 0)
            scope.sendFormattedMessage("\n[CBR] ERROR: Unable to setenv( %s )\n", name);
    }
    std::fclose(file);

    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr) {
        scope.sendFormattedMessage("\n[CBR] INFO: DBUS_SESSION_BUS_ADDRESS now available (%s)\n", address);
        return 1;
    }
    scope.sendFormattedMessage("\n[CBR] ERROR : DBUS_SESSION_BUS_ADDRESS not available\n");
    return 0;
}
