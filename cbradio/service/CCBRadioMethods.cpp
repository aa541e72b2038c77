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

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_handleCBRadioRequest("CBRadio_CCBRadio", "handleCBRadioRequest");

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

    bool is(const char* method, const char* name)
    {
        return std::strcmp(method, name) == 0;
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

    const std::string& success = CBRadioJsonText::success();
    const std::string& failure = CBRadioJsonText::failure();
    ResultBuffer result;

    // ---- methods that need only the registration; the version methods fall through ------------
    if (is(method, "reqCBRHWVersion")) {
        if (radio->mCBRHWVersion[0].load(relaxed) != 0xFF) {
            const std::string version = versionText(radio->mCBRHWVersion, 2);
            reply(scope, context, CBRadioJsonText::successWith("CBRadioHWVersion", version).c_str());
        } else {
            result.set(failure);
            reply(scope, context, result.text);
        }
    }
    if (is(method, "reqCBRSWVersion")) {
        if (radio->mCBRSWVersion[0].load(relaxed) != 0xFF) {
            const std::string version = versionText(radio->mCBRSWVersion, 14);
            reply(scope, context, CBRadioJsonText::successWith("CBRadioSWVersion", version).c_str());
        } else {
            result.set(failure);
            reply(scope, context, result.text);
        }
    }
    if (is(method, "reqCBRWeatherAlertOnOff")) {
        long long onOff = -1;
        if (Arguments(parms).integer("CBRWAState", onOff) && inRange(onOff, 0, 1)) {
            radio->reqCBRWeatherAlertOnOffRequest(static_cast<int>(onOff));
            mWAttsReadonoff.store(onOff != 0, relaxed);
            result.set(success);
        } else {
            result.set(failure);
        }
        reply(scope, context, result.text);
        return;
    }
    if (is(method, "getProperties")) {
        std::string name;
        const Property* property = nullptr;
        if (Arguments(parms).text("props", name)) {
            for (const Property& p : PROPERTIES)
                if (name == p.name)
                    property = &p;
        }
        if (property != nullptr) {
            (radio->*(property->send))();
            result.set(success);
        } else {
            result.set(failure);
        }
        reply(scope, context, result.text);
        return;
    }

    // ---- radio methods -------------------------------------------------------------------------
    if (!mCBRDataInitialized.load(relaxed)) {
        result.set(failure);
        if (!returnResult(context, result.text))
            scope.sendFormattedMessage("\n[CBR] CB Radio Data is not yet initialized. Response failed!!!\n");
        return;
    }

    if (is(method, "reqCBRStateChange")) {
        long long state = -1;
        const bool given = Arguments(parms).integer("CBRState", state);
        if (given)
            scope.sendFormattedMessage("\n[CBR] reqCBRStateChange : %d\n", static_cast<int>(state));
        if (given && inRange(state, 0, 1)) {
            radio->reqCBRStateChange(static_cast<int>(state));
            result.set(success);
        } else {
            result.set(failure);
        }
        reply(scope, context, result.text);
    } else if (is(method, "reqCBRAdjustSquelchLevel")) {
        long long direction = -1;
        const bool given = Arguments(parms).integer("squelchChg", direction);
        if (given)
            scope.sendFormattedMessage("\n[CBR] reqCBRAdjustSquelchLevel : %d\n", static_cast<int>(direction));
        if (given && inRange(direction, 0, 1)) {
            radio->reqCBRAdjustSquelchLevel(static_cast<int>(direction));
            result.set(success);
        } else {
            result.set(failure);
        }
        reply(scope, context, result.text);
    } else if (is(method, "reqCBRStartSeek")) {
        long long direction = -1;
        const bool given = Arguments(parms).integer("seekDirection", direction);
        if (given)
            scope.sendFormattedMessage("\n[CBR] reqCBRStartSeek : %d\n", static_cast<int>(direction));
        if (given && inRange(direction, 0, 1)) {
            radio->reqCBRSeek(static_cast<int>(direction));
            result.set(success);
        } else {
            result.set(failure);
        }
        reply(scope, context, result.text, "\n[CBRadio] response failed!!!\n");
    } else if (is(method, "reqCBRStartScan")) {
        scope.sendFormattedMessage("\n[CBR] reqCBRStartScan \n");
        result.set(success);
        reply(scope, context, result.text, "\n[CBRadio] response failed!!!\n");
        radio->reqCBRStartScan();
    } else if (is(method, "reqCBRStopScan")) {
        scope.sendFormattedMessage("\n[CBR] reqCBRStopScan\n");
        result.set(success);
        reply(scope, context, result.text);
        radio->reqCBRStopScan();
    } else if (is(method, "reqCBRGetPresetList")) {
        reply(scope, context, presetList().c_str());
    } else if (is(method, "reqCBRStorePreset")) {
        const Arguments args(parms);
        long long channel = 0;
        long long preset = 0;
        if (args.integer("channelNumber", channel) && args.integer("presetNo", preset)
            && inRange(channel, MIN_CHANNEL, MAX_CHANNEL) && inRange(preset, 1, PRESET_COUNT)) {
            mCBRPreset[preset - 1].store(static_cast<signed char>(channel), relaxed);
            result.set(success);
        } else {
            result.set(failure);
        }
        scope.sendFormattedMessage("\n[CBR] reqCBRStorePreset result code : %d\n", 1);
        reply(scope, context, result.text);
    } else if (is(method, "reqCBRSelectPreset")) {
        long long preset = 0;
        if (Arguments(parms).integer("PresetNo", preset) && inRange(preset, 1, PRESET_COUNT)) {
            // A cleared preset selects channel 0; the V850 refuses it.
            const int channel = mCBRPreset[preset - 1].load(relaxed);
            scope.sendFormattedMessage("\n[CBR] reqCBRSelectPreset : %d%d\n", static_cast<int>(preset), channel);
            radio->reqCBRSelectPreset(channel);
            result.set(success);
        } else {
            result.set(failure);
        }
        reply(scope, context, result.text);
    } else if (is(method, "reqCBRClearPreset")) {
        // Memory only: no frame, no signal and, by design, no result.
        scope.sendFormattedMessage("\n[CBR] reqCBRClearPreset Requested\n");
        for (auto& preset : mCBRPreset)
            preset.store(0, relaxed);
        mCBRCurrentChannel.store(DEFAULT_CHANNEL, relaxed);
        mCBRSquelchLevel.store(DEFAULT_SQUELCH_LEVEL, relaxed);
    } else if (is(method, "reqCBRChangeRxToTx")) {
        scope.sendFormattedMessage("\n[CBR] reqCBRChangeRxToTx\n");
        if (mCBRStatus.load(relaxed) == 1) {
            radio->setCBTxAudioSource();
            radio->req_CBR_PTT_STATUS_toV850(CBR_PTT_ON);
            scope.sendFormattedMessage("\n[CBR] reqCBRChangeRxToTx writeData done \n");
            result.set(success);
        }
        reply(scope, context, result.text, "\n[CBR] reqCBRChangeRxToTx response failed!!!\n");
    } else if (is(method, "reqCBRChangeTxToRx")) {
        scope.sendFormattedMessage("\n[CBR] reqCBRChangeTxToRx\n");
        if (mCBRStatus.load(relaxed) == 1 && mCBRTxAudioSrcIntrStatus.load(relaxed) == CBR_TX_INT_REQUEST_SUCCESS) {
            radio->removeCBTxAudioSource();
            radio->req_CBR_PTT_STATUS_toV850(CBR_PTT_OFF);
            scope.sendFormattedMessage("\n[CBR] reqCBRChangeTxToRx writeData done \n");
            result.set(success);
        }
        reply(scope, context, result.text, "\n[CBR] reqCBRChangeTxToRx response failed!!!\n");
    } else {
        scope.sendFormattedMessage("\n[CBR] Method [%s] Not Implemented\n", method);
    }
}
