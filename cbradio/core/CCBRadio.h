// CCBRadio: the CB radio service. Exactly one object exists; it lives on main()'s stack and is
// reached from static callbacks through CCBRadio::mpCBRadio.
//
// The class gathers every part of the service; its member functions are defined one source file
// per area:
//   core/CCBRadioLifecycle.cpp        construction, start and stop sequences, bus environment file
//   core/CCBRadioBusRegistration.cpp  bus registration and client subscriptions set-up
//   core/CCBRadioWorker.cpp           request queue, worker thread, timer handler, V850 queries
//   v850/CCBRadioIpcService.cpp       opening and closing the V850 channel
//   v850/CCBRadioCommandFrames.cpp    every command frame written to the V850
//   service/CCBRadioMethods.cpp       the bus method dispatcher
//   service/CCBRadioSignals.cpp       the status signals
//   service/CCBRadioState.cpp         the radio state and its start values
//   clients/CCBRadioPersistence.cpp   settings in the key-value store
//   clients/CCBRadioAudioSources.cpp  receive/transmit audio sources, microphone
//   clients/CCBRadioPushToTalk.cpp    rider/passenger PTT, VOX, power mode
//   clients/CCBRadioWeatherAlert.cpp  weather-alert read-out
//   clients/CCBRadioVehicleState.cpp  subscriptions, inspection mode, rear controller, routing
//
// Threads: the main thread (start and stop), the request worker "MERIDOThread" (this object's own
// thread), the V850 reader (decoder, signals, audio sources), the timer master and the service-IPC
// dispatch threads (methods, signal handlers, completions). The radio state and the gate and
// request flags are static one-byte values shared by these threads without locks, held in relaxed
// atomics; multi-byte values (versions, mTxBuf) are arrays of such bytes, so a concurrent reader may
// see them half-updated, which the service accepts. The locks are mReqMutex, mTxMutex (one frame
// of mTxBuf at a time) and the timer master's.
#ifndef CCBRADIO_H
#define CCBRADIO_H

#include "CMutex.h"
#include "CTimedMutex.h"
#include "CTimer.h"
#include "EChannel.h"
#include "ECBRPTTStatus.h"
#include "ERequest.h"
#include "IThreadInterface.h"
#include "ITimerHandler.h"

#include "svcipc.h"

#include <atomic>
#include <list>
#include <map>
#include <mutex>

class CDevIpcChannelHandler;

// Set to 1 when a stop is asked (a termination signal, read on the thread "CBRadioSignals", or the
// bus lost); the request worker ends when it sees it.
extern std::atomic<int> sig_exit;

// Request states of the interrupting audio sources "cbRX" and "cbTX".
enum ECBRRxIntStatus { CBR_RX_INT_NOT_REQUESTED = 0, CBR_RX_INT_REQUESTED = 1, CBR_RX_INT_REQUEST_SUCCESS = 2 };

enum ECBRTxIntStatus { CBR_TX_INT_NOT_REQUESTED = 0, CBR_TX_INT_REQUESTED = 1, CBR_TX_INT_REQUEST_SUCCESS = 2 };

class CCBRadio : public ITimerHandler, public IThreadInterface
{
public:
    CCBRadio();
    ~CCBRadio() override;

    CCBRadio(const CCBRadio&) = delete;
    CCBRadio& operator=(const CCBRadio&) = delete;

    // ---- lifecycle --------------------------------------------------------------------------
    // Starts the worker and the V850 link, sends the start frames (one second apart), brings up
    // the bus and queries the other services. Returns 1 when the V850 device was opened, else 0.
    int startService();
    // Takes the bus presence down and stops the V850 reader; returns 1.
    int stopService();
    // Imports DBUS_SESSION_BUS_ADDRESS, DBUS_SESSION_BUS_PID and SVCIPC_DISPATCH_PRIORITY from a
    // file of shell assignments (null: "/tmp/envars.sh", under CBRADIO_ROOT). Returns 1 when
    // DBUS_SESSION_BUS_ADDRESS is set afterwards, else 0. A missing or empty file gives 0 silently.
    int isDbusAvailable(const char* path);

