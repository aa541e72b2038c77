// CCBRadio: the status signals.
#include "CCBRadio.h"

void CCBRadio::sendCBRadioStatusSignal() {}
void CCBRadio::sendCBRChannelNumberSignal() {}
void CCBRadio::sendCBRSquelchLevelSignal() {}
void CCBRadio::sendCBRReceptionSensitivitySignal() {}
void CCBRadio::sendCBRHWConnectionStatus() {}
void CCBRadio::sendCBRRxTxStatusSignal() {}
void CCBRadio::sendCBRWeatherAlertOnOffStatusSignal() {}
