// CCBRadio: channel, squelch and the six presets in the head unit's key-value store.
//
// The eight settings are one record under the key "cbRadioProperties": a JSON array of eight
// integers (channel, squelch, presets 1 to 6), each written from its signed byte and read back
// truncated to a byte. The record is read once at start (getPersistedCBRadioProperties, whose
// completion pushes channel and squelch to the V850 and opens the radio methods) and written on
// every power mode 1 (storePersistedCBRadioProperties, fire and forget).
//
// A completion with an error code leaves the radio methods refused for the life of the process:
// the service will not run on settings it could not read when the store itself answered with an
// error. A reply that is not an object, or whose "res" is not exactly eight integers, counts as
// no record at all: the start values are pushed and the methods open. A "res" with an element
// that is not a number within an int is treated like one of the wrong length; a fraction is cut
// towards zero, as jsoncpp converts it.
//
// Threads: the read is sent from the main thread during start; its completion and the owner
// change callback run on a service-IPC dispatch thread; the store runs on the dispatch thread
// that delivers the power mode.
#include "CCBRadio.h"
#include "CBRadioBusNames.h"

#include "CBRadioJson.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <cstring>
#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_getPersistedCBRadioProperties(
    "CBRadio_CCBRadio", "getPersistedCBRadioProperties");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_storePersistedCBRadioProperties(
    "CBRadio_CCBRadio", "storePersistedCBRadioProperties");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCBRadioPersistDataRead("CBRadio_CCBRadio",
                                                                                        "onCBRadioPersistDataRead");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onNotifyPERSISTAvailability(
    "CBRadio_CCBRadio", "onNotifyPERSISTAvailability");

using namespace CBRadioBusNames;

namespace
{
const char* const SETTINGS_KEY = "cbRadioProperties";
const unsigned int READ_TIMEOUT_MS = 60000;
const unsigned int RECORD_SIZE = 8;
const unsigned int PRESET_COUNT = 6;
const std::memory_order relaxed = std::memory_order_relaxed;

const char* orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}
}

void CCBRadio::getPersistedCBRadioProperties()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_getPersistedCBRadioProperties);
    Json::Value params(Json::objectValue);
    params["key"] = SETTINGS_KEY;
    const std::string text = CBRadioJson::write(params);
    scope.sendFormattedMessage("\n[CBR getPersistedTimeProperties] \n");
    const SVCIPC_tError status = SVCIPC_asyncInvoke(mConnection, KV_SERVICE, KV_OBJECT, "read", text.c_str(), 0,
                                                    READ_TIMEOUT_MS, &CCBRadio::onCBRadioPersistDataRead, CLIENT_TOKEN);
    if (SVCIPC_IS_ERROR(status)) {
        scope.sendFormattedMessage("\n[CBR] failed getPersistedTimeProperties : service\n");
        mCBRDataInitialized.store(true, relaxed);
    }
}

void CCBRadio::storePersistedCBRadioProperties()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_storePersistedCBRadioProperties);
    Json::Value record(Json::arrayValue);
    record.append(static_cast<int>(mCBRCurrentChannel.load(relaxed)));
    record.append(static_cast<int>(mCBRSquelchLevel.load(relaxed)));
    for (unsigned int i = 0; i < PRESET_COUNT; ++i)
        record.append(static_cast<int>(mCBRPreset[i].load(relaxed)));
    Json::Value params(Json::objectValue);
    params[SETTINGS_KEY] = record;
    const std::string text = CBRadioJson::write(params);
    // No reply is asked for: a lost store is noticed at the next start, not now.
    SVCIPC_asyncInvoke(mConnection, KV_SERVICE, KV_OBJECT, "write", text.c_str(), 1, 0, nullptr, CLIENT_TOKEN);
}

void CCBRadio::onCBRadioPersistDataRead(const SVCIPC_tCallbackStatus* status, const char* result, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCBRadioPersistDataRead);
    const int errCode = status != nullptr ? status->errCode : static_cast<int>(SVCIPC_ERROR_INTERNAL);
    if (errCode != 0) {
        scope.sendFormattedMessage("\n[CBR onCBRadioPersistDataRead] : errCode = %d \n", errCode);
        return;
    }

    Json::Value root;
    if (!CBRadioJson::parseObject(result, root)) {
        scope.sendFormattedMessage("\n[CBR onCBRadioPersistDataRead] : parse error\n");
    } else {
        const Json::Value& res = CBRadioJson::member(root, "res");
        scope.sendFormattedMessage("\n[CBR onCBRadioPersistDataRead] : service \n");
        int values[RECORD_SIZE] = {};
        bool complete = res.isArray() && res.size() == RECORD_SIZE;
        for (unsigned int i = 0; complete && i < RECORD_SIZE; ++i) {
            complete = CBRadioJson::toInt(res[i], values[i]);
        }
        if (!complete) {
            scope.sendFormattedMessage("\n[CBR onCBRadioPersistDataRead] : service failed\n");
        } else {
            scope.sendFormattedMessage("\n[CBR onCBRadioPersistDataRead] : channel=%d,SquelchLvl=%d,prst1=%d,prst2=%d,"
                                       "prst3=%d,prst4=%d,prst5=%d,prst6=%d\n",
                                       values[0], values[1], values[2], values[3], values[4], values[5], values[6],
                                       values[7]);
            mCBRCurrentChannel.store(static_cast<signed char>(values[0]), relaxed);
            mCBRSquelchLevel.store(static_cast<signed char>(values[1]), relaxed);
            for (unsigned int i = 0; i < PRESET_COUNT; ++i)
                mCBRPreset[i].store(static_cast<signed char>(values[2 + i]), relaxed);
        }
    }

    // Restored or not, the V850 is told what the service now believes, and the methods open.
    CCBRadio* radio = mpCBRadio;
    if (radio != nullptr) {
        radio->reqCBRSetChannel(mCBRCurrentChannel.load(relaxed));
        radio->reqCBRSetSquelchLevel(mCBRSquelchLevel.load(relaxed));
    }
    mCBRDataInitialized.store(true, relaxed);
}

void CCBRadio::onNotifyPERSISTAvailability(const char* busName, const char* oldOwner, const char* newOwner,
                                           SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onNotifyPERSISTAvailability);
    CCBRadio* radio = mpCBRadio;
    if (radio == nullptr || !radio->mServiceRegistered.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBR onNotifyPERSISTAvailability] : Service Not initialized!!!\n");
        return;
    }
    scope.sendFormattedMessage("\n[CBR] [onOwnerChange] newName : %s oldOwner : %s newOwner : %s\n", orEmpty(busName),
                               orEmpty(oldOwner), orEmpty(newOwner));
    if (std::strstr(orEmpty(busName), "PersistentKeyValue") != nullptr) {
        persistency_Ready_Flag.store(true, relaxed);
        scope.sendFormattedMessage("\n[CBR onNotifyPERSISTAvailability] \n");
    } else {
        scope.sendFormattedMessage("\n[CBR onNotifyPERSISTAvailability] : ERROR\n");
    }
}
