// ITimerHandler: receiver of CTimer expiries. handleTimerEvent runs on the timer master's thread,
// one expiry at a time; it may stop (and restart) its own timer.
#ifndef ITIMERHANDLER_H
#define ITIMERHANDLER_H

class CTimer;

class ITimerHandler
{
public:
    virtual void handleTimerEvent(CTimer* timer) = 0;
    virtual ~ITimerHandler() {}
};

#endif
