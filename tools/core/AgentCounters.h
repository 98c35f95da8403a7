#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VeskTool {

// The counters of a running agent, published for other processes (`vesktap metrics`) in
// <root>/agent.counters: per table type what the agent answered its clients and what waits
// for an answer, per table type and unit what that unit's table counts. The agent makes
// the file anew when it starts (written whole, then renamed into place, so a reader sees
// either the previous agent's file or this one's, complete) and keeps it mapped, storing
// into it with relaxed atomic stores; a reader maps it read-only and loads, never blocking
// the agent nor reading a torn value (values may be from two successive publishes). The
// file names the agent's process, so a reader tells whether it still runs. Owned by the
// agent's loop; its event thread only. read() is for any process and thread.
class AgentCounters {
 public:
  // One table type's answers: `pending` changes are accepted and not yet answered.
  struct Table {
    uint64_t confirmed = 0, failed = 0, pending = 0;
  };
  // One unit's table, as its statistics count.
  struct Unit {
    uint64_t writes = 0, removes = 0, commits = 0, suppressedWrites = 0, tableClears = 0;
  };

  // What read() found: `units` ascending, a unit's counters at unit(table, index).
  struct Snapshot {
    bool running = false;  // the agent that published them runs now
    pid_t pid = 0;
    uint64_t restoredEntries = 0;  // what its start restored from shared memory, and in how long
    double restoreMs = 0;
    std::vector<uint16_t> units;
    std::vector<Table> tables;  // by catalogue index
    std::vector<Unit> unitCounters;
    const Unit& unit(size_t table, size_t index) const {
      return unitCounters[table * units.size() + index];
    }
  };

  // Publishes zeros for `units` under the shared-memory root. Throws std::runtime_error,
  // one line naming the file, when it cannot be made.
  explicit AgentCounters(std::vector<uint16_t> units);
  ~AgentCounters();
  AgentCounters(const AgentCounters&) = delete;
  AgentCounters& operator=(const AgentCounters&) = delete;

  // What the agent's start restored: entries, and the time it took.
  void restoreIs(uint64_t entries, double ms);
  void tableIs(size_t table, const Table& counters);
  // `unit` is one of the units given when made.
  void unitIs(size_t table, uint16_t unit, const Unit& counters);

  // The counters published under the shared-memory root; nothing when no agent has
  // published any there (no file, or one too short or of another layout). Throws
  // std::runtime_error when the file is there and cannot be read.
  static std::optional<Snapshot> read();

 private:
  void store(size_t word, uint64_t value) {
    std::atomic_ref(words_[word]).store(value, std::memory_order_relaxed);
  }

  std::vector<uint16_t> units_;
  uint64_t* words_ = nullptr;  // the mapped file
  size_t bytes_ = 0;
};

}  // namespace VeskTool
