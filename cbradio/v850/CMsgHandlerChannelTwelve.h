// CMsgHandlerChannelTwelve: decodes the frames the V850 sends on the CB radio channel and turns
// them into radio state, bus signals and audio/PTT actions of the service it was given. Runs on
// the V850 reader thread; keeps no state of its own.
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
