#pragma once

#include <ostream>

namespace VeskTool {

// Readiness for a service manager: systemd starts a Type=notify unit with $NOTIFY_SOCKET
// set and waits for READY=1 on it before it counts the service as started. The hardware
// side says so once its loop runs, the agent once its tables are restored. Nothing is sent
// without $NOTIFY_SOCKET, or in a build made without libsystemd. A message that cannot be
// sent is told on `status` in one line; the program runs on (systemd then times the start
// out and says so). Any thread; the environment is read, never changed.
void notifyServiceReady(std::ostream& status);

// Whether this build can tell a service manager anything (it was built with libsystemd).
bool serviceNotifySupported();

}  // namespace VeskTool
