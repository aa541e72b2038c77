// CServiceManager: tells a service manager (systemd) how the service is doing.
//
// notifyReady() says "READY=1" once the service is up and running (after its start sequence), so
// that a unit of Type=notify counts as started only then; notifyStopping() says "STOPPING=1" when
// the stop begins. Both go through libsystemd's sd_notify to $NOTIFY_SOCKET; without one (not
// started by systemd) they do nothing. Errors are ignored: the service runs the same either way.
// Callable from any thread.
#ifndef CSERVICEMANAGER_H
#define CSERVICEMANAGER_H

namespace CServiceManager
{
void notifyReady();
void notifyStopping();
}

#endif
