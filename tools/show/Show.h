#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace VeskTool {

struct ShowOptions {
  std::optional<size_t> table;   // catalogue index; all when empty
  std::optional<uint16_t> unit;  // all when empty
  bool entries = false;          // list every live entry
  bool json = false;
};

// Inspects the shared memory of an agent (running or stopped) and of its hardware side
// without changing anything: per table type the change log (table version, records, what
// the hardware side has taken, how far it lags) and per unit the configuration (live
// entries, tombstones, capacity use) next to the simulated TCAM. Prints to `out` text
// tables with a header line (or the JSON document of tools/core/MemoryJson.h); a part
// that cannot be read shows as an error in its place, told also as one line on `err`.
// Returns how many parts could not be read. Throws NoAgentMemoryError
// (tools/core/AgentMemory.h) when there is no agent's shared memory under the root, and
// std::invalid_argument for a unit that no table type shown has.
size_t show(const ShowOptions& options, std::ostream& out, std::ostream& err);

}  // namespace VeskTool
