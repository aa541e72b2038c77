// CCBRadio: reading a weather alert out through the text-to-speech service.
#include "CCBRadio.h"

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

void CCBRadio::sendCBRWeatherAlertStatusSignal() {}
void CCBRadio::onCompletionttsRequest(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onttsAvailableSignal(const char*, const char*, SVCIPC_tUserToken) {}
