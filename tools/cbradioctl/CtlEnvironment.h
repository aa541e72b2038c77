// CtlEnvironment: where cbradioctl finds the session bus.
//
// DBUS_SESSION_BUS_ADDRESS from the environment wins. When it is unset or empty, the platform's
// environment file /tmp/envars.sh (under $CBRADIO_ROOT) is read the way the service reads it:
// the first line holding "DBUS_SESSION_BUS_ADDRESS=" (an "export " in front is fine), the value
// cut at ';' and stripped of surrounding single quotes and the line end. The address found is
// exported, so the service-IPC library sees it.
#ifndef CTLENVIRONMENT_H
#define CTLENVIRONMENT_H

#include <string>

namespace cbradioctl
{

// The address now in DBUS_SESSION_BUS_ADDRESS, or "" when none could be found.
std::string resolveBusAddress();

// The address an envars file sets ("" when it sets none or cannot be read).
std::string addressFromEnvFile(const std::string& hostPath);

}  // namespace cbradioctl

#endif