    // ---- bus registration -------------------------------------------------------------------
    int initializeDBUSService();
    int deInitializeDBUSService();
    // The bus connection closed under the running service (the bus daemon ended or restarted):
    // logs it once (system log and trace) and stops the service with exit status
    // EXIT_BUS_LOST, so that a service manager starts it again against the new bus. Runs on a
    // service-IPC thread.
    static void onBusConnectionLost(SVCIPC_tUserToken token);
    enum { EXIT_BUS_LOST = 1 };

    // ---- request queue and worker -----------------------------------------------------------
    // Appends a request and wakes the worker; callable from any thread (not from a signal
    // handler: it locks). Returns the result of the final unlock.
    int postRequest(ERequest req);
    void run() override;
    // Drains the queue in posting order; called by run() with mReqMutex held. Returns 1.
    int requestHandler();
    void handleTimerEvent(CTimer* timer) override;
    // V850 status queries: each writes 00 01 when the device is open, else nothing.
    void req_CBR_CHN_SELECT_toV850();
    void req_CBR_SET_SQUELCH_LEVEL_toV850();
    void req_CBR_STOP_SCAN_toV850();
    void req_CBR_VERSION_INFO_toV850();
    void req_CBR_ANTENNA_STATUS_toV850();
    void req_CBR_ANTENNA_SENSITIVITY_toV850();
    void req_CBR_TX_STATUS_toV850();
    void req_CBR_RX_STATUS_toV850();

    // ---- V850 link --------------------------------------------------------------------------
    // Starts the request worker, opens "/dev/ipc/ch6" and its reader. 1 when open, else 0 (the
    // handler is then deleted and mpIpcHandler stays null).
    int initializeIPCService();
    // Stops and joins every reader (bounded) and forgets the handlers (they are not deleted). 1.
    int deInitializeIPCService();

    // ---- V850 command frames (all write through mpIpcHandler; results are not checked) -------
    void req_CBR_PTT_STATUS_toV850(ECBRPTTStatus status);
    void reqCBRStateChange(int state);
    void reqCBRWeatherAlertOnOffRequest(int onOff);
    void reqCBRSetChannel(int channel);
    void reqCBRSeek(int direction);
    void reqCBRSelectPreset(int channel);
    void reqCBRSetSquelchLevel(int level);
    void reqCBRAdjustSquelchLevel(int direction);
    void reqCBRStartScan();
    void reqCBRStopScan();
    // Writes the first `length` bytes of mTxBuf as one frame. Returns the channel's result, -1
    // when the device is not open (the write is then skipped rather than crashing). The caller
    // holds the lock from lockTxBuf() from before it fills mTxBuf until this returns.
    int writeTxBuf(unsigned int length);
    // Takes mTxMutex for building and writing one frame. The wait is bounded (a write takes at most
    // a second): when the lock is not owned on return, the caller drops its frame, as if its write
    // had failed, and leaves mTxBuf alone.
    std::unique_lock<CTimedMutex> lockTxBuf();

    // ---- bus methods ------------------------------------------------------------------------
    static void handleCBRadioRequest(SVCIPC_tReqContext context, const char* method, const char* parms,
                                     SVCIPC_tBool noReplyExpected, SVCIPC_tUserToken token);

    // ---- status signals ---------------------------------------------------------------------
    void sendCBRadioStatusSignal();
    void sendCBRChannelNumberSignal();
    void sendCBRSquelchLevelSignal();
    void sendCBRReceptionSensitivitySignal();
    void sendCBRHWConnectionStatus();
    void sendCBRRxTxStatusSignal();
    void sendCBRWeatherAlertOnOffStatusSignal();

