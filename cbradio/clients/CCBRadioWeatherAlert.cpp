// CCBRadio: reading a weather alert out through the head unit's speech service.
//
// When the V850 reports an active alert on weather channel 1 to 7, the announcement for that
// channel (it names the frequency to tune to) is sent to "ttsReadout". One read-out at a time:
// ttsReadRequest is set when the request goes out and cleared when it is refused or answered with
// a "code" and a "description". A completion without them (bus error, time-out after 15 s, a
// reply that is not a JSON object, members missing or of the wrong type) leaves the flag set, and
// every later alert is then refused with "TTS already Requested": the service does not risk two
// announcements talking over each other when it cannot tell whether the first one is still
// running.
//
// Threads: the request runs on the V850 reader thread, the completion and the availability signal
// on service-IPC dispatch threads.
#include "CCBRadio.h"
#include "CBRadioBusNames.h"

#include "CBRadioJson.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

#include <cstring>
#include <string>

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRWeatherAlertStatusSignal(
    "CBRadio_CCBRadio", "sendCBRWeatherAlertStatusSignal");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionttsRequest("CBRadio_CCBRadio",
                                                                                      "onCompletionttsRequest");
static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CCBRadio_onttsAvailableSignal("CBRadio_CCBRadio",
                                                                                    "onttsAvailableSignal");

std::atomic<unsigned char> CCBRadio::ttsReadRequest(0);

const char* const CCBRadio::Weather_Alert_channel_Info[8] = {
    "",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.400 MHz, for more information ",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.425 MHz, for more information ",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.450 MHz, for more information ",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.475 MHz, for more information ",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.500 MHz, for more information ",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.525 MHz, for more information ",
    "A weather alert from the National Weather Service has been received Please tune to the weather band, 162.550 MHz, for more information ",
};

using namespace CBRadioBusNames;

namespace
{
const unsigned int READOUT_TIMEOUT_MS = 15000;
const unsigned char FIRST_WEATHER_CHANNEL = 1;
const unsigned char LAST_WEATHER_CHANNEL = 7;
const std::memory_order relaxed = std::memory_order_relaxed;
}

void CCBRadio::sendCBRWeatherAlertStatusSignal()
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_sendCBRWeatherAlertStatusSignal);
    // The two texts below name each other's condition; the wording is kept as the logs know it.
    if (!mServiceRegistered.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBRadio] sendCBRWeatherAlertStatusSignal:WA tts read out OFF\n");
        return;
    }
    if (!mWAttsReadonoff.load(relaxed)) {
        scope.sendFormattedMessage("\n[CBRadio] sendCBRWeatherAlertStatusSignal: Service Not initialized\n");
        return;
    }
    const unsigned char channel = mCBRWeatherAlertChannelNumber.load(relaxed);
    if (mCBRWeatherAlertStatus.load(relaxed) != 1 || channel < FIRST_WEATHER_CHANNEL || channel > LAST_WEATHER_CHANNEL)
        return;
    if (ttsReadRequest.load(relaxed) != 0) {
        scope.sendFormattedMessage("\n[CBR] TTS already Requested \n");
        return;
    }
    Json::Value params(Json::objectValue);
    params["data"] = Weather_Alert_channel_Info[channel];
    params["dataIsFile"] = false;
    params["readoutType"] = "WEATHER_ALERT";
    const std::string text = CBRadioJson::write(params);
    if (!isServiceAvailable(TTS_SERVICE)) {
        scope.sendFormattedMessage("\n[CBR]TTS SVCIPC_nameHas No Owner \n");
        return;
    }
    ttsReadRequest.store(1, relaxed);
    const SVCIPC_tError status = SVCIPC_asyncInvoke(mConnection, TTS_SERVICE, TTS_OBJECT, "ttsReadout", text.c_str(), 0,
                                                    READOUT_TIMEOUT_MS, &CCBRadio::onCompletionttsRequest,
                                                    CLIENT_TOKEN);
    if (SVCIPC_IS_ERROR(status)) {
        scope.sendFormattedMessage("\n[CBR]TTS Request is failed \n");
        ttsReadRequest.store(0, relaxed);
    } else {
        scope.sendFormattedMessage("\n[CBR]TTS Request is Success \n");
    }
}

void CCBRadio::onCompletionttsRequest(const SVCIPC_tCallbackStatus* status, const char* result, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onCompletionttsRequest);
    // The texts name the audio-source completion; the log readers know them that way.
    Json::Value root;
    if (!CBRadioJson::replyObject(scope, status, result, root, "\n[CBR onCompletionAddInterruptSrc] : error \n",
                                  "\n[CBR onCompletionAddInterruptSrc] : parsing error \n"))
        return;
    std::string description;
    int code = 0;
    if (!CBRadioJson::readString(root, "description", description) || !CBRadioJson::readInt(root, "code", code)) {
        scope.sendFormattedMessage("\n[CBR onCompletionAddInterruptSrc] : failure \n");
        return;
    }
    if (description == "success" && code == 0)
        scope.sendFormattedMessage("\n[CBR] ttsReadOut Success \n");
    else
        scope.sendFormattedMessage("\n[CBR] ttsReadOutError : ==> %s %d \n", description.c_str(), code);
    ttsReadRequest.store(0, relaxed);
}

void CCBRadio::onttsAvailableSignal(const char* sigName, const char* data, SVCIPC_tUserToken)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CCBRadio_onttsAvailableSignal);
    Json::Value root;
    if (!CBRadioJson::signalObject(scope, sigName, "ttsAvailable", data, root, "[CBR onttsAvailableSignal] : error",
                                   "[CBR onttsAvailableSignal] : parse error"))
        return;
    // Only logged: a read-out is gated by the speech service owning its bus name, not by this.
    int state = 0;
    if (CBRadioJson::readInt(root, "state", state) && state == 1)
        scope.sendFormattedMessage("[CBR onttsAvailableSignal] : TTS Available");
    else
        scope.sendFormattedMessage("[CBR onttsAvailableSignal] : TTS Not Available");
}
