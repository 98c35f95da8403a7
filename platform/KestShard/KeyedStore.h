#pragma once

#include <cstdint>

#include "KestShard/Store.h"

namespace KestShard {

// The keyed collection engine, on raw record bytes. Records live in a slot arena; a bucket
// index of 32-bit links chains them, each chain sorted by (key hash, key bytes), which
// gives a collection order in which "the record after key K" is well defined even while
// records come and go. A change never rewrites a linked record: a replace fills a spare
// slot and swings one link to it, a delete unlinks with one store, so a writer stopped at
// any instruction leaves every key with its old or its new record. Slots leaked by such a
// stop are found again by the next writer mount.
// Owned by its typed collection; the writer's process only, or a read-only mount. One
// thread at a time: even reads update lastStep_.
class VESK_EXPORT KeyedStore : public Store {
 public:
  KeyedStore(Nimbo::Ptr<Segment> segment, Nimbo::String name);

  // Copies the record of `key` into `out`; false when absent.
  bool find(const unsigned char* key, unsigned char* out) const;
  // Asks the caches for where a lookup of `key` goes, so that a batch can ask for the next
  // changes' places while it writes this one: the index word it starts from, or, once
  // that word has been asked for, the record the word points at.
  void prefetch(const unsigned char* key, bool record) const noexcept;
  // Inserts or replaces the record under its key. Throws Nimbo::CapacityExceededException
  // for a new key when full, Nimbo::SystemException when the file cannot grow; in both
  // cases nothing changed.
  void insertOrReplace(const unsigned char* record);
  bool erase(const unsigned char* key);
  uint32_t count() const noexcept;
  // Records whose mark byte is set; 0 for a layout without a mark.
  uint32_t markedCount() const noexcept;

  // Where a record an iteration reached lies: its key's hash (its position in collection
  // order, with the key), its slot, and the generation it was read under. The next step
  // starts from that slot while the generation says nothing changed; otherwise it seeks
  // the key. Only an iterator holds one, for the step after; it is no place to keep.
  struct Place {
    uint32_t hash = 0;
    uint32_t slot = 0;
    uint64_t generation = 1;  // odd: read inside a change, the slot not to be trusted
  };

  // Iteration in collection order: the first record, the first after a record reached
  // before (whose key need not be present any more), or the record at `key` or after it.
  // Each yields the record and its place. When the record reached fails its checksum,
  // `out` and `place.hash` still hold it before the exception is thrown, so that an
  // iteration can report it and step past it.
  //
  // A walk that positions again at the key it reached last reads that record's slot
  // again instead of seeking the key, while nothing has changed (see lastStep_).
  bool first(unsigned char* out, Place& place) const;
  bool after(const Place& at, const unsigned char* key, unsigned char* out, Place& place) const;
  bool atOrAfter(const unsigned char* key, unsigned char* out, Place& place) const;
  // Whether position (hashA, keyA) comes before (hashB, keyB) in collection order.
  bool precedes(uint32_t hashA, const unsigned char* keyA, uint32_t hashB,
                const unsigned char* keyB) const noexcept;

  // The change counter a walk reads before it starts, for walkMissed.
  uint64_t generation() const noexcept;
  // A full walk visited `visited` records while the generation stayed `generationBefore`:
  // fewer or more than the count means a damaged index. A reader reports it; the writer
  // rebuilds the index and returns true (the walk should run again).
  bool walkMissed(uint32_t visited, uint64_t generationBefore);
  bool repairIndex(const Nimbo::String& why) override;

 private:
  struct Slot;
  enum class Seek { exact, after, atOrAfter, first };
  struct Position {
    uint32_t* link;  // the word that points at `current`
    uint32_t current;
    bool found;
  };
  uint32_t hashOf(const unsigned char* key) const noexcept;
  bool isMarked(const unsigned char* record) const noexcept;
  uint32_t bucketOf(uint32_t hash) const noexcept { return hash & (geometry().bucketCount - 1); }
  uint32_t* bucketWord(uint32_t bucket) const noexcept;
  bool bucketReserved(uint32_t bucket) const noexcept;
  uint32_t firstBucketOfNextChunk(uint32_t bucket) const noexcept;
  Slot& slot(uint32_t index) const noexcept;
  int order(uint32_t hashA, const unsigned char* keyA, uint32_t hashB,
            const unsigned char* keyB) const noexcept;

  Outcome seekInChain(uint32_t bucket, uint32_t link, uint32_t hash, const unsigned char* key,
                      Seek seek, unsigned char* out, Place& hit, Nimbo::String& why) const;
  Outcome seekInBucket(uint32_t bucket, uint32_t hash, const unsigned char* key, Seek seek,
                       unsigned char* out, Place& hit, Nimbo::String& why) const;
  Outcome firstAfterBucket(uint32_t bucket, unsigned char* out, Place& hit,
                           Nimbo::String& why) const;
  Outcome seekFrom(uint32_t hash, const unsigned char* key, Seek seek, unsigned char* out,
                   Place& hit, Nimbo::String& why) const;
  // Throws as the public seeks do; `place` is filled for a record found (or damaged).
  bool seek(uint32_t hash, const unsigned char* key, Seek seek, unsigned char* out,
            Place& place) const;
  void prefetchFollowing(const Place& found) const noexcept;
  // The place the last step reached, its record read into `out`, when nothing has
  // changed since and its key is `key`.
  const Place* lastStepAt(const unsigned char* key, unsigned char* out) const;

  Position position(uint32_t bucket, uint32_t hash, const unsigned char* key);
  bool positionIn(uint32_t bucket, uint32_t hash, const unsigned char* key, Position& pos,
                  Nimbo::String& why) const;
  bool derivedWordsPlausible() const noexcept;
  uint32_t allocateSlot();
  void freeSlot(uint32_t index);
  void recover();

  uint32_t salt_;
  // The place the last iteration step of this process reached: a cache, not a place a
  // walk holds. Current while the header's generation is still the even value read
  // before its record was, since every change moves the generation on.
  mutable Place lastStep_;
};

}  // namespace KestShard
