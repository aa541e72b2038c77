// CCBRadio: channel, squelch and presets in the key-value store.
#include "CCBRadio.h"

void CCBRadio::getPersistedCBRadioProperties() {}
void CCBRadio::storePersistedCBRadioProperties() {}
void CCBRadio::onCBRadioPersistDataRead(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onNotifyPERSISTAvailability(const char*, const char*, const char*, SVCIPC_tUserToken) {}
