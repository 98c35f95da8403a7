#pragma once

#include <cstdint>

#include "KestShard/Store.h"

namespace KestShard {

// The version-ordered collection engine, for change logs: records keyed by a 64-bit
// version that only grows, kept in a ring of slots in version order. Appending writes the
// slot past the newest and then publishes it by advancing the tail; deleting marks the
// slot dead and advances the head over dead slots, giving back whole chunks the head has
// left, so memory follows the live span rather than the capacity. Lookups are a direct
// probe when versions are consecutive, a binary search otherwise.
// Owned by its typed collection; the writer's process only, or a read-only mount.
class VESK_EXPORT VersionStore : public Store {
 public:
  VersionStore(Nimbo::Ptr<Segment> segment, Nimbo::String name);

  bool find(uint64_t key, unsigned char* out) const;
  // Appends a record newer than every stored one, or replaces the record of a stored
  // version. Throws Nimbo::CapacityExceededException when the span from the oldest to the
  // newest record would exceed the capacity, Nimbo::InvalidArgumentException for an older
  // version that is not stored, Nimbo::SystemException when the file cannot grow; in every
  // case nothing changed.
  void insertOrReplace(const unsigned char* record);
  bool erase(uint64_t key);
  uint32_t count() const noexcept;
  // The version of the newest record appended and still within the log's span, deleted or
  // not; 0 when the span is empty.
  uint64_t newestVersion() const;

  // Iteration in version order.
  bool first(unsigned char* out) const;
  bool after(uint64_t key, unsigned char* out) const;
  bool atOrAfter(uint64_t key, unsigned char* out) const;

 private:
  struct Slot;

  Slot& slot(uint64_t position) const noexcept;
  uint64_t keyOf(const unsigned char* record) const noexcept;
  uint64_t keyAt(uint64_t position) const noexcept;
  // First position in [head, tail) whose version is >= key (tail when none).
  uint64_t lowerBound(uint64_t head, uint64_t tail, uint64_t key) const noexcept;
  bool loadSpan(uint64_t& head, uint64_t& tail, Nimbo::String& why) const;
  Outcome readFrom(uint64_t key, bool strictlyAfter, bool exact, unsigned char* out,
                   Nimbo::String& why) const;
  bool seek(uint64_t key, bool strictlyAfter, bool exact, unsigned char* out) const;
  void append(const unsigned char* record);
  void replaceAt(uint64_t position, const unsigned char* record);
  void writeSlot(Slot& s, const unsigned char* record);
  void releaseFreed(uint64_t from, uint64_t to);
  bool chunkInUse(uint64_t chunk, uint64_t head, uint64_t liveSpan) const noexcept;
  bool written(uint64_t position) const noexcept;
  bool whole(uint64_t position) const noexcept;
  bool endsInOrder() const noexcept;
  bool spanPlausible() const noexcept;
  void recover();
};

}  // namespace KestShard
