// CCBRadio: the interrupting audio sources "cbRX" and "cbTX", and the microphone switch.
#include "CCBRadio.h"

std::atomic<unsigned char> CCBRadio::mCBRRxAudioSrcIntrStatus(CBR_RX_INT_NOT_REQUESTED);
std::atomic<unsigned char> CCBRadio::mCBRTxAudioSrcIntrStatus(CBR_TX_INT_NOT_REQUESTED);

void CCBRadio::setCBRxAudioSource() {}
void CCBRadio::setCBTxAudioSource() {}
void CCBRadio::removeCBRxAudioSource() {}
void CCBRadio::removeCBTxAudioSource() {}
void CCBRadio::setMicStatus(int, int) {}
void CCBRadio::onCompletionCBRxAddInterruptSrc(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onCompletionCBTxAddInterruptSrc(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onCompletionCBRxRemoveInterruptSrc(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onCompletionCBTxRemoveInterruptSrc(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onCompletionSetDeviceState(const SVCIPC_tCallbackStatus*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::oninterruptSrcStateSignal(const char*, const char*, SVCIPC_tUserToken) {}
void CCBRadio::onNotifyAudioManagerAvailability(const char*, const char*, const char*, SVCIPC_tUserToken) {}
