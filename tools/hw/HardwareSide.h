#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <stdexcept>

#include "tools/core/TableDispatch.h"

namespace VeskTool {

struct HardwareOptions {
  // Sleep between looks at the logs when idle; idle for a while, ever longer (5 ms at most).
  std::chrono::microseconds pollEvery{50};
  // After work, look again at once for this long before sleeping: an agent writing a
  // stream of changes commits the next ones within microseconds, and a sleep (with its
  // timer slack) would add a tenth of a millisecond to each of their answers.
  std::chrono::microseconds spinFor{200};
  std::chrono::microseconds delay{0};         // per change, to model a slow TCAM
  uint64_t rate = 0;                          // at most this many changes a second; 0: no limit
  std::chrono::milliseconds exitWhenIdle{0};  // 0: run until SIGTERM or SIGINT
  std::chrono::milliseconds progressEvery{0};
};

struct HardwareReport {
  std::array<uint64_t, kTableCount> applied{};
  std::array<uint64_t, kTableCount> resumedAfter{};
  std::array<uint64_t, kTableCount> taken{};
  int stopSignal = 0;  // SIGTERM or SIGINT, when one stopped it
};

// A TCAM the hardware side needs cannot be used, or it stops idle (exitWhenIdle) with a
// change it could not read or apply: the message names the file or change and what to do.
class HardwareError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The hardware side, a process of its own: reads every table type's change log (read-only)
// in version order, applies each change to the simulated TCAM of its unit (a write takes
// the entry from the unit's configuration, read-only too), and records the version it has
// processed in the group's table-version map, which the agent reads. A restart resumes
// after the recorded version; a TCAM remembers the newest version applied to it, so a
// change applied before a crash and not yet recorded is not applied again. Throws
// HardwareError when a TCAM cannot be mounted, or when it stops idle with a change it could
// not read or apply. Says on `status` where it resumes, its progress, and once each what
// it waits for: an agent, or a change it cannot read or apply for a while (it retries).
HardwareReport runHardwareSide(const HardwareOptions& options, std::ostream& status);

}  // namespace VeskTool
