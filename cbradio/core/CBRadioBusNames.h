// CBRadioBusNames: the bus names and object paths of the CB radio service and of the head-unit
// services it talks to, and the client text it registers and subscribes with. One place, so the
// service's own files and the tools that talk to it cannot drift apart.
#ifndef CBRADIOBUSNAMES_H
#define CBRADIOBUSNAMES_H

namespace CBRadioBusNames
{
constexpr const char* SERVICE_NAME = "com.quorin.service.CBRadioService";
constexpr const char* SERVICE_OBJECT = "/com/quorin/service/CBRadioService";
// The service's signals, as its interface description lists them.
constexpr const char* SERVICE_SIGNALS[] = {
    "CBRadioStatus",         "CBRChannelNumber", "CBRSquelchLevel",           "CBRReceptionSensitivity",
    "CBRHWConnectionStatus", "CBRRxTxStatus",    "CBRWeatherAlertOnOffStatus"};
// Context of the registration and token of every subscription, emit and client call.
constexpr const char* CLIENT_TOKEN = "MRDCBRadio";

constexpr const char* AUDIO_MANAGER_SERVICE = "com.quorin.service.AudioManager";
constexpr const char* AUDIO_MANAGER_OBJECT = "/com/quorin/service/AudioManager";
constexpr const char* KV_SERVICE = "com.quorin.service.PersistentKeyValue";
constexpr const char* KV_OBJECT = "/com/quorin/service/PersistentKeyValue";
constexpr const char* TTS_SERVICE = "com.quorin.service.TextToSpeechService";
constexpr const char* TTS_OBJECT = "/com/quorin/service/TextToSpeechService";
constexpr const char* POWER_SERVICE = "com.quorin.service.MERIDOOnOff";
constexpr const char* POWER_OBJECT = "/com/quorin/service/MERIDOOnOff";
constexpr const char* MODE_MANAGER_SERVICE = "com.quorin.service.ModeManager";
constexpr const char* MODE_MANAGER_OBJECT = "/com/quorin/service/ModeManager";
constexpr const char* DIAGNOSIS_SERVICE = "com.quorin.service.DiagnosticService";
constexpr const char* DIAGNOSIS_OBJECT = "/com/quorin/service/DiagnosticService";
constexpr const char* CAN_HMI_OBJECT = "/com/quorin/service/CAN_HMI";
}

#endif
