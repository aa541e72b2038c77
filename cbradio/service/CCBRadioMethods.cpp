// CCBRadio: the bus method dispatcher.
//
// handleCBRadioRequest is the service's request callback; it runs on a service-IPC dispatch
// thread. Every call ends with SVCIPC_freeReqContext; results go back through
// SVCIPC_asyncReturnResult without a completion callback: nothing is done when a result has gone
// out, and a callback would only cost the library a wake-up of its dispatch thread.
//
// Readiness: nothing is answered before the service is registered (the caller times out). The
// version, weather-alert and getProperties methods work as soon as it is; the radio methods answer
// "failure" until the radio data are initialised.
//
// The two version methods do not end the call: after their reply the call goes on through the
// data-initialised gate and the radio methods like any other name, so before the data are
// initialised a second result ("failure") is sent, afterwards "Not Implemented" is traced. Clients
// only ever see the first result.
//
// Arguments: the text is parsed as one JSON object (jsoncpp's Reader, comments not kept) and each
// key is taken as an integer the way jsoncpp converts a number (a fraction is cut towards zero, so
// 0.5 selects 0) or, for "props", as a string. Text that is not an object, a missing key, a value
// that is not a number (booleans and numeric strings included), a number beyond an int or a value
// outside the method's range all answer {"code":1,"description":"failure"} and nothing reaches the
// V850. Methods without arguments ignore the text.
//
// Results are accepted-and-sent answers only: the radio confirms later with a signal.
//   - reqCBRChangeRxToTx / reqCBRChangeTxToRx answer an empty text when the radio is off (or, for
//     the return to receive, when the transmit audio source is not held).
//   - reqCBRClearPreset and unknown method names get no result at all.
#include "CCBRadio.h"

#include "CBRadioJson.h"
#include "CBRadioJsonText.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_handleCBRadioRequest("CBRadio_CCBRadio",
                                                                                    "handleCBRadioRequest");

namespace
{
const size_t RESULT_BUFFER_SIZE = 64;
const int PRESET_COUNT = 6;
const int MIN_CHANNEL = 1;
const int MAX_CHANNEL = 40;
const int DEFAULT_CHANNEL = 1;
const int DEFAULT_SQUELCH_LEVEL = 8;
const std::memory_order relaxed = std::memory_order_relaxed;

// The argument object of one call. Parsing never throws out of here: jsoncpp throws on deeply
// nested input and on conversions of the wrong type, so types are checked before converting.
class Arguments
{
public:
    explicit Arguments(const char* text) : mValid(false)
    {
        try {
            Json::Reader reader;
            mValid = reader.parse(std::string(text), mRoot, false) && mRoot.isObject();
        } catch (...) {
            mValid = false;
        }
    }

    // A number within an int, converted as jsoncpp's asInt() does (1.5 is 1; true is refused).
    bool integer(const char* key, long long& value) const
    {
        int number = 0;
        if (!mValid || !CBRadioJson::readInt(mRoot, key, number))
            return false;
        value = number;
        return true;
    }

    bool text(const char* key, std::string& value) const
    {
        if (!mValid || !mRoot.isMember(key) || !mRoot[key].isString())
            return false;
        value = mRoot[key].asString();
        return true;
    }

private:
    Json::Value mRoot;
    bool mValid;
};

bool inRange(long long value, long long low, long long high)
{
    return value >= low && value <= high;
}

// The fixed-size result buffer the plain results pass through (zero-filled: a method that
// leaves it alone answers an empty text).
struct ResultBuffer
{
    char text[RESULT_BUFFER_SIZE];
    ResultBuffer() { std::memset(text, 0, sizeof(text)); }
    void set(const std::string& result) { std::snprintf(text, sizeof(text), "%s", result.c_str()); }
};

// True when the bus took the result.
bool returnResult(SVCIPC_tReqContext context, const char* text)
{
    const SVCIPC_tError status = SVCIPC_asyncReturnResult(context, text, nullptr, nullptr);
    return !SVCIPC_IS_ERROR(status);
}

void reply(const CJTTraceScope& scope, SVCIPC_tReqContext context, const char* text,
           const char* failureTrace = "\n[CBR] response failed!!!\n")
{
    if (!returnResult(context, text))
        scope.sendFormattedMessage("%s", failureTrace);
}

// The readable version text: the bytes up to the first zero, at most `size` of them.
std::string versionText(const std::atomic<unsigned char>* bytes, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        const char c = static_cast<char>(bytes[i].load(relaxed));
        if (c == '\0')
            break;
        text += c;
    }
    return text;
}

