#include "CServiceManager.h"

#include <systemd/sd-daemon.h>

void CServiceManager::notifyReady()
{
    ::sd_notify(0, "READY=1");
}

void CServiceManager::notifyStopping()
{
    ::sd_notify(0, "STOPPING=1");
}
