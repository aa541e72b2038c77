// EChannel: IPC channel numbers of the vehicle microcontroller link. The CB radio uses channel 6
// ("/dev/ipc/ch6").
#ifndef ECHANNEL_H
#define ECHANNEL_H

enum EChannel { CBR_IPC_CHANNEL_6 = 6 };

#endif
