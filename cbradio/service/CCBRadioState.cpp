// CCBRadio: the radio state the service mirrors from the V850, with its start values. Values that
// start non-zero are constant-initialised, so they hold before any constructor runs.
#include "CCBRadio.h"

std::atomic<signed char> CCBRadio::mCBRCurrentChannel(1);
std::atomic<signed char> CCBRadio::mCBRSquelchLevel(8);
std::atomic<signed char> CCBRadio::mCBRPreset[6] = {{0}, {0}, {0}, {0}, {0}, {0}};
std::atomic<signed char> CCBRadio::mCBRStatus(0);
std::atomic<signed char> CCBRadio::mPrevCBRStatus(0);
std::atomic<signed char> CCBRadio::mCBRRxStatus(0);
std::atomic<signed char> CCBRadio::mCBRTxStatus(0);
std::atomic<unsigned char> CCBRadio::mCBRHWConnectionStatus(0);
std::atomic<unsigned char> CCBRadio::mCBRReceptionSensitivity(0);
std::atomic<signed char> CCBRadio::mCBRWeatherAlertOnOff(0);
std::atomic<unsigned char> CCBRadio::mCBRWeatherAlertStatus(0);
std::atomic<unsigned char> CCBRadio::mCBRWeatherAlertChannelNumber(0);
std::atomic<bool> CCBRadio::mAudioManagerServiceAvailStatus(true);
