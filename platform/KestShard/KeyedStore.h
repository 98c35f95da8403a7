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
// Owned by its typed collection; the writer's process only, or a read-only mount.
class VESK_EXPORT KeyedStore : public Store {
 public:
  KeyedStore(Nimbo::Ptr<Segment> segment, Nimbo::String name);

  // Copies the record of `key` into `out`; false when absent.
  bool find(const unsigned char* key, unsigned char* out) const;
  // Inserts or replaces the record under its key. Throws Nimbo::CapacityExceededException
  // for a new key when full, Nimbo::SystemException when the file cannot grow; in both
  // cases nothing changed.
  void insertOrReplace(const unsigned char* record);
  bool erase(const unsigned char* key);
  uint32_t count() const noexcept;
  // Records whose mark byte is set; 0 for a layout without a mark.
  uint32_t markedCount() const noexcept;

  // Iteration in collection order, positioned by (hash, key): the first record, the first
  // after a position (whose key need not be present), or the record at `key` or after it.
  // Each yields the record and its position's hash. When the record reached fails its
  // checksum, `out` and `hash` still hold it before the exception is thrown, so that an
  // iteration can report it and step past it.
  bool first(unsigned char* out, uint32_t& hash) const;
  bool after(uint32_t atHash, const unsigned char* key, unsigned char* out, uint32_t& hash) const;
  bool atOrAfter(const unsigned char* key, unsigned char* out, uint32_t& hash) const;
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

  Outcome seekInBucket(uint32_t bucket, uint32_t hash, const unsigned char* key, Seek seek,
                       unsigned char* out, uint32_t& outHash, Nimbo::String& why) const;
  Outcome seekFrom(uint32_t hash, const unsigned char* key, Seek seek, unsigned char* out,
                   uint32_t& outHash, Nimbo::String& why) const;
  bool seek(uint32_t hash, const unsigned char* key, Seek seek, unsigned char* out,
            uint32_t& outHash) const;
  void prefetchAfter(uint32_t bucket) const noexcept;

  Position position(uint32_t bucket, uint32_t hash, const unsigned char* key);
  bool positionIn(uint32_t bucket, uint32_t hash, const unsigned char* key, Position& pos,
                  Nimbo::String& why) const;
  bool derivedWordsPlausible() const noexcept;
  uint32_t allocateSlot();
  void freeSlot(uint32_t index);
  void recover();

  uint32_t salt_;
};

}  // namespace KestShard
