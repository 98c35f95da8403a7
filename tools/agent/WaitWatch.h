#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <vector>

namespace VeskTool {

// Tells the operator, once when it starts and once when it ends, that changes are held up
// by the hardware side: committed changes that no hardware side has taken for `silentFor`
// (naming the tables and since when; only for an agent that waits for the hardware side),
// or a table type's change log full (changes are held back uncommitted then, and nothing
// is lost). Fed what each table type shows at every look the agent takes at the hardware
// side. Owned by the agent's loop; its event thread only.
class WaitWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // One table type at one look.
  struct Table {
    std::string_view name;
    uint64_t committed = 0;  // newest version in its change log
    uint64_t taken = 0;      // newest version the hardware side took (0: none)
    uint64_t records = 0;    // records its change log holds
    uint64_t capacity = 0;   // records it holds at most
  };

  WaitWatch(std::ostream& out, bool waitsForHardware, std::chrono::milliseconds silentFor)
      : out_(out), waitsForHardware_(waitsForHardware), silentFor_(silentFor) {}

  // `heldBack`: changes the agent holds uncommitted.
  void look(const std::vector<Table>& tables, uint64_t heldBack, Clock::time_point now);

  // How long changes have waited with no hardware side taking any: committed ones, for an
  // agent that waits for the hardware side, else ones held back by a full change log; zero
  // when none wait.
  Clock::duration stalledFor(Clock::time_point now) const {
    const bool held = waitsForHardware_ || anyFull_;
    return waiting_ && held ? now - quietSince_ : Clock::duration::zero();
  }

 private:
  void lookForAHardwareSide(const std::vector<Table>& tables, Clock::time_point now);
  void lookForFullLogs(const std::vector<Table>& tables, uint64_t heldBack);

  std::ostream& out_;
  const bool waitsForHardware_;
  const std::chrono::milliseconds silentFor_;
  std::vector<uint64_t> taken_;   // per table, at the previous look
  bool waiting_ = false;          // some table has committed changes not taken
  Clock::time_point quietSince_;  // since when nothing was taken while some wait
  bool stallTold_ = false;
  Clock::time_point stalledAt_;  // quietSince_ when the stall was told
  std::vector<bool> fullTold_;   // per table
  bool anyFull_ = false;         // at the latest look
};

}  // namespace VeskTool
