#include "KestShard/KeyedStore.h"

#include <algorithm>
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
  uint64_t check;  // checksum of the record bytes, salted with the hash
  unsigned char* record() noexcept { return reinterpret_cast<unsigned char*>(this + 1); }
};
static_assert(sizeof(uint32_t) * 4 + sizeof(uint64_t) == 24);

namespace {
constexpr uint32_t kFree = 0;
constexpr uint32_t kLive = 0x4556494cu;   // "LIVE"
constexpr uint32_t kDying = 0x44414544u;  // "DEAD": being unlinked by an erase
}  // namespace

KeyedStore::KeyedStore(Nimbo::Ptr<Segment> segment, Nimbo::String name)
    : Store(std::move(segment), std::move(name)),
      salt_(static_cast<uint32_t>(header().salt ^ (header().salt >> 32))) {
  if (!writable()) return;
  const bool plausible = derivedWordsPlausible();
  if (!plausible) {
    repaired(fmt::format("header words damaged (count {}, high-water mark {}, free list at {})",
                         header().count, header().highWater, header().freeHead));
  }
  if (recoveryNeeded() || !plausible) {
    recover();
    recovered();
  }
}

// Cheap checks of the header's derived words, so that a damaged count or free list is
// rebuilt at the mount rather than trusted.
bool KeyedStore::derivedWordsPlausible() const noexcept {
  const SegmentHeader& h = header();
  return h.highWater <= geometry().slotCount && h.count <= h.highWater &&
         h.count <= geometry().capacity && h.markedCount <= h.count && h.freeHead <= h.highWater;
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

// One pass over a chain, from `link` on. Every visited slot is read between two loads of
// its sequence word; anything that moved or makes no sense is reported as inconsistent,
// and the caller decides whether that was a concurrent change or damage.
KeyedStore::Outcome KeyedStore::seekInChain(uint32_t bucket, uint32_t link, uint32_t hash,
                                            const unsigned char* key, Seek seek, unsigned char* out,
                                            Place& hit, Nimbo::String& why) const {
  const RecordLayout& layout = geometry().layout;
  const uint32_t used = std::min(loadAcquire(header().highWater), geometry().slotCount);
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
      hit.hash = slotHash;
      hit.slot = index;
      if (checksum(out, slotHash) != check) {
        why = fmt::format("record in slot {} fails its checksum", index);
        return Outcome::damagedRecord;
      }
      if (take) return Outcome::found;
    }
    if (seek == Seek::exact && cmp > 0) return Outcome::absent;  // chains are sorted
    link = next;
  }
  return Outcome::absent;
}

KeyedStore::Outcome KeyedStore::seekInBucket(uint32_t bucket, uint32_t hash,
                                             const unsigned char* key, Seek seek,
                                             unsigned char* out, Place& hit,
                                             Nimbo::String& why) const {
  if (!bucketReserved(bucket)) return Outcome::absent;
  return seekInChain(bucket, loadAcquire(*bucketWord(bucket)), hash, key, seek, out, hit, why);
}

namespace {
// Whether eight bucket words are all zero, with one wide read: only a hint, since a word
// is read without ordering; the walk trusts only the acquire load of a word found set.
bool eightEmpty(const uint32_t* words) noexcept {
  uint64_t four[4];
  std::memcpy(four, words, sizeof four);
  return (four[0] | four[1] | four[2] | four[3]) == 0;
}
}  // namespace

