#include "tools/core/ServiceNotify.h"

#include <cstdlib>
#include <cstring>

#include <fmt/ostream.h>

#ifdef VESK_HAVE_LIBSYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace VeskTool {

void notifyServiceReady(std::ostream& status) {
#ifdef VESK_HAVE_LIBSYSTEMD
  const int sent = sd_notify(0, "READY=1");
  if (sent < 0) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    fmt::print(status,
               "vesktap: cannot tell the service manager that this is ready (NOTIFY_SOCKET={}: "
               "{}); unset NOTIFY_SOCKET unless a service manager started it\n",
               path ? path : "", std::strerror(-sent));
    status.flush();
  }
#else
  (void)status;
#endif
}

bool serviceNotifySupported() {
#ifdef VESK_HAVE_LIBSYSTEMD
  return true;
#else
  return false;
#endif
}

}  // namespace VeskTool
