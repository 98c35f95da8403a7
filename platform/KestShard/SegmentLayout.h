#pragma once

#include <cstddef>
#include <cstdint>

#include "Nimbo/String.h"

namespace KestShard {

// What a collection stores, as the engine sees it: fixed-size records with the key at a
// fixed offset. Keys are compared and hashed by their bytes.
// A keyed collection may also name a mark byte: it then counts the records whose mark
// is non-zero (tombstones, say) as it changes, so that the count costs nothing to read.
constexpr uint32_t kNoMark = UINT32_MAX;
struct RecordLayout {
  uint32_t recordSize = 0;
  uint32_t keyOffset = 0;
  uint32_t keySize = 0;
  uint32_t markOffset = kNoMark;
};

enum class CollectionKind : uint32_t { keyed = 1, versionLog = 2 };

constexpr uint64_t kSegmentMagic = 0x314d48534b534556ULL;  // "VESKSHM1"
constexpr uint32_t kLayoutVersion = 3;
constexpr uint32_t kPageSize = 4096;
constexpr uint32_t kChunkSize = 64 * 1024;      // unit of space reservation and release
constexpr uint32_t kMaxChunks = kPageSize * 8;  // one page of allocation bits
constexpr uint32_t kMaxSlotSize = 2048;
constexpr uint32_t kNameSize = 64;
constexpr uint32_t kTypeNameSize = 128;

// The geometry of one collection file, derived from its kind, record layout and capacity.
// Page 0 holds the header, page 1 the allocation bitmap (one bit per chunk that has been
// reserved), then the bucket index (keyed collections) and the slot arena.
struct Geometry {
  CollectionKind kind = CollectionKind::keyed;
  RecordLayout layout;
  uint32_t capacity = 0;
  uint32_t slotCount = 0;  // capacity, plus one spare slot for a keyed replace
  uint32_t slotSize = 0;
  uint32_t slotHeaderSize = 0;
  uint32_t bucketCount = 0;
  uint64_t indexOffset = 0;
  uint64_t arenaOffset = 0;
  uint64_t fileSize = 0;
  uint64_t formatWord = 0;

  // Throws Nimbo::InvalidArgumentException when the record or the file would be too large.
  static Geometry of(CollectionKind kind, const RecordLayout& layout, uint32_t capacity);
  uint64_t slotOffset(uint32_t slot) const { return arenaOffset + uint64_t(slot) * slotSize; }
};

// Page 0 of every collection file. The identity block is written once, at creation, and
// protected by identityCheck; the live block is a set of aligned words that the single
// writer stores one at a time, so that a writer stopped at any instruction leaves each of
// them old or new.
struct SegmentHeader {
  // Identity.
  uint64_t magic;
  uint32_t layoutVersion;
  uint32_t kind;
  uint64_t formatWord;
  uint32_t recordSize;
  uint32_t keyOffset;
  uint32_t keySize;
  uint32_t markOffset;
  uint32_t slotSize;
  uint32_t capacity;
  uint32_t bucketCount;
  uint64_t fileSize;
  uint64_t salt;
  int64_t createdNs;
  char collectionName[kNameSize];
  char typeName[kTypeNameSize];
  uint64_t identityCheck;

  // Live state.
  alignas(64) uint64_t generation;  // odd while the writer is between the steps of a change;
                                    // a mount that finds it even trusts the derived words
  uint64_t scratchpad;
  uint32_t wiped;
  uint32_t count;
  uint32_t highWater;  // keyed: slots ever used
  uint32_t freeHead;   // keyed: first free slot + 1, 0 when none
  uint64_t head;       // version log: position of the oldest slot
  uint64_t tail;       // version log: position after the newest slot
  int64_t writerMountedNs;
  uint32_t writerPid;
  uint32_t corruptionCount;
  uint32_t markedCount;    // keyed: live records whose mark byte is set
  uint32_t repairAtMount;  // a writer found derived words damaged: the next mount rebuilds

  // Undo image of a slot being rewritten in place (version log replace).
  alignas(64) uint32_t undoValid;
  uint32_t undoSlot;
  unsigned char undoImage[kMaxSlotSize];
};
static_assert(sizeof(SegmentHeader) <= kPageSize);

constexpr size_t kIdentityBytes = offsetof(SegmentHeader, identityCheck);

}  // namespace KestShard
