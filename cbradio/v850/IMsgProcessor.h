// IMsgProcessor: receives every frame the V850 reader thread reads, on that thread. length is
// the read's result: the frame's byte count, or 0xFFFFFFFF after a failed read (the buffer then
// holds whatever the previous reads left in it).
#ifndef IMSGPROCESSOR_H
#define IMSGPROCESSOR_H

class IMsgProcessor
{
public:
    virtual ~IMsgProcessor() {}
    virtual void processMsg(unsigned char* data, unsigned int length) = 0;
};

#endif
