// CCBRadio: the bus method dispatcher.
#include "CCBRadio.h"

void CCBRadio::handleCBRadioRequest(SVCIPC_tReqContext context, const char*, const char*, SVCIPC_tBool,
                                    SVCIPC_tUserToken)
{
    // Every call must free its context, answered or not.
    SVCIPC_freeReqContext(context);
}

void CCBRadio::onCompletion(const SVCIPC_tCallbackStatus*, SVCIPC_tUserToken)
{
}
