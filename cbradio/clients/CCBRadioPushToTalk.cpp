// CCBRadio: rider and passenger push-to-talk, VOX and the vehicle power mode.
#include "CCBRadio.h"

std::atomic<unsigned char> CCBRadio::mCBRRiderPttStatus(0);
std::atomic<unsigned char> CCBRadio::mCBRPassengerPttStatus(0);
std::atomic<unsigned char> CCBRadio::mPassengerPTTcount(0);
std::atomic<unsigned char> CCBRadio::mCBRVoxDetectStatus(0);
std::atomic<signed char> CCBRadio::mCBRPowerModeValue(0);

void CCBRadio::onRiderPTTSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onPassengerPTTSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onVoxDetectedStateSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onPowerModeSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::GetPowerModeValue() {}
void CCBRadio::getVoxDetectedState() {}
