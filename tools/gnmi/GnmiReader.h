#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/core/AgentMemory.h"
#include "tools/gnmi/GnmiPath.h"

namespace VeskTool {

using Clock = std::chrono::steady_clock;

// One change of an entry as the change log ordered it: a write (its entry as written), a
// delete, or the delete of every entry of a unit. Made once by the reader and shared by
// every stream that sends it. It keeps only its bytes: the key fields and node are made
// when a stream sends it (show()), as the changes kept for resumes would otherwise hold
// every one of them formatted.
struct EntryChange {
  enum class Kind : uint8_t { write, remove, clearUnit };
  size_t table = 0;
  uint64_t version = 0;
  uint16_t unit = 0;
  Kind kind = Kind::write;
  // Earlier changes of the same entry that the log held but whose values were already
  // overwritten when the reader came to them: told here instead of sent.
  uint32_t duplicates = 0;
  std::string bytes;  // the log entry written, or the key deleted; empty for clearUnit

  // What a stream shows of the change: the entry's key fields (none for clearUnit) and its
  // node (a delete's path alone; for clearUnit the unit's entries).
  struct Shown {
    std::vector<std::pair<std::string, std::string>> keyFields;
    Node node;
  };
  Shown show() const { return render(*this); }
  // Whether `selector` reaches this change; fills `shown` when it needs the key fields.
  bool selectedBy(const PathSelector& selector, std::optional<Shown>& shown) const;

  Shown (*render)(const EntryChange&) = nullptr;  // the table type's formatting
};
using ChangePtr = std::shared_ptr<const EntryChange>;

// What a table type's changes since a version are, for a stream that resumes there.
struct Replay {
  std::vector<ChangePtr> changes;  // in version order
  std::string resync;              // not empty: the changes are not all known; why, for the stream
};

// The target's view of the shared-memory root: snapshots of the tree and, per table type,
// the changes in version order with the newest of them kept for streams that resume. Reads
// only (mounts read-only as `vesktap show` does); follows the agent through restarts
// (the change log and configurations stay where they are) and reopens the root when the
// agent's memory is made anew. Owned by the target's reader thread; single-threaded.
class GnmiReader {
 public:
  // `history`: changes kept per table type for streams that resume.
  explicit GnmiReader(size_t history);
  ~GnmiReader();

  // Checks the table-dependent parts of `selector` (entry key fields and leaves); throws
  // GnmiError INVALID_ARGUMENT naming the valid ones.
  void check(const PathSelector& selector) const;
  // The containers `selector` reaches now, in tree order.
  std::vector<Node> snapshot(const PathSelector& selector);

  // Reads what each table type's change log holds beyond what was read before: the new
  // changes, in version order per table. Changes the hardware side took and the agent
  // cleaned up before they were read are told from the configurations instead (their
  // entries' newest values; writes overwritten in between are not known). A table whose
  // versions went back (its memory cleared or made anew) is in `resyncs` with why; its
  // changes start again there.
  struct Poll {
    std::vector<ChangePtr> changes;
    std::vector<std::pair<size_t, std::string>> resyncs;
  };
  Poll poll();
  // The changes of table `table` after `since`, from what was kept or the change log.
  Replay replay(size_t table, uint64_t since);
  // The newest version read of table `table`.
  uint64_t position(size_t table) const;

  class Table;  // one table type's follower (GnmiReader.cpp)

 private:
  AgentMemory* memory();  // null while the root holds no agent's memory

  size_t history_;
  std::unique_ptr<AgentMemory> memory_;
  int agentPid_ = 0;
  Clock::time_point nextAgentLook_{};
  std::vector<std::unique_ptr<Table>> tables_;  // by catalogue index
  Clock::time_point nextWalk_{};                // see Table::poll
  // The table a poll looks at first: the one after the last that walked, so that walks go
  // round the tables instead of to whichever comes first.
  size_t firstPolled_ = 0;
};

}  // namespace VeskTool
