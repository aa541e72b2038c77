#include "CMsgHandlerChannelTwelve.h"

#include "CCBRadio.h"
#include "CJTTraceScope.h"
#include "CJTTraceScopeDef.h"

static CJTTraceScopeDef gsTraceServerScopeDef_CBRadio_CMsgHandlerChannelTwelve_processMsg("CBRadio_CMsgHandlerChannelTwelve", "processMsg");

CMsgHandlerChannelTwelve::CMsgHandlerChannelTwelve(CCBRadio* radio) : mpCBRadio(radio)
{
}

CMsgHandlerChannelTwelve::~CMsgHandlerChannelTwelve()
{
}

void CMsgHandlerChannelTwelve::processMsg(unsigned char* data, unsigned int length)
{
    CJTTraceScope scope(gsTraceServerScopeDef_CBRadio_CMsgHandlerChannelTwelve_processMsg);
    scope.sendFormattedMessage("\n[CBRadio] [CH6] Received the data from IPC Channel !!!\n");
    (void)data;
    (void)length;
    (void)mpCBRadio;
}