// A walk in collection order reads next the record that follows the one just found: the
// next of its chain, or the head of the next bucket that has one. Its slot is anywhere in
// the arena, so its cache lines are asked for now, to arrive while the caller works on the
// record just found. (Asking also for the heads of the buckets up to 4, 8, 16 or 32 on
// changed a full unit's walk by less than this machine's noise between runs.) Looks a
// few dozen buckets ahead at most; words without backing store are never read.
void KeyedStore::prefetchFollowing(const Place& found) const noexcept {
  const Geometry& g = geometry();
  uint32_t link = loadRelaxed(slot(found.slot).next);
  const uint32_t bucket = bucketOf(found.hash);
  const uint32_t last = std::min(bucket + 64, g.bucketCount - 1);
  const uint32_t* words = bucketWord(0);
  for (uint32_t b = bucket + 1; link == 0 && b <= last;) {
    const uint32_t chunkEnd = std::min(firstBucketOfNextChunk(b), last + 1);
    if (!bucketReserved(b)) return;
    for (; link == 0 && b < chunkEnd; ++b) {
      while (b % 8 == 0 && b + 8 <= chunkEnd && eightEmpty(words + b)) b += 8;
      if (b >= chunkEnd) break;
      link = loadRelaxed(words[b]);
    }
  }
  if (link == 0 || link - 1 >= g.slotCount) return;
  const auto* line = reinterpret_cast<const char*>(&slot(link - 1));
  for (uint32_t at = 0; at < g.slotSize; at += 64) __builtin_prefetch(line + at);
}

// The first record of the buckets after `bucket`. Whether a chunk of the index has backing
// store is asked once per chunk: a sparse collection has long runs of empty buckets.
KeyedStore::Outcome KeyedStore::firstAfterBucket(uint32_t bucket, unsigned char* out, Place& hit,
                                                 Nimbo::String& why) const {
  const uint32_t count = geometry().bucketCount;
  for (uint32_t b = bucket + 1; b < count;) {
    const uint32_t chunkEnd = std::min(firstBucketOfNextChunk(b), count);
    if (!bucketReserved(b)) {
      b = chunkEnd;  // a whole chunk of empty buckets
      continue;
    }
    const uint32_t* words = bucketWord(0);
    for (; b < chunkEnd; ++b) {
      // Runs of eight empty buckets are passed over at once; a word found set is read
      // again below, as it must be, with acquire.
      while (b % 8 == 0 && b + 8 <= chunkEnd && eightEmpty(words + b)) b += 8;
      if (b >= chunkEnd) break;
      const uint32_t head = loadAcquire(words[b]);
      if (head == 0) continue;
      const Outcome outcome = seekInChain(b, head, 0, nullptr, Seek::first, out, hit, why);
      if (outcome != Outcome::absent) return outcome;
    }
  }
  return Outcome::absent;
}

KeyedStore::Outcome KeyedStore::seekFrom(uint32_t hash, const unsigned char* key, Seek seek,
                                         unsigned char* out, Place& hit, Nimbo::String& why) const {
  const uint32_t bucket = seek == Seek::first ? 0 : bucketOf(hash);
  Outcome outcome = seekInBucket(bucket, hash, key, seek, out, hit, why);
  if (seek == Seek::exact) return outcome;
  if (outcome != Outcome::absent) return outcome;
  return firstAfterBucket(bucket, out, hit, why);
}

bool KeyedStore::seek(uint32_t hash, const unsigned char* key, Seek seek, unsigned char* out,
                      Place& place) const {
  segment()->checkHeader();
  place.generation = loadAcquire(header().generation);
  bool found = false;
  stable([&](Nimbo::String& why) {
    Outcome o = seekFrom(hash, key, seek, out, place, why);
    found = o == Outcome::found;
    return o;
  });
  // A reader that retried past a change read a newer record than the generation says: its
  // place is then never trusted (the generation has moved on), never wrongly trusted.
  if (found && seek != Seek::exact) {
    prefetchFollowing(place);
    lastStep_ = place;
  }
  return found;
}

const KeyedStore::Place* KeyedStore::lastStepAt(const unsigned char* key,
                                                unsigned char* out) const {
  const Place& last = lastStep_;
  if ((last.generation & 1) || loadAcquire(header().generation) != last.generation) return nullptr;
  segment()->checkHeader();
  // The slot is read as a seek reads it: a record damaged since it was last read is
  // sought, and reported, rather than taken.
  Place hit;
  Nimbo::String why;
  const RecordLayout& layout = geometry().layout;
  if (seekInChain(bucketOf(last.hash), last.slot + 1, 0, nullptr, Seek::first, out, hit, why) !=
          Outcome::found ||
      std::memcmp(out + layout.keyOffset, key, layout.keySize) != 0) {
    return nullptr;
  }
  fenceAcquire();
  return loadRelaxed(header().generation) == last.generation ? &last : nullptr;
}