// getProperties: query name -> the sender of the signal that carries the value.
struct Property
{
    const char* name;
    void (CCBRadio::*send)();
};
const Property PROPERTIES[] = {
    {"CBRadioStatus", &CCBRadio::sendCBRadioStatusSignal},
    {"CBRChannelNumber", &CCBRadio::sendCBRChannelNumberSignal},
    {"CBRSquelchLevel", &CCBRadio::sendCBRSquelchLevelSignal},
    {"CBRReceptionSensitivityStatus", &CCBRadio::sendCBRReceptionSensitivitySignal},
    {"CBRHWConnectionStatus", &CCBRadio::sendCBRHWConnectionStatus},
    {"CBRWeatherAlertOnOffStatus", &CCBRadio::sendCBRWeatherAlertOnOffStatusSignal},
};

std::string presetList()
{
    int channels[PRESET_COUNT];
    for (int i = 0; i < PRESET_COUNT; ++i)
        channels[i] = CCBRadio::mCBRPreset[i].load(relaxed);
    return CBRadioJsonText::presetList(channels, PRESET_COUNT);
}

// Frees the request context on every way out of the dispatcher.
class ContextRelease
{
public:
    explicit ContextRelease(SVCIPC_tReqContext context) : mContext(context) {}
    ~ContextRelease() { SVCIPC_freeReqContext(mContext); }
    ContextRelease(const ContextRelease&) = delete;
    ContextRelease& operator=(const ContextRelease&) = delete;

private:
    SVCIPC_tReqContext mContext;
};

// One call on its way through the dispatcher.
struct Call
{
    const CJTTraceScope& scope;
    SVCIPC_tReqContext context;
    const char* parms;
    CCBRadio& radio;
    ResultBuffer result;

    void reply(const char* failureTrace = "\n[CBR] response failed!!!\n")
    {
        ::reply(scope, context, result.text, failureTrace);
    }
    void answer(bool ok) { result.set(ok ? CBRadioJsonText::success() : CBRadioJsonText::failure()); }
};

void versionReply(Call& call, const std::atomic<unsigned char>* bytes, size_t size, const char* key)
{
    if (bytes[0].load(relaxed) != 0xFF) {
        const std::string version = versionText(bytes, size);
        reply(call.scope, call.context, CBRadioJsonText::successWith(key, version).c_str());
    } else {
        call.answer(false);
        call.reply();
    }
}

void hwVersion(Call& call)
{
    versionReply(call, call.radio.mCBRHWVersion, 2, "CBRadioHWVersion");
}
void swVersion(Call& call)
{
    versionReply(call, call.radio.mCBRSWVersion, 14, "CBRadioSWVersion");
}

void weatherAlertOnOff(Call& call)
{
    long long onOff = -1;
    const bool ok = Arguments(call.parms).integer("CBRWAState", onOff) && inRange(onOff, 0, 1);
    if (ok) {
        call.radio.reqCBRWeatherAlertOnOffRequest(static_cast<int>(onOff));
        CCBRadio::mWAttsReadonoff.store(onOff != 0, relaxed);
    }
    call.answer(ok);
    call.reply();
}

void getProperties(Call& call)
{
    std::string name;
    const Property* property = nullptr;
    if (Arguments(call.parms).text("props", name)) {
        for (const Property& p : PROPERTIES)
            if (name == p.name)
                property = &p;
    }
    if (property != nullptr)
        (call.radio.*(property->send))();
    call.answer(property != nullptr);
    call.reply();
}

