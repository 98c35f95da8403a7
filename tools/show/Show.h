#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace VeskTool {

struct ShowOptions {
  std::optional<size_t> table;   // catalogue index; all when empty
  std::optional<uint16_t> unit;  // all when empty
  bool entries = false;          // list every live entry and TCAM line
  bool json = false;
};

// Inspects the shared memory of an agent (running or stopped) and of its hardware side
// without changing anything: per table type the change log (table version, window of
// versions, what the hardware side has taken) and per unit the configuration (live
// entries, tombstones, capacity use) next to the simulated TCAM, and whether they agree.
// Throws NoAgentMemoryError (tools/core/AgentMemory.h) when there is no agent's shared
// memory under the root.
void show(const ShowOptions& options, std::ostream& out);

}  // namespace VeskTool