void KeyedStore::prefetch(const unsigned char* key, bool record) const noexcept {
  const uint32_t bucket = bucketOf(hashOf(key));
  if (!bucketReserved(bucket)) return;
  if (!record) {
    __builtin_prefetch(bucketWord(bucket));
    return;
  }
  const uint32_t head = *bucketWord(bucket);
  if (head == 0 || head > header().highWater) return;
  const unsigned char* line = slotAt(head - 1);
  for (uint32_t at = 0; at < geometry().slotSize; at += 64) __builtin_prefetch(line + at);
}

bool KeyedStore::find(const unsigned char* key, unsigned char* out) const {
  Place place;
  return seek(hashOf(key), key, Seek::exact, out, place);
}

bool KeyedStore::first(unsigned char* out, Place& place) const {
  return seek(0, nullptr, Seek::first, out, place);
}

// Past a record read while nothing has changed since, the next one is its chain's next
// slot or the head of a following bucket: no seek. The answer counts only if the
// generation still says nothing changed; otherwise, or on anything unexpected (damage
// included, which the seek then reports), the key is sought.
bool KeyedStore::after(const Place& at, const unsigned char* key, unsigned char* out,
                       Place& place) const {
  const uint64_t generation = at.generation;
  if (!(generation & 1) && loadAcquire(header().generation) == generation) {
    const uint32_t bucket = bucketOf(at.hash);
    const uint32_t next = loadAcquire(slot(at.slot).next);
    Nimbo::String why;
    Outcome outcome = next != 0
                          ? seekInChain(bucket, next, 0, nullptr, Seek::first, out, place, why)
                          : firstAfterBucket(bucket, out, place, why);
    fenceAcquire();
    if (loadRelaxed(header().generation) == generation) {
      if (outcome == Outcome::found) {
        place.generation = generation;
        prefetchFollowing(place);
        lastStep_ = place;
        return true;
      }
      if (outcome == Outcome::absent) return false;
    }
  }
  return seek(at.hash, key, Seek::after, out, place);
}

bool KeyedStore::atOrAfter(const unsigned char* key, unsigned char* out, Place& place) const {
  if (const Place* last = lastStepAt(key, out)) {
    place = *last;
    return true;
  }
  return seek(hashOf(key), key, Seek::atOrAfter, out, place);
}

bool KeyedStore::precedes(uint32_t hashA, const unsigned char* keyA, uint32_t hashB,
                          const unsigned char* keyB) const noexcept {
  const uint32_t bucketA = bucketOf(hashA), bucketB = bucketOf(hashB);
  if (bucketA != bucketB) return bucketA < bucketB;
  return order(hashA, keyA, hashB, keyB) < 0;
}

// The writer's view of a chain: where `key` is or would be linked. A chain that makes no
// sense is damage: the index is rebuilt from the records and the chain walked again.
KeyedStore::Position KeyedStore::position(uint32_t bucket, uint32_t hash,
                                          const unsigned char* key) {
  Position pos{};
  Nimbo::String why;
  if (positionIn(bucket, hash, key, pos, why)) return pos;
  repairIndex(why);
  why.clear();
  if (!positionIn(bucket, hash, key, pos, why)) throwCorrupt(why);
  return pos;
}

