// CCBRadio: the client subscriptions, inspection mode, rear controller and audio routing.
#include "CCBRadio.h"

std::atomic<int> CCBRadio::mHuInspectionMode(0);
std::atomic<unsigned char> CCBRadio::mRearControlStatus(0);
std::atomic<unsigned char> CCBRadio::mheadset_r_status(0);
std::atomic<unsigned char> CCBRadio::mheadset_p_status(0);

bool CCBRadio::isServiceAvailable(const char*)
{
    return false;
}

void CCBRadio::subscribeRiderPTT(bool) {}
void CCBRadio::subscribePassengerPTT(bool) {}
void CCBRadio::subscribePowerMode(bool) {}
void CCBRadio::subscribeVoxDetectedState(bool) {}
void CCBRadio::subscribettsAvailable(bool) {}
void CCBRadio::subscribeinterruptSrcState(bool) {}
void CCBRadio::subscribeAudioRoutingStatus(bool) {}
void CCBRadio::subscriberearControllerState(bool) {}
void CCBRadio::subscribeHuInpectionModeState(bool) {}
void CCBRadio::getAudioRoutingStatus() {}
void CCBRadio::getRearControllerState() {}
void CCBRadio::getDiagInspmodeState() {}
void CCBRadio::ondiagInspectionModeStatusSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onRearControllerStateSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onAudioRoutingStatusSignal(const char*, const char*, SVCIPC_tUserToken) {}
