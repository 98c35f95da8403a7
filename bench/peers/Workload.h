#pragma once

#include <cstdint>
#include <vector>

#include "types/TableTypes.h"

namespace VeskPeers {

// The reference table type's records: a 72-byte key (a whole TCAM line) and its 72-byte
// entry as the entry log stores it. Every store keeps these same bytes.
using Key = VeskTapAgg::DefaultFwdTcamEntryEntryKey;
using Entry = VeskTapAgg::DefaultFwdTcamEntryLogEntry;
static_assert(sizeof(Key) == 72 && sizeof(Entry) == 72);

enum class Kind : uint8_t { write = 0, erase = 1 };

// One change as handed to a store: its version (1, 2, 3, ... strictly increasing), whether
// it writes or deletes, and the key and entry (pointing into the workload).
struct Change {
  uint64_t version = 0;
  Kind kind = Kind::write;
  uint32_t keyIndex = 0;
  const Key* key = nullptr;
  const Entry* entry = nullptr;
};

// The change sequence every store replays, made once from a seed: uniform keys, deletes with
// probability `deleteShare`, a delete of a key not live (per a bitmap) made a write. Owns the
// keys, entries and sequence; read-only once built, any thread.
class Workload {
 public:
  struct Op {
    uint32_t keyIndex;
    Kind kind;
  };

  Workload(uint64_t changes, uint32_t keys, double deleteShare, uint64_t seed);

  uint64_t size() const noexcept { return ops_.size(); }
  uint32_t keys() const noexcept { return uint32_t(keys_.size()); }
  // The change of version `index + 1`.
  Change at(uint64_t index) const noexcept {
    const Op& op = ops_[index];
    return Change{index + 1, op.kind, op.keyIndex, &keys_[op.keyIndex], &entries_[op.keyIndex]};
  }
  uint64_t writes() const noexcept { return writes_; }
  uint64_t deletes() const noexcept { return size() - writes_; }
  // Deletes of absent keys that were turned into writes.
  uint64_t deletesTurnedToWrites() const noexcept { return turned_; }
  // Live keys once every change is applied.
  uint64_t liveKeysAtEnd() const noexcept { return liveAtEnd_; }

  // The key of index `i`: unique per index, with the fields a real line would set.
  static Key keyOf(uint32_t i) noexcept;

 private:
  std::vector<Key> keys_;
  std::vector<Entry> entries_;
  std::vector<Op> ops_;
  uint64_t writes_ = 0;
  uint64_t turned_ = 0;
  uint64_t liveAtEnd_ = 0;
};

}  // namespace VeskPeers