bool KeyedStore::positionIn(uint32_t bucket, uint32_t hash, const unsigned char* key, Position& pos,
                            Nimbo::String& why) const {
  const uint32_t used = header().highWater;
  pos = Position{bucketWord(bucket), *bucketWord(bucket), false};
  uint32_t prevHash = 0;
  for (uint32_t steps = 0; pos.current != 0; ++steps) {
    const uint32_t index = pos.current - 1;
    if (index >= used || steps > used || slot(index).state != kLive ||
        bucketOf(slot(index).hash) != bucket || slot(index).hash < prevHash) {
      why = fmt::format("bucket {} has a broken chain at slot {}", bucket, index);
      return false;
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
    prevHash = s.hash;
    pos.link = &s.next;
    pos.current = s.next;
  }
  return true;
}

uint32_t KeyedStore::allocateSlot() {
  SegmentHeader& h = header();
  if (h.freeHead != 0) {
    uint32_t index = h.freeHead - 1;
    if (index >= h.highWater || slot(index).state != kFree) {
      repairIndex(fmt::format("free list points at slot {} which is not free", index));
      if (h.freeHead == 0) return allocateSlot();
      index = h.freeHead - 1;
    }
    storeRelease(h.freeHead, slot(index).next);
    return index;
  }
  if (h.highWater >= geometry().slotCount) {
    repairIndex("no free slot although the count is below capacity");
    if (h.freeHead == 0) throwCorrupt("no free slot although the count is below capacity");
    return allocateSlot();
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
  // Marked first: a writer stopped before the slot is freed leaves a record its next mount
  // knows to be gone, not one to link again.
  storeRelease(slot(pos.current - 1).state, kDying);
  storeRelease(*pos.link, slot(pos.current - 1).next);
  freeSlot(pos.current - 1);
  storeRelease(header().count, header().count - 1);
  if (marked) storeRelease(header().markedCount, header().markedCount - 1);
  return true;
}

bool KeyedStore::repairIndex(const Nimbo::String& why) {
  repaired(fmt::format("{}; the index is rebuilt from the records", why));
  if (header().generation & 1) {
    recover();  // inside a change already: it ends as the change does
  } else {
    Change change(*this);
    recover();
  }
  storeRelease(header().repairAtMount, 0u);
  return true;
}

bool KeyedStore::walkMissed(uint32_t visited, uint64_t generationBefore) {
  const uint64_t now = loadAcquire(header().generation);
  if (now != generationBefore || (now & 1)) return false;  // changed meanwhile: no verdict
  const uint32_t stored = count();
  if (visited == stored) return false;
  const Nimbo::String why =
      fmt::format("a walk reached {} of its {} records: the index is damaged", visited, stored);
  if (!writable()) {
    doCorruptionDetected(why);
    return false;
  }
  return repairIndex(why);
}

uint64_t KeyedStore::generation() const noexcept { return loadAcquire(header().generation); }

// Rebuilds the index, the free list and the counts from the slots themselves, which carry
// their own checksums: after a writer stopped inside a change, and after damage to any
// derived word. The chains are walked first, so that of two records of one key (a replace
// that stopped before the old one was freed) the linked one is kept; a whole record that
// no chain reaches (hidden by a damaged link, or an insert that stopped before its link)
// is linked again; a record being erased is let go; a damaged one is reported and dropped.
void KeyedStore::recover() {
  SegmentHeader& h = header();
  const Geometry& g = geometry();
  const RecordLayout& layout = g.layout;
  if (h.highWater > g.slotCount) {
    repaired(fmt::format("high-water mark {} beyond {} slots", h.highWater, g.slotCount));
    h.highWater = g.slotCount;
  }
  const uint32_t used = h.highWater;
  // Every slot below the mark is read, and may be freed, below. A damaged mark can reach
  // past the chunks the slots were reserved in: those get backing store before they are
  // touched, so that a full filesystem is an error here rather than a SIGBUS.
  segment()->reserve(g.slotOffset(0), uint64_t(used) * g.slotSize);
  h.repairAtMount = 1;  // until the index is whole again, whatever stops this rebuild
  // A linked slot is kept if it is a live slot of its bucket, even when its record fails
  // its checksum: that damage stays visible to whoever reads the key, and a rewrite heals
  // it. A slot no chain reaches is linked again only when its record proves itself whole.
  auto linkable = [&](uint32_t index, uint32_t bucket) {
    const Slot& s = slot(index);
    return s.state == kLive && !(s.sequence & 1) && bucketOf(s.hash) == bucket;
  };
  auto whole = [&](uint32_t index) {
    Slot& s = slot(index);
    return s.state == kLive && !(s.sequence & 1) &&
           s.hash == hashOf(s.record() + layout.keyOffset) &&
           checksum(s.record(), s.hash) == s.check;
  };
  // An erase stopped between marking its record and unlinking it leaves that record in
  // its chain: the walk steps over it, as the erase was about to.
  const bool crash = (h.generation & 1) != 0;
  auto dying = [&](uint32_t index, uint32_t bucket) {
    const Slot& s = slot(index);
    return crash && s.state == kDying && !(s.sequence & 1) && bucketOf(s.hash) == bucket;
  };
  std::vector<uint8_t> linked(used, 0), stepped(used, 0);
  uint32_t broken = 0;
  for (uint32_t b = 0; b < g.bucketCount; ++b) {
    if (!bucketReserved(b)) continue;
    uint32_t link = *bucketWord(b);
    for (uint32_t steps = 0; link != 0 && steps <= used; ++steps) {
      const uint32_t index = link - 1;
      if (index < used && !stepped[index] && dying(index, b)) {
        stepped[index] = 1;
        link = slot(index).next;
        continue;
      }
      if (index >= used || linked[index] || !linkable(index, b)) {
        ++broken;
        break;
      }
      linked[index] = 1;
      link = slot(index).next;
    }
  }
  struct Kept {
    uint32_t index;
    uint32_t hash;
  };
  std::vector<Kept> kept;
  uint32_t damaged = 0;
  for (uint32_t index = 0; index < used; ++index) {
    const uint32_t state = slot(index).state;
    if (state == kFree || state == kDying) continue;
    if (linked[index] || whole(index))
      kept.push_back({index, slot(index).hash});
    else if (!(slot(index).sequence & 1))
      ++damaged;  // odd: a fill a writer did not finish
  }
  auto keyOf = [&](uint32_t index) { return slot(index).record() + layout.keyOffset; };
  std::sort(kept.begin(), kept.end(), [&](const Kept& a, const Kept& b) {
    const uint32_t ba = bucketOf(a.hash), bb = bucketOf(b.hash);
    if (ba != bb) return ba < bb;
    if (int c = order(a.hash, keyOf(a.index), b.hash, keyOf(b.index)); c != 0) return c < 0;
    return linked[a.index] > linked[b.index];  // of one key, the linked record first
  });
  for (uint32_t b = 0; b < g.bucketCount; ++b) {
    if (bucketReserved(b)) *bucketWord(b) = 0;
  }
  std::vector<uint8_t> keep(used, 0);
  uint32_t live = 0, marked = 0, relinked = 0, duplicates = 0;
  uint32_t* tail = nullptr;
  uint32_t tailBucket = UINT32_MAX;
  for (size_t i = 0; i < kept.size(); ++i) {
    const Kept& k = kept[i];
    if (i > 0 && kept[i - 1].hash == k.hash &&
        order(k.hash, keyOf(kept[i - 1].index), k.hash, keyOf(k.index)) == 0) {
      ++duplicates;
      continue;
    }
    const uint32_t b = bucketOf(k.hash);
    if (b != tailBucket) {
      segment()->reserve(g.indexOffset + uint64_t(b) * 4, 4);
      tail = bucketWord(b);
      tailBucket = b;
    }
    *tail = k.index + 1;
    tail = &slot(k.index).next;
    *tail = 0;
    keep[k.index] = 1;
    relinked += linked[k.index] ? 0 : 1;
    ++live;
    marked += isMarked(slot(k.index).record()) ? 1 : 0;
  }
  uint32_t freeHead = 0;
  for (uint32_t index = used; index-- > 0;) {
    if (keep[index]) continue;
    slot(index).state = kFree;
    slot(index).next = freeHead;
    freeHead = index + 1;
  }
  h.freeHead = freeHead;
  h.count = live;
  h.markedCount = marked;
  // After a stopped writer one record may be linked again (an insert that had not been
  // published yet) and one dropped as a duplicate: that is the change left half done.
  if (broken || damaged || (!crash && (relinked || duplicates))) {
    repaired(fmt::format(
        "index rebuilt: {} records kept, {} linked again, {} broken chains, {} damaged records "
        "dropped",
        live, relinked, broken, damaged));
  }
}

}  // namespace KestShard
