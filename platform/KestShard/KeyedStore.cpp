#include "KestShard/KeyedStore.h"

#include <cstring>
#include <vector>

#include <fmt/format.h>

#include "Kest/Hash.h"
#include "KestShard/Atomics.h"
#include "Nimbo/Exception.h"

namespace KestShard {

// Slot layout; the record follows the 24-byte slot header.
struct KeyedStore::Slot {
  uint32_t sequence;  // odd while the writer fills the slot
  uint32_t next;      // next slot of the chain (or of the free list) + 1, 0 at the end
  uint32_t hash;      // hash of the record's key
  uint32_t state;
  uint64_t check;     // checksum of the record bytes, salted with the hash
  unsigned char* record() noexcept { return reinterpret_cast<unsigned char*>(this + 1); }
};
static_assert(sizeof(uint32_t) * 4 + sizeof(uint64_t) == 24);

namespace {
constexpr uint32_t kFree = 0;
constexpr uint32_t kLive = 0x4556494cu;  // "LIVE"
}  // namespace

KeyedStore::KeyedStore(Nimbo::Ptr<Segment> segment, Nimbo::String name)
    : Store(std::move(segment), std::move(name)),
      salt_(static_cast<uint32_t>(header().salt ^ (header().salt >> 32))) {
  if (writable() && recoveryNeeded()) recover();
}

uint32_t KeyedStore::hashOf(const unsigned char* key) const noexcept {
  return Kest::hash32(key, geometry().layout.keySize, salt_);
}

uint32_t* KeyedStore::bucketWord(uint32_t bucket) const noexcept {
  return reinterpret_cast<uint32_t*>(segment()->base() + geometry().indexOffset) + bucket;
}

// The index starts inside a chunk, so chunk boundaries fall between bucket numbers that
// are not multiples of the buckets per chunk.
uint32_t KeyedStore::firstBucketOfNextChunk(uint32_t bucket) const noexcept {
  const uint64_t offset = geometry().indexOffset + uint64_t(bucket) * 4;
  const uint64_t nextChunk = (offset / kChunkSize + 1) * kChunkSize;
  return uint32_t((nextChunk - geometry().indexOffset) / 4);
}

bool KeyedStore::bucketReserved(uint32_t bucket) const noexcept {
  return segment()->reserved(geometry().indexOffset + uint64_t(bucket) * 4);
}

KeyedStore::Slot& KeyedStore::slot(uint32_t index) const noexcept {
  return *reinterpret_cast<Slot*>(slotAt(index));
}

int KeyedStore::order(uint32_t hashA, const unsigned char* keyA, uint32_t hashB,
                      const unsigned char* keyB) const noexcept {
  if (hashA != hashB) return hashA < hashB ? -1 : 1;
  return std::memcmp(keyA, keyB, geometry().layout.keySize);
}

uint32_t KeyedStore::count() const noexcept { return loadAcquire(header().count); }

uint32_t KeyedStore::markedCount() const noexcept { return loadAcquire(header().markedCount); }

bool KeyedStore::isMarked(const unsigned char* record) const noexcept {
  const uint32_t offset = geometry().layout.markOffset;
  return offset != kNoMark && record[offset] != 0;
}

// One pass over a chain. Every visited slot is read between two loads of its sequence
// word; anything that moved or makes no sense is reported as inconsistent, and the caller
// decides whether that was a concurrent change or damage.
KeyedStore::Outcome KeyedStore::seekInBucket(uint32_t bucket, uint32_t hash,
                                             const unsigned char* key, Seek seek,
                                             unsigned char* out, uint32_t& outHash,
                                             Nimbo::String& why) const {
  if (!bucketReserved(bucket)) return Outcome::absent;
  const RecordLayout& layout = geometry().layout;
  const uint32_t used = std::min(loadAcquire(header().highWater), geometry().slotCount);
  uint32_t link = loadAcquire(*bucketWord(bucket));
  for (uint32_t steps = 0; link != 0; ++steps) {
    const uint32_t index = link - 1;
    if (index >= used || steps > used) {
      why = fmt::format("bucket {} links to slot {} of {} in use", bucket, index, used);
      return Outcome::inconsistent;
    }
    Slot& s = slot(index);
    const uint32_t sequence = loadAcquire(s.sequence);
    const uint32_t slotHash = loadRelaxed(s.hash);
    const uint32_t next = loadRelaxed(s.next);
    const bool live = loadRelaxed(s.state) == kLive;
    const unsigned char* slotKey = s.record() + layout.keyOffset;
    int cmp = seek == Seek::first ? 1 : order(slotHash, slotKey, hash, key);
    bool take = seek == Seek::first || (seek == Seek::exact && cmp == 0) ||
                (seek == Seek::after && cmp > 0) || (seek == Seek::atOrAfter && cmp >= 0);
    bool suspect = seek == Seek::exact && cmp != 0 && slotHash == hash;  // damaged key?
    uint64_t check = loadRelaxed(s.check);
    if (take || suspect) std::memcpy(out, s.record(), layout.recordSize);
    fenceAcquire();
    if ((sequence & 1) || loadRelaxed(s.sequence) != sequence || !live ||
        bucketOf(slotHash) != bucket) {
      why = fmt::format("slot {} in bucket {} is not a live record of that bucket", index, bucket);
      return Outcome::inconsistent;
    }
    if (take || suspect) {
      outHash = slotHash;
      if (checksum(out, slotHash) != check) {
        why = fmt::format("record in slot {} fails its checksum", index);
        return Outcome::inconsistent;
      }
      if (take) return Outcome::found;
    }
    if (seek == Seek::exact && cmp > 0) return Outcome::absent;  // chains are sorted
    link = next;
  }
  return Outcome::absent;
}

// A walk in collection order reads the head record of the next non-empty bucket next: its
// slot is anywhere in the arena, so its cache lines are asked for now, to arrive while the
// caller works on the record just found. Looks a few buckets ahead at most.
void KeyedStore::prefetchAfter(uint32_t bucket) const noexcept {
  const uint32_t last = std::min(bucket + 4, geometry().bucketCount - 1);
  for (uint32_t b = bucket + 1; b <= last && bucketReserved(b); ++b) {
    const uint32_t link = loadRelaxed(*bucketWord(b));
    if (link == 0 || link - 1 >= geometry().slotCount) continue;
    const auto* line = reinterpret_cast<const char*>(&slot(link - 1));
    for (uint32_t at = 0; at < geometry().slotSize; at += 64) __builtin_prefetch(line + at);
    return;
  }
}

KeyedStore::Outcome KeyedStore::seekFrom(uint32_t hash, const unsigned char* key, Seek seek,
                                         unsigned char* out, uint32_t& outHash,
                                         Nimbo::String& why) const {
  const uint32_t bucket = seek == Seek::first ? 0 : bucketOf(hash);
  Outcome outcome = seekInBucket(bucket, hash, key, seek, out, outHash, why);
  if (seek == Seek::exact) return outcome;
  if (outcome != Outcome::absent) {
    if (outcome == Outcome::found) prefetchAfter(bucket);
    return outcome;
  }
  for (uint32_t b = bucket + 1; b < geometry().bucketCount;) {
    if (!bucketReserved(b)) {
      b = firstBucketOfNextChunk(b);  // a whole chunk of empty buckets
      continue;
    }
    if (loadAcquire(*bucketWord(b)) != 0) {
      outcome = seekInBucket(b, 0, nullptr, Seek::first, out, outHash, why);
      if (outcome == Outcome::found) prefetchAfter(b);
      if (outcome != Outcome::absent) return outcome;
    }
    ++b;
  }
  return Outcome::absent;
}

bool KeyedStore::seek(uint32_t hash, const unsigned char* key, Seek seek, unsigned char* out,
                      uint32_t& outHash) const {
  segment()->checkHeader();
  bool found = false;
  stable([&](Nimbo::String& why) {
    Outcome o = seekFrom(hash, key, seek, out, outHash, why);
    found = o == Outcome::found;
    return o;
  });
  return found;
}

bool KeyedStore::find(const unsigned char* key, unsigned char* out) const {
  uint32_t hash = 0;
  return seek(hashOf(key), key, Seek::exact, out, hash);
}

bool KeyedStore::first(unsigned char* out, uint32_t& hash) const {
  return seek(0, nullptr, Seek::first, out, hash);
}

bool KeyedStore::after(uint32_t atHash, const unsigned char* key, unsigned char* out,
                       uint32_t& hash) const {
  return seek(atHash, key, Seek::after, out, hash);
}

bool KeyedStore::atOrAfter(const unsigned char* key, unsigned char* out, uint32_t& hash) const {
  return seek(hashOf(key), key, Seek::atOrAfter, out, hash);
}

bool KeyedStore::precedes(uint32_t hashA, const unsigned char* keyA, uint32_t hashB,
                          const unsigned char* keyB) const noexcept {
  const uint32_t bucketA = bucketOf(hashA), bucketB = bucketOf(hashB);
  if (bucketA != bucketB) return bucketA < bucketB;
  return order(hashA, keyA, hashB, keyB) < 0;
}

// The writer's view of a chain: where `key` is or would be linked.
KeyedStore::Position KeyedStore::position(uint32_t bucket, uint32_t hash,
                                          const unsigned char* key) const {
  const uint32_t used = header().highWater;
  Position pos{bucketWord(bucket), *bucketWord(bucket), false};
  for (uint32_t steps = 0; pos.current != 0; ++steps) {
    const uint32_t index = pos.current - 1;
    if (index >= used || steps > used || slot(index).state != kLive) {
      throwCorrupt(fmt::format("bucket {} has a broken chain at slot {}", bucket, index));
    }
    Slot& s = slot(index);
    int cmp = order(s.hash, s.record() + geometry().layout.keyOffset, hash, key);
    if (cmp != 0 && s.hash == hash && checksum(s.record(), s.hash) != s.check) {
      // Same hash, other key bytes: this may be our key, damaged.
      throwCorrupt(fmt::format("record in slot {} fails its checksum", index));
    }
    if (cmp >= 0) {
      pos.found = cmp == 0;
      break;
    }
    pos.link = &s.next;
    pos.current = s.next;
  }
  return pos;
}

uint32_t KeyedStore::allocateSlot() {
  SegmentHeader& h = header();
  if (h.freeHead != 0) {
    const uint32_t index = h.freeHead - 1;
    if (index >= h.highWater || slot(index).state != kFree) {
      storeRelease(h.freeHead, 0u);  // drop the damaged list; the next mount rebuilds it
      throwCorrupt(fmt::format("free list points at slot {} which is not free", index));
    }
    storeRelease(h.freeHead, slot(index).next);
    return index;
  }
  if (h.highWater >= geometry().slotCount) {
    throwCorrupt("no free slot although the count is below capacity; a writer mount repairs it");
  }
  segment()->reserve(geometry().slotOffset(h.highWater), geometry().slotSize);
  const uint32_t index = h.highWater;
  storeRelease(h.highWater, index + 1);
  return index;
}

void KeyedStore::freeSlot(uint32_t index) {
  Slot& s = slot(index);
  storeRelease(s.state, kFree);
  storeRelease(s.next, header().freeHead);
  storeRelease(header().freeHead, index + 1);
}

void KeyedStore::insertOrReplace(const unsigned char* record) {
  segment()->requireWritable("insert");
  segment()->checkHeader();
  const RecordLayout& layout = geometry().layout;
  const unsigned char* key = record + layout.keyOffset;
  const uint32_t hash = hashOf(key);
  const uint32_t bucket = bucketOf(hash);
  segment()->reserve(geometry().indexOffset + uint64_t(bucket) * 4, 4);
  Position pos = position(bucket, hash, key);
  if (!pos.found && header().count >= geometry().capacity) {
    throw Nimbo::CapacityExceededException(fmt::format(
        "collection {} ({}) is full: it holds its capacity of {} records; the new record was "
        "not stored",
        name(), segment()->path(), geometry().capacity));
  }
  Change change(*this);
  const uint32_t index = allocateSlot();
  Slot& s = slot(index);
  // Odd while filled, whatever a writer stopped while filling this free slot left in it.
  const uint32_t writing = s.sequence | 1u;
  storeRelease(s.sequence, writing);
  s.hash = hash;
  s.next = pos.found ? slot(pos.current - 1).next : pos.current;
  std::memcpy(s.record(), record, layout.recordSize);
  s.check = checksum(s.record(), hash);
  s.state = kLive;
  storeRelease(s.sequence, writing + 1);
  const int markedChange =
      int(isMarked(record)) - int(pos.found && isMarked(slot(pos.current - 1).record()));
  storeRelease(*pos.link, index + 1);  // the record is now visible
  if (pos.found) {
    freeSlot(pos.current - 1);
  } else {
    storeRelease(header().count, header().count + 1);
  }
  if (markedChange != 0) storeRelease(header().markedCount, header().markedCount + markedChange);
}

bool KeyedStore::erase(const unsigned char* key) {
  segment()->requireWritable("erase");
  segment()->checkHeader();
  const uint32_t hash = hashOf(key);
  const uint32_t bucket = bucketOf(hash);
  if (!bucketReserved(bucket)) return false;
  Position pos = position(bucket, hash, key);
  if (!pos.found) return false;
  Change change(*this);
  const bool marked = isMarked(slot(pos.current - 1).record());
  storeRelease(*pos.link, slot(pos.current - 1).next);
  freeSlot(pos.current - 1);
  storeRelease(header().count, header().count - 1);
  if (marked) storeRelease(header().markedCount, header().markedCount - 1);
  return true;
}

// Rebuilds what a stopped writer may have left behind: the count, the free list, slots
// filled but never linked or unlinked but never freed, an odd generation. Chains are
// walked once; a chain that breaks is cut where it breaks and the loss is reported.
void KeyedStore::recover() {
  SegmentHeader& h = header();
  const Geometry& g = geometry();
  if (h.highWater > g.slotCount) {
    repaired(fmt::format("high-water mark {} beyond {} slots", h.highWater, g.slotCount));
    h.highWater = g.slotCount;
  }
  std::vector<bool> linked(h.highWater, false);
  uint32_t live = 0, marked = 0;
  for (uint32_t b = 0; b < g.bucketCount; ++b) {
    if (!bucketReserved(b)) continue;
    uint32_t* link = bucketWord(b);
    uint32_t prevHash = 0;
    while (*link != 0) {
      const uint32_t index = *link - 1;
      bool broken = index >= h.highWater || linked[index] || slot(index).state != kLive ||
                    bucketOf(slot(index).hash) != b || slot(index).hash < prevHash;
      if (broken) {
        repaired(fmt::format("bucket {} chain broken at slot {}; records after it are lost", b,
                             index));
        *link = 0;
        break;
      }
      linked[index] = true;
      ++live;
      marked += isMarked(slot(index).record()) ? 1 : 0;
      prevHash = slot(index).hash;
      link = &slot(index).next;
    }
  }
  uint32_t freeHead = 0;
  for (uint32_t index = h.highWater; index-- > 0;) {
    if (linked[index]) continue;
    slot(index).state = kFree;
    slot(index).next = freeHead;
    freeHead = index + 1;
  }
  h.freeHead = freeHead;
  h.count = live;
  h.markedCount = marked;
  recovered();
}

}  // namespace KestShard
