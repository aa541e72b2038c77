// BusMonitor: what the CB radio service asks of its peers, as seen on the bus.
//
// The service reports a weather alert to nobody on the bus: it has the speech service read it out
// ("ttsReadout", a text naming the weather band frequency). Whether it receives or transmits is
// signalled only on the return to idle, but it asks the audio manager for the "cbRX" or "cbTX"
// source as soon as the radio module reports either. The monitor makes these requests visible: it
// opens a connection of its own, turns it into a bus monitor (org.freedesktop.DBus.Monitoring)
// for method calls sent by the service's bus name to those two peers, and publishes each as a
// "request" event ({"to","method","data","text"}: to is the peer's short name, data the argument
// parsed). A monitor only listens; it cannot send, which is why it is a connection apart.
//
// start() returns "" or why monitoring is not available (the panel then runs without it). The
// monitor's thread reads its connection with a 200 ms time-out so that stop() ends it promptly.
#ifndef BUSMONITOR_H
#define BUSMONITOR_H

#include "EventHub.h"

#include <atomic>
#include <string>
#include <thread>

struct DBusConnection;
struct DBusMessage;

namespace panel
{

class BusMonitor
{
public:
    explicit BusMonitor(EventHub& hub) : mHub(hub) {}
    ~BusMonitor() { stop(); }
    BusMonitor(const BusMonitor&) = delete;
    BusMonitor& operator=(const BusMonitor&) = delete;

    std::string start(const std::string& busAddress);
    void stop();
    bool lost() const { return mLost.load(std::memory_order_relaxed); }

private:
    void run();
    void handle(DBusMessage* message);

    EventHub& mHub;
    DBusConnection* mConn = nullptr;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<bool> mLost{false};
};

}  // namespace panel

#endif