// The methods taking one flag 0 or 1: traced when given, then sent to the V850.
void flagMethod(Call& call, const char* method, const char* key, void (CCBRadio::*command)(int),
                const char* failureTrace = "\n[CBR] response failed!!!\n")
{
    long long flag = -1;
    const bool given = Arguments(call.parms).integer(key, flag);
    if (given)
        call.scope.sendFormattedMessage("\n[CBR] %s : %d\n", method, static_cast<int>(flag));
    const bool ok = given && inRange(flag, 0, 1);
    if (ok)
        (call.radio.*command)(static_cast<int>(flag));
    call.answer(ok);
    call.reply(failureTrace);
}

void stateChange(Call& call)
{
    flagMethod(call, "reqCBRStateChange", "CBRState", &CCBRadio::reqCBRStateChange);
}

void adjustSquelchLevel(Call& call)
{
    flagMethod(call, "reqCBRAdjustSquelchLevel", "squelchChg", &CCBRadio::reqCBRAdjustSquelchLevel);
}

void startSeek(Call& call)
{
    flagMethod(call, "reqCBRStartSeek", "seekDirection", &CCBRadio::reqCBRSeek, "\n[CBRadio] response failed!!!\n");
}

// The scan methods answer first and send their frame afterwards.
void startScan(Call& call)
{
    call.scope.sendFormattedMessage("\n[CBR] reqCBRStartScan \n");
    call.answer(true);
    call.reply("\n[CBRadio] response failed!!!\n");
    call.radio.reqCBRStartScan();
}

void stopScan(Call& call)
{
    call.scope.sendFormattedMessage("\n[CBR] reqCBRStopScan\n");
    call.answer(true);
    call.reply();
    call.radio.reqCBRStopScan();
}

void getPresetList(Call& call)
{
    reply(call.scope, call.context, presetList().c_str());
}

void storePreset(Call& call)
{
    const Arguments args(call.parms);
    long long channel = 0;
    long long preset = 0;
    const bool ok = args.integer("channelNumber", channel) && args.integer("presetNo", preset) &&
                    inRange(channel, MIN_CHANNEL, MAX_CHANNEL) && inRange(preset, 1, PRESET_COUNT);
    if (ok)
        CCBRadio::mCBRPreset[preset - 1].store(static_cast<signed char>(channel), relaxed);
    call.answer(ok);
    call.scope.sendFormattedMessage("\n[CBR] reqCBRStorePreset result code : %d\n", 1);
    call.reply();
}

void selectPreset(Call& call)
{
    long long preset = 0;
    const bool ok = Arguments(call.parms).integer("PresetNo", preset) && inRange(preset, 1, PRESET_COUNT);
    if (ok) {
        // A cleared preset selects channel 0; the V850 refuses it.
        const int channel = CCBRadio::mCBRPreset[preset - 1].load(relaxed);
        call.scope.sendFormattedMessage("\n[CBR] reqCBRSelectPreset : %d%d\n", static_cast<int>(preset), channel);
        call.radio.reqCBRSelectPreset(channel);
    }
    call.answer(ok);
    call.reply();
}

void clearPreset(Call& call)
{
    // Memory only: no frame, no signal and, by design, no result.
    call.scope.sendFormattedMessage("\n[CBR] reqCBRClearPreset Requested\n");
    for (auto& preset : CCBRadio::mCBRPreset)
        preset.store(0, relaxed);
    CCBRadio::mCBRCurrentChannel.store(DEFAULT_CHANNEL, relaxed);
    CCBRadio::mCBRSquelchLevel.store(DEFAULT_SQUELCH_LEVEL, relaxed);
}

// Not done (radio off, or the transmit source not held): an empty result.
void changeRxToTx(Call& call)
{
    call.scope.sendFormattedMessage("\n[CBR] reqCBRChangeRxToTx\n");
    if (CCBRadio::mCBRStatus.load(relaxed) == 1) {
        call.radio.setCBTxAudioSource();
        call.radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
        call.scope.sendFormattedMessage("\n[CBR] reqCBRChangeRxToTx writeData done \n");
        call.answer(true);
    }
    call.reply("\n[CBR] reqCBRChangeRxToTx response failed!!!\n");
}

