// ECBRPTTStatus: the push-to-talk state sent to the V850 (0 receive, 1 transmit).
#ifndef ECBRPTTSTATUS_H
#define ECBRPTTSTATUS_H

enum ECBRPTTStatus { CBR_PTT_OFF = 0, CBR_PTT_ON = 1 };

#endif
