// CMsgHandlerChannelTwelve: decodes the frames the V850 sends on the CB radio channel and turns
// them into radio state, bus signals and audio/PTT actions of the service it was given.
//
// A frame is message id, payload length byte, payload. processMsg checks the length byte against
// what the id requires (not for 0x01) and the payload's range, and traces every refusal; a refused
// frame changes nothing. Accepted frames:
//   07 hardware version (2)      08 software version (10; 15 bytes are copied on purpose)
//   09 reception sensitivity (1) 0F hardware connection 0/1 (1)   01 radio on/off (unchecked)
//   0B weather alert on/off (1)  0C weather alert status/channel 1..7 (2), only while alerts are on
//   and, only while the radio is on (dropped silently otherwise):
//   03 squelch 0..14 + A0 (2)    0A Tx/Rx status 0/1 each (2)    02 channel 1..40 + A0 (2)
// Radio off (01) or hardware lost (0F) while either is 0 shuts the audio path down: both audio
// sources removed, PTT 0 written to the V850, PTT and VOX state cleared.
//
// `data` must point to the reader's whole 128-byte buffer: `length` is only tested for being
// non-zero (a failed read hands on 0xFFFFFFFF) and the decoder reads what the buffer holds, at most
// 17 bytes. Any content is safe. Runs on the V850 reader thread; keeps no state of its own and
// never throws.
#ifndef CMSGHANDLERCHANNELTWELVE_H
#define CMSGHANDLERCHANNELTWELVE_H

#include "IMsgProcessor.h"

class CCBRadio;

class CMsgHandlerChannelTwelve : public IMsgProcessor
{
public:
    explicit CMsgHandlerChannelTwelve(CCBRadio* radio);
    ~CMsgHandlerChannelTwelve() override;

    void processMsg(unsigned char* data, unsigned int length) override;

private:
    CCBRadio* mpCBRadio;
};

#endif