    // ---- settings persistence ---------------------------------------------------------------
    void getPersistedCBRadioProperties();
    void storePersistedCBRadioProperties();
    static void onCBRadioPersistDataRead(const SVCIPC_tCallbackStatus* status, const char* result,
                                         SVCIPC_tUserToken token);
    static void onNotifyPERSISTAvailability(const char* busName, const char* oldOwner, const char* newOwner,
                                            SVCIPC_tUserToken token);

    // ---- audio sources ----------------------------------------------------------------------
    void setCBRxAudioSource();
    void setCBTxAudioSource();
    void removeCBRxAudioSource();
    void removeCBTxAudioSource();
    void setMicStatus(int user, int micStatus);
    static void onCompletionCBRxAddInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                SVCIPC_tUserToken token);
    static void onCompletionCBTxAddInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                SVCIPC_tUserToken token);
    static void onCompletionCBRxRemoveInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                   SVCIPC_tUserToken token);
    static void onCompletionCBTxRemoveInterruptSrc(const SVCIPC_tCallbackStatus* status, const char* result,
                                                   SVCIPC_tUserToken token);
    static void onCompletionSetDeviceState(const SVCIPC_tCallbackStatus* status, const char* result,
                                           SVCIPC_tUserToken token);
    static void oninterruptSrcStateSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onNotifyAudioManagerAvailability(const char* busName, const char* oldOwner, const char* newOwner,
                                                 SVCIPC_tUserToken token);

    // ---- push-to-talk and power mode --------------------------------------------------------
    static void onRiderPTTSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onPassengerPTTSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onVoxDetectedStateSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onPowerModeSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    void GetPowerModeValue();
    void getVoxDetectedState();

    // ---- weather-alert read-out -------------------------------------------------------------
    void sendCBRWeatherAlertStatusSignal();
    static void onCompletionttsRequest(const SVCIPC_tCallbackStatus* status, const char* result,
                                       SVCIPC_tUserToken token);
    static void onttsAvailableSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);

    // ---- vehicle state inputs and subscriptions ---------------------------------------------
    bool isServiceAvailable(const char* busName);
    // The nine subscriptions below in their order (true), or at stop the eight of them that are
    // undone there, in the same order (false). Table and order: clients/CCBRadioVehicleState.cpp.
    void subscribeClients(bool on);
    void subscribeRiderPTT(bool on);
    void subscribePassengerPTT(bool on);
    void subscribePowerMode(bool on);
    void subscribeVoxDetectedState(bool on);
    void subscribettsAvailable(bool on);
    void subscribeinterruptSrcState(bool on);
    void subscribeAudioRoutingStatus(bool on);
    void subscriberearControllerState(bool on);
    void subscribeHuInpectionModeState(bool on);
    void getAudioRoutingStatus();
    void getRearControllerState();
    void getDiagInspmodeState();
    static void ondiagInspectionModeStatusSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onRearControllerStateSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);
    static void onAudioRoutingStatusSignal(const char* sigName, const char* data, SVCIPC_tUserToken token);

    // ==== data ================================================================================

    // -- core (lifecycle, bus, worker)
    static CCBRadio* mpCBRadio;                       // the one service object, set by the constructor
    static std::atomic<bool> persistency_Ready_Flag;  // the key-value store had an owner at bus start
    static std::atomic<bool> mDbusInitilaised;        // bus initialisation got as far as a connection
    static std::atomic<bool> mWAttsReadonoff;         // weather-alert read-out enabled
    static std::atomic<bool> mCBRDataInitialized;     // radio methods accepted

    std::atomic<bool> mServiceRegistered;  // bus service registered; cleared first at stop
    CMutex mReqMutex;                      // guards mReqList, wakes the worker
    std::list<ERequest> mReqList;
    std::map<EChannel, CDevIpcChannelHandler*> mChannelHandlers;
    std::atomic<CDevIpcChannelHandler*> mpIpcHandler;  // "/dev/ipc/ch6"; null when not open
    // Set on the main thread while bus callbacks and the V850 reader may already read it.
    std::atomic<SVCIPC_tConnection> mConnection;
    SVCIPC_tSvcRegHnd mRegistration;
    SVCIPC_tSigSubHnd mAudioMgrOwnerSub;
    // Client subscriptions, in subscription order.
    SVCIPC_tSigSubHnd mRiderPTTSub;
    SVCIPC_tSigSubHnd mPassengerPTTSub;
    SVCIPC_tSigSubHnd mPowerModeSub;
    SVCIPC_tSigSubHnd mVoxDetectedStateSub;
    SVCIPC_tSigSubHnd mttsAvailableSub;
    SVCIPC_tSigSubHnd minterruptSrcStateSub;
    SVCIPC_tSigSubHnd mAudioRoutingStatusSub;
    SVCIPC_tSigSubHnd mrearControllerStateSub;
    SVCIPC_tSigSubHnd mHuInspectionModeStateSub;
    // Frame being written to the V850; deliberately not cleared between commands (a builder that
    // leaves the payload byte alone re-sends the previous one). Filled and written under mTxMutex,
    // one frame at a time, so that frames built on different threads never mix their bytes.
    std::atomic<unsigned char> mTxBuf[3];
    CTimedMutex mTxMutex;
    // Versions as the V850 sent them; first byte 0xFF = not received yet.
    std::atomic<unsigned char> mCBRHWVersion[2];
    std::atomic<unsigned char> mCBRSWVersion[15];
    CTimer mReqHandlerTime;  // never started

    // -- radio state (values the V850 owns, and the persisted settings)
    static std::atomic<signed char> mCBRCurrentChannel;               // 1..40, start 1
    static std::atomic<signed char> mCBRSquelchLevel;                 // 0..14, start 8
    static std::atomic<signed char> mCBRPreset[6];                    // channel per preset, 0 = empty
    static std::atomic<signed char> mCBRStatus;                       // 1 on, 0 off
    static std::atomic<signed char> mPrevCBRStatus;                   // saved on entering inspection mode 1
    static std::atomic<signed char> mCBRRxStatus;                     // 1 receiving
    static std::atomic<signed char> mCBRTxStatus;                     // 1 transmitting
    static std::atomic<unsigned char> mCBRHWConnectionStatus;         // 1 hardware connected
    static std::atomic<unsigned char> mCBRReceptionSensitivity;       // raw 0..255
    static std::atomic<signed char> mCBRWeatherAlertOnOff;            // 1 monitoring on
    static std::atomic<unsigned char> mCBRWeatherAlertStatus;         // 1 alert active
    static std::atomic<unsigned char> mCBRWeatherAlertChannelNumber;  // 1..7
    static std::atomic<bool> mAudioManagerServiceAvailStatus;         // start true

    // -- audio sources
    static std::atomic<unsigned char> mCBRRxAudioSrcIntrStatus;  // ECBRRxIntStatus
    static std::atomic<unsigned char> mCBRTxAudioSrcIntrStatus;  // ECBRTxIntStatus

    // -- push-to-talk and power mode
    static std::atomic<unsigned char> mCBRRiderPttStatus;
    static std::atomic<unsigned char> mCBRPassengerPttStatus;
    static std::atomic<unsigned char> mPassengerPTTcount;
    static std::atomic<unsigned char> mCBRVoxDetectStatus;
    static std::atomic<signed char> mCBRPowerModeValue;

    // -- vehicle state inputs
    static std::atomic<int> mHuInspectionMode;  // 0 normal, 1 radio forced off, 2 inspection
    static std::atomic<unsigned char> mRearControlStatus;
    static std::atomic<unsigned char> mheadset_r_status;
    static std::atomic<unsigned char> mheadset_p_status;

    // -- weather-alert read-out
    static std::atomic<unsigned char> ttsReadRequest;  // 1 while a read-out is outstanding
    // Announcement per weather channel 1..7 (index 0 unused).
    static const char* const Weather_Alert_channel_Info[8];
};

#endif
