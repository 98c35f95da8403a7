#include "KestShard/SegmentLayout.h"

#include <fmt/format.h>

#include "Kest/Hash.h"
#include "Nimbo/Exception.h"

namespace KestShard {
namespace {

constexpr uint32_t alignUp(uint32_t v, uint32_t a) { return (v + a - 1) / a * a; }
constexpr uint64_t alignUp64(uint64_t v, uint64_t a) { return (v + a - 1) / a * a; }

uint32_t bucketCountFor(uint32_t capacity) {
  uint32_t buckets = 64;
  while (buckets < capacity) buckets <<= 1;
  return buckets;
}

}  // namespace

Geometry Geometry::of(CollectionKind kind, const RecordLayout& layout, uint32_t capacity) {
  if (layout.recordSize == 0 || layout.keySize == 0 ||
      layout.keyOffset + layout.keySize > layout.recordSize ||
      (layout.markOffset != kNoMark &&
       (kind != CollectionKind::keyed || layout.markOffset >= layout.recordSize))) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("bad record layout: record {} bytes, key {} bytes at offset {}",
                    layout.recordSize, layout.keySize, layout.keyOffset));
  }
  if (capacity == 0) throw Nimbo::InvalidArgumentException("collection capacity must be positive");
  Geometry g;
  g.kind = kind;
  g.layout = layout;
  g.capacity = capacity;
  g.slotHeaderSize = kind == CollectionKind::keyed ? 24 : 16;
  g.slotSize = alignUp(g.slotHeaderSize + layout.recordSize, 8);
  if (g.slotSize > kMaxSlotSize) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("record of {} bytes is too large (at most {})", layout.recordSize,
                    kMaxSlotSize - g.slotHeaderSize));
  }
  g.slotCount = kind == CollectionKind::keyed ? capacity + 1 : capacity;
  g.bucketCount = kind == CollectionKind::keyed ? bucketCountFor(capacity) : 0;
  g.indexOffset = 2 * kPageSize;
  g.arenaOffset = alignUp64(g.indexOffset + uint64_t(g.bucketCount) * 4, 64);
  g.fileSize = alignUp64(g.slotOffset(g.slotCount), kChunkSize);
  if (g.fileSize / kChunkSize > kMaxChunks) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("collection of {} records of {} bytes is too large for one segment", capacity,
                    layout.recordSize));
  }
  const uint32_t format[] = {kLayoutVersion, uint32_t(kind),    layout.recordSize, layout.keyOffset,
                             layout.keySize, layout.markOffset, g.slotSize};
  g.formatWord = Kest::hashBytes(format, sizeof(format), kSegmentMagic);
  return g;
}

}  // namespace KestShard
