#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "Asic/TableVersionShard.h"
#include "KestSharedMem/EntityManager.h"
#include "tools/core/TcamShard.h"
#include "types/TableTypes.h"

namespace VeskTool {

// There is no agent's namespace under the shared-memory root.
class NoAgentMemoryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A table type's change log as its collection tells it.
struct ChangeLogSummary {
  static constexpr uint64_t capacity = 1000000;
  uint64_t tableVersion = 0;  // the scratchpad: the newest version committed
  uint64_t records = 0;
  uint64_t oldestVersion = 0;  // 0 when the log holds no record
  uint64_t newestVersion = 0;
};

// The changes a table type's change log holds after a version, oldest first.
template <class Traits>
struct LoggedChanges {
  std::vector<typename Traits::LogShardEntry> changes;
  uint64_t oldestVersion = 0;  // of the whole log; 0 when it holds no record
  uint64_t tableVersion = 0;   // the newest version committed
};

// One live entry of a unit's configuration, with the version of the change that wrote it
// and whether the simulated TCAM holds exactly that entry.
template <class Traits>
struct LiveEntry {
  typename Traits::LogEntry logEntry;
  Asic::LogVersion version;
  bool inHardware = false;
};

// What one unit of one table type holds: its configuration next to its simulated TCAM.
template <class Traits>
struct UnitContents {
  static constexpr uint64_t capacity = 65536;
  uint64_t liveEntries = 0;
  uint64_t tombstones = 0;
  uint64_t notInHardware = 0;                          // live entries the TCAM lacks or differs on
  std::optional<uint64_t> tcamLines;                   // empty: the hardware side made no TCAM
  std::optional<Asic::LogVersion> tcamAppliedVersion;  // likewise
  // Why the TCAM could not be read (a damaged file): it then counts as missing.
  std::optional<std::string> tcamError;
  std::vector<LiveEntry<Traits>> entries;  // filled only when asked for, ordered by key
};

// The shared memory of an agent (running or stopped) and of its hardware side, read
// without changing anything: per table type the change log, what the hardware side has
// taken and the configured units; per unit its live entries and the simulated TCAM. Every
// read mounts what it needs read-only and, unless Mounts::kept, drops it after, so a
// collection made after opening is found too, and one an agent made anew is read anew. What
// `vesktap show` prints and what the Python module returns both come from here. Opened at the
// shared-memory root of the moment (KestShard::Directory::rootPath()); the templates are
// instantiated for every table type. Single-threaded.
class AgentMemory {
 public:
  enum class Mounts {
    perRead,  // each read mounts what it reads (a few system calls) and drops it
    // Change logs and configurations stay mounted once found: for a reader that reads them
    // at every change, and opens the memory anew when the agent starts again (whose
    // files may be new ones).
    kept,
  };
  // Throws NoAgentMemoryError naming the directory when the root holds no agent's namespace.
  explicit AgentMemory(Mounts mounts = Mounts::perRead);

  const Nimbo::String& root() const noexcept { return root_; }

  // Null when the table type has no change log.
  template <class Traits>
  std::optional<ChangeLogSummary> changeLog() const;
  // Up to `limit` changes logged after `version`; null when the table type has no change
  // log. Throws Nimbo::Exception for a damaged log.
  template <class Traits>
  std::optional<LoggedChanges<Traits>> changesAfter(uint64_t version, size_t limit) const;
  // The unit's configuration record of `key` (a tombstone too); null when it has none.
  template <class Traits>
  std::optional<typename Traits::ConfigShardEntry> configRecord(
      Asic::UnitId unit, const typename Traits::EntryKey& key) const;
  // Calls `visit` with every record of the unit's configuration (tombstones too), in
  // collection order; false when the unit has no configuration. Throws Nimbo::Exception for
  // a damaged configuration.
  template <class Traits>
  bool forEachConfigRecord(
      Asic::UnitId unit,
      const std::function<void(const typename Traits::ConfigShardEntry&)>& visit) const;
  // The version the hardware side has recorded as taken for the table type, if any.
  std::optional<Asic::LogVersion> hardwareTaken(Asic::SwTableId tableId) const;
  // The units that have a configuration of the table type, in the namespace's order.
  template <class Traits>
  std::vector<Asic::UnitId> units() const;
  // Empty when the unit has no configuration of the table type. A TCAM that cannot be
  // read is told in tcamError; a damaged configuration throws (Nimbo::Exception).
  template <class Traits>
  std::optional<UnitContents<Traits>> unit(Asic::UnitId unit, bool withEntries) const;
  // The lines of the unit's simulated TCAM in collection order; empty when it has none.
  template <class Traits>
  std::optional<std::vector<TcamLine<Traits>>> tcamLines(Asic::UnitId unit) const;

 private:
  // The agent's shard S at `path`, read-only; null while the agent has not made it.
  template <class S>
  Nimbo::Ptr<S> agentShard(const Nimbo::String& path, const char* collection,
                           uint32_t capacity) const;
  template <class Traits>
  Nimbo::Ptr<typename Traits::ConfigShard> config(Asic::UnitId unit) const;
  template <class Traits>
  Nimbo::Ptr<typename Traits::EntryLogShard> log() const;

  Nimbo::String root_;
  Nimbo::Ptr<KestSharedMem::EntityManager> em_;
  Mounts mounts_;
  mutable std::unordered_map<Nimbo::String, Nimbo::Ptr<KestShard::Shard>> kept_;
};

}  // namespace VeskTool
