#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <ostream>

#include "tools/core/TableDispatch.h"

namespace VeskTool {

struct HardwareOptions {
  std::chrono::microseconds pollEvery{50};   // sleep between looks at the logs when idle
  // After work, look again at once for this long before sleeping: an agent writing a
  // stream of changes commits the next ones within microseconds, and a sleep (with its
  // timer slack) would add a tenth of a millisecond to each of their answers.
  std::chrono::microseconds spinFor{200};
  std::chrono::microseconds delay{0};  // per change, to model a slow TCAM
  uint64_t rate = 0;                   // at most this many changes a second; 0: no limit
  std::chrono::milliseconds exitWhenIdle{0};  // 0: run until SIGTERM or SIGINT
  std::chrono::milliseconds progressEvery{0};
};

struct HardwareReport {
  std::array<uint64_t, kTableCount> applied{};
  std::array<uint64_t, kTableCount> resumedAfter{};
  std::array<uint64_t, kTableCount> taken{};
};

// The hardware side, a process of its own: reads every table type's change log (read-only)
// in version order, applies each change to the simulated TCAM of its unit (a write takes
// the entry from the unit's configuration, read-only too), and records the version it has
// processed in the group's table-version map, which the agent reads. A restart resumes
// after the recorded version; a TCAM remembers the newest version applied to it, so a
// change applied before a crash and not yet recorded is not applied again.
HardwareReport runHardwareSide(const HardwareOptions& options, std::ostream& out);

}  // namespace VeskTool
