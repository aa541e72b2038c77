// ERequest: what the request worker of CCBRadio is asked to do. Values 2..12 turn into V850
// status queries, 14 only wakes the worker so that it can see the exit flag; every other value
// is taken off the queue without action; the fixed int type lets any 32-bit value be posted.
#ifndef EREQUEST_H
#define EREQUEST_H

enum ERequest : int {
    REQ_CBR_RESERVED_0 = 0,
    REQ_CBR_RESERVED_1 = 1,
    REQ_CBR_CHN_SELECT = 2,
    REQ_CBR_SET_SQUELCH_LEVEL = 3,
    REQ_CBR_RESERVED_4 = 4,
    REQ_CBR_STOP_SCAN = 5,
    REQ_CBR_RESERVED_6 = 6,
    REQ_CBR_VERSION_INFO = 7,
    REQ_CBR_RESERVED_8 = 8,
    REQ_CBR_ANTENNA_STATUS = 9,
    REQ_CBR_ANTENNA_SENSITIVITY = 10,
    REQ_CBR_TX_STATUS = 11,
    REQ_CBR_RX_STATUS = 12,
    REQ_CBR_RESERVED_13 = 13,
    REQ_CBR_EXIT = 14
};

#endif
