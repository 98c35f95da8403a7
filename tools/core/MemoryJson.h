#pragma once

#include <optional>

#include "tools/core/AgentMemory.h"
#include "tools/core/Json.h"

namespace VeskTool {

// What an agent's shared memory holds, as JSON: the document `vesktap show --json` prints
// (kind "show") and, part by part, what the Python module's AgentMemory returns. A part
// that cannot be read (a damaged file) is {"error": "<why>"} in its place, and the rest
// is read as usual. Keys and entries are objects with one member per field, named as in
// the records' field tables (and so as in Python).

// The table type's change log; null when it has none.
template <class Traits>
Json changeLogJson(const AgentMemory& memory);
// One unit of the table type; null when the unit has no configuration of it.
template <class Traits>
Json unitJson(const AgentMemory& memory, Asic::UnitId unit, bool withEntries);
// The whole document: every table type (or only `table`, a catalogue index) and every
// unit (or only `unit`), with each unit's live entries when `withEntries`.
Json agentMemoryJson(const AgentMemory& memory, std::optional<size_t> table,
                     std::optional<uint16_t> unit, bool withEntries);

}  // namespace VeskTool