void changeTxToRx(Call& call)
{
    call.scope.sendFormattedMessage("\n[CBR] reqCBRChangeTxToRx\n");
    if (CCBRadio::mCBRStatus.load(relaxed) == 1 &&
        CCBRadio::mCBRTxAudioSrcIntrStatus.load(relaxed) == CBR_TX_INT_REQUEST_SUCCESS) {
        call.radio.removeCBTxAudioSource();
        call.radio.req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
        call.scope.sendFormattedMessage("\n[CBR] reqCBRChangeTxToRx writeData done \n");
        call.answer(true);
    }
    call.reply("\n[CBR] reqCBRChangeTxToRx response failed!!!\n");
}

enum class Gate {
    REGISTERED,       // served once the service is registered
    REGISTERED_THEN,  // the same, then the call goes on as an unknown name (the version methods)
    DATA_INITIALISED  // the radio methods: "failure" until the radio data are initialised
};

struct Method
{
    const char* name;
    Gate gate;
    void (*handle)(Call&);
};

// In the order the names are compared.
const Method METHODS[] = {
    {"reqCBRHWVersion", Gate::REGISTERED_THEN, &hwVersion},
    {"reqCBRSWVersion", Gate::REGISTERED_THEN, &swVersion},
    {"reqCBRWeatherAlertOnOff", Gate::REGISTERED, &weatherAlertOnOff},
    {"getProperties", Gate::REGISTERED, &getProperties},
    {"reqCBRStateChange", Gate::DATA_INITIALISED, &stateChange},
    {"reqCBRAdjustSquelchLevel", Gate::DATA_INITIALISED, &adjustSquelchLevel},
    {"reqCBRStartSeek", Gate::DATA_INITIALISED, &startSeek},
    {"reqCBRStartScan", Gate::DATA_INITIALISED, &startScan},
    {"reqCBRStopScan", Gate::DATA_INITIALISED, &stopScan},
    {"reqCBRGetPresetList", Gate::DATA_INITIALISED, &getPresetList},
    {"reqCBRStorePreset", Gate::DATA_INITIALISED, &storePreset},
    {"reqCBRSelectPreset", Gate::DATA_INITIALISED, &selectPreset},
    {"reqCBRClearPreset", Gate::DATA_INITIALISED, &clearPreset},
    {"reqCBRChangeRxToTx", Gate::DATA_INITIALISED, &changeRxToTx},
    {"reqCBRChangeTxToRx", Gate::DATA_INITIALISED, &changeTxToRx},
};

const Method* findMethod(const char* name)
{
    for (const Method& m : METHODS)
        if (std::strcmp(name, m.name) == 0)
            return &m;
    return nullptr;
}
}

void CCBRadio::handleCBRadioRequest(SVCIPC_tReqContext context, const char* method, const char* parms,
                                    SVCIPC_tBool noReplyExpected, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_handleCBRadioRequest);
    ContextRelease release(context);
    CCBRadio* const radio = mpCBRadio;
    if (method == nullptr && radio == nullptr) {
        scope.sendFormattedMessage("\n[CBR] Module not ready yet!!!\n");
        return;
    }
    if (method == nullptr)
        method = "";
    if (parms == nullptr)
        parms = "";
    scope.sendFormattedMessage("\n[CBR handleCBRadioRequest] : method[%s] nReply[%d]!!!\n", method,
                               static_cast<int>(noReplyExpected));
    if (radio == nullptr || !radio->mServiceRegistered.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBR] Too early!!! Module not ready yet!!!\n");
        return;
    }

    Call call{scope, context, parms, *radio, ResultBuffer()};
    const Method* m = findMethod(method);
    if (m != nullptr && m->gate != Gate::DATA_INITIALISED) {
        m->handle(call);
        if (m->gate == Gate::REGISTERED)
            return;
        m = nullptr;  // a version method goes on like an unknown name
    }
    if (!mCBRDataInitialized.load(relaxed)) {
        call.answer(false);
        if (!returnResult(context, call.result.text))
            scope.sendFormattedMessage("\n[CBR] CB Radio Data is not yet initialized. Response failed!!!\n");
        return;
    }
    if (m != nullptr)
        m->handle(call);
    else
        scope.sendFormattedMessage("\n[CBR] Method [%s] Not Implemented\n", method);
}
