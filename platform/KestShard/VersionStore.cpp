#include "KestShard/VersionStore.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "KestShard/Atomics.h"
#include "Nimbo/Exception.h"

namespace KestShard {

// Slot layout; the record follows the 16-byte slot header.
struct VersionStore::Slot {
  uint32_t sequence;  // odd while the writer fills the slot
  uint32_t state;
  uint64_t check;
  unsigned char* record() noexcept { return reinterpret_cast<unsigned char*>(this + 1); }
};

namespace {
constexpr uint32_t kDead = 0;
constexpr uint32_t kLive = 0x4556494cu;  // "LIVE"
}  // namespace

VersionStore::VersionStore(Nimbo::Ptr<Segment> segment, Nimbo::String name)
    : Store(std::move(segment), std::move(name)) {
  if (geometry().layout.keySize != sizeof(uint64_t)) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("{}: a version-ordered collection needs an 8-byte key, not {} bytes",
                    this->name(), geometry().layout.keySize));
  }
  if (writable() && (recoveryNeeded() || !spanPlausible())) recover();
}

VersionStore::Slot& VersionStore::slot(uint64_t position) const noexcept {
  return *reinterpret_cast<Slot*>(slotAt(uint32_t(position % geometry().capacity)));
}

uint64_t VersionStore::keyOf(const unsigned char* record) const noexcept {
  uint64_t key;
  std::memcpy(&key, record + geometry().layout.keyOffset, sizeof key);
  return key;
}

uint64_t VersionStore::keyAt(uint64_t position) const noexcept {
  uint64_t key;
  std::memcpy(&key, slot(position).record() + geometry().layout.keyOffset, sizeof key);
  return key;
}

uint32_t VersionStore::count() const noexcept { return loadAcquire(header().count); }

uint64_t VersionStore::lowerBound(uint64_t head, uint64_t tail, uint64_t key) const noexcept {
  if (head == tail) return tail;
  const uint64_t oldest = keyAt(head);
  if (key <= oldest) return head;
  // Versions are usually consecutive: try the direct probe first.
  const uint64_t guess = head + (key - oldest);
  if (guess < tail && guess > head && keyAt(guess) == key) return guess;
  uint64_t lo = head, hi = tail;
  while (lo < hi) {
    uint64_t mid = lo + (hi - lo) / 2;
    if (keyAt(mid) < key)
      lo = mid + 1;
    else
      hi = mid;
  }
  return lo;
}

// The live span as a reader sees it; false (with the reason) when it makes no sense.
bool VersionStore::loadSpan(uint64_t& head, uint64_t& tail, Nimbo::String& why) const {
  head = loadAcquire(header().head);
  tail = loadAcquire(header().tail);
  if (tail >= head && tail - head <= geometry().capacity) return true;
  why = fmt::format("head {} and tail {} do not describe a span of at most {} records", head, tail,
                    geometry().capacity);
  return false;
}

VersionStore::Outcome VersionStore::readFrom(uint64_t key, bool strictlyAfter, bool exact,
                                             unsigned char* out, Nimbo::String& why) const {
  uint64_t head = 0, tail = 0;
  if (!loadSpan(head, tail, why)) return Outcome::inconsistent;
  if (strictlyAfter && key == UINT64_MAX) return Outcome::absent;
  const uint64_t wanted = strictlyAfter ? key + 1 : key;
  for (uint64_t pos = lowerBound(head, tail, wanted); pos < tail; ++pos) {
    Slot& s = slot(pos);
    const uint32_t sequence = loadAcquire(s.sequence);
    const bool live = loadRelaxed(s.state) == kLive;
    const uint64_t check = loadRelaxed(s.check);
    std::memcpy(out, s.record(), geometry().layout.recordSize);
    fenceAcquire();
    if ((sequence & 1) || loadRelaxed(s.sequence) != sequence) {
      why = fmt::format("slot of position {} changed while read", pos);
      return Outcome::inconsistent;
    }
    const uint64_t found = keyOf(out);
    // A delete only marks the state, so a deleted record keeps its checksum too: a damaged
    // version in it would lead the search astray.
    if (checksum(out, 0) != check) {
      why = fmt::format("record of version {} fails its checksum", found);
      return Outcome::inconsistent;
    }
    if (found < wanted) {
      why = fmt::format("versions out of order at position {}", pos);
      return Outcome::inconsistent;
    }
    if (exact && found != wanted) return Outcome::absent;
    if (live) return Outcome::found;
    if (exact) return Outcome::absent;
  }
  return Outcome::absent;
}

bool VersionStore::seek(uint64_t key, bool strictlyAfter, bool exact, unsigned char* out) const {
  segment()->checkHeader();
  bool found = false;
  stable([&](Nimbo::String& why) {
    Outcome o = readFrom(key, strictlyAfter, exact, out, why);
    found = o == Outcome::found;
    return o;
  });
  return found;
}

bool VersionStore::find(uint64_t key, unsigned char* out) const {
  return seek(key, false, true, out);
}

uint64_t VersionStore::newestVersion() const {
  segment()->checkHeader();
  uint64_t newest = 0;
  stable([&](Nimbo::String& why) {
    uint64_t head = 0, tail = 0;
    if (!loadSpan(head, tail, why)) return Outcome::inconsistent;
    if (head == tail) return Outcome::found;
    Slot& s = slot(tail - 1);
    const uint32_t sequence = loadAcquire(s.sequence);
    newest = keyAt(tail - 1);
    const bool intact = checksum(s.record(), 0) == loadRelaxed(s.check);
    fenceAcquire();
    if ((sequence & 1) || loadRelaxed(s.sequence) != sequence) {
      why = fmt::format("slot of position {} changed while read", tail - 1);
      return Outcome::inconsistent;
    }
    if (!intact) {
      why = fmt::format("newest record (version {}) fails its checksum", newest);
      return Outcome::inconsistent;
    }
    return Outcome::found;
  });
  return newest;
}

bool VersionStore::first(unsigned char* out) const { return seek(0, false, false, out); }

bool VersionStore::after(uint64_t key, unsigned char* out) const {
  return seek(key, true, false, out);
}

bool VersionStore::atOrAfter(uint64_t key, unsigned char* out) const {
  return seek(key, false, false, out);
}

// The sequence is made odd, not incremented: a writer stopped inside an append leaves the
// slot past the tail odd, outside the span its next mount repairs, and an increment would
// then leave the rewritten slot odd for good (every reader retrying it forever).
void VersionStore::writeSlot(Slot& s, const unsigned char* record) {
  const uint32_t writing = s.sequence | 1u;
  storeRelease(s.sequence, writing);
  std::memcpy(s.record(), record, geometry().layout.recordSize);
  s.check = checksum(s.record(), 0);
  s.state = kLive;
  storeRelease(s.sequence, writing + 1);
}

void VersionStore::insertOrReplace(const unsigned char* record) {
  segment()->requireWritable("insert");
  segment()->checkHeader();
  const SegmentHeader& h = header();
  const uint64_t key = keyOf(record);
  if (h.tail == h.head || key > keyAt(h.tail - 1)) {
    append(record);
    return;
  }
  const uint64_t pos = lowerBound(h.head, h.tail, key);
  if (pos == h.tail || keyAt(pos) != key) {
    throw Nimbo::InvalidArgumentException(fmt::format(
        "collection {} ({}): version {} is older than the newest stored version {} and not "
        "stored itself; versions must grow",
        name(), segment()->path(), key, keyAt(h.tail - 1)));
  }
  replaceAt(pos, record);
}

void VersionStore::append(const unsigned char* record) {
  SegmentHeader& h = header();
  if (h.tail - h.head >= geometry().capacity) {
    throw Nimbo::CapacityExceededException(fmt::format(
        "collection {} ({}) is full: {} records from version {} on fill its capacity of {}; the "
        "new record was not stored",
        name(), segment()->path(), h.tail - h.head, keyAt(h.head), geometry().capacity));
  }
  const uint32_t index = uint32_t(h.tail % geometry().capacity);
  segment()->reserve(geometry().slotOffset(index), geometry().slotSize);
  Change change(*this);
  writeSlot(slot(h.tail), record);
  storeRelease(h.tail, h.tail + 1);  // the record is now visible
  storeRelease(h.count, h.count + 1);
}

// Rewrites a slot in place, keeping its old image in the header until the new one is
// whole, so that the next writer mount can put the old one back.
void VersionStore::replaceAt(uint64_t position, const unsigned char* record) {
  SegmentHeader& h = header();
  Slot& s = slot(position);
  const bool wasLive = s.state == kLive;
  Change change(*this);
  std::memcpy(h.undoImage, &s, geometry().slotSize);
  storeRelease(h.undoSlot, uint32_t(position % geometry().capacity));
  storeRelease(h.undoValid, 1u);
  writeSlot(s, record);
  storeRelease(h.undoValid, 0u);
  if (!wasLive) storeRelease(h.count, h.count + 1);
}

bool VersionStore::erase(uint64_t key) {
  segment()->requireWritable("erase");
  segment()->checkHeader();
  SegmentHeader& h = header();
  const uint64_t pos = lowerBound(h.head, h.tail, key);
  if (pos == h.tail || keyAt(pos) != key || slot(pos).state != kLive) return false;
  Change change(*this);
  storeRelease(slot(pos).state, kDead);
  storeRelease(h.count, h.count - 1);
  const uint64_t oldHead = h.head;
  uint64_t head = oldHead;
  while (head < h.tail && slot(head).state != kLive) ++head;
  if (head != oldHead) {
    storeRelease(h.head, head);
    releaseFreed(oldHead, head);
  }
  return true;
}

// Whether any live position (the ring span [head, head + span)) or the position the next
// append writes has a slot in `chunk`. Keeping the next append's chunk is what stops a log
// that is emptied after every append from giving its chunk back and reserving it again
// each time.
bool VersionStore::chunkInUse(uint64_t chunk, uint64_t head, uint64_t liveSpan) const noexcept {
  const Geometry& g = geometry();
  const uint64_t begin = chunk * kChunkSize, end = begin + kChunkSize;
  if (begin < g.arenaOffset) return true;  // shares its chunk with the header
  const uint64_t cap = g.capacity;
  const uint64_t span = std::min(liveSpan + 1, cap);
  const uint64_t first = (begin - g.arenaOffset) / g.slotSize;
  const uint64_t last = std::min(cap - 1, (end - 1 - g.arenaOffset) / g.slotSize);
  if (first > last) return false;
  const uint64_t h0 = head % cap;
  uint64_t distance = h0 >= first && h0 <= last ? 0 : (first > h0 ? first - h0 : first + cap - h0);
  return distance < span;
}

// Gives back the chunks that the slots of positions [from, to) touched, where no live
// slot remains.
void VersionStore::releaseFreed(uint64_t from, uint64_t to) {
  if (segment()->pinned()) return;
  const Geometry& g = geometry();
  const uint64_t head = header().head, span = header().tail - head;
  if (to - from > g.capacity) from = to - g.capacity;
  uint64_t pos = from;
  while (pos < to) {
    const uint64_t index = pos % g.capacity;
    const uint64_t run = std::min(to - pos, g.capacity - index);  // up to the ring's end
    const uint64_t firstChunk = g.slotOffset(uint32_t(index)) / kChunkSize;
    const uint64_t lastChunk =
        (g.slotOffset(uint32_t(index + run - 1)) + g.slotSize - 1) / kChunkSize;
    for (uint64_t c = firstChunk; c <= lastChunk; ++c) {
      if (!chunkInUse(c, head, span)) segment()->release(c * kChunkSize, (c + 1) * kChunkSize);
    }
    pos += run;
  }
}

// Whether the slot of `position` was ever filled, as every slot of the span was: its
// chunk is reserved and its sequence word is past 0 then. (An unreserved page is never
// read: on a full tmpfs that would be SIGBUS.)
bool VersionStore::written(uint64_t position) const noexcept {
  const uint32_t index = uint32_t(position % geometry().capacity);
  return segment()->reserved(geometry().slotOffset(index)) && slot(position).sequence != 0;
}

// Whether the slot of `position` holds a record as its writer left it: filled, not half
// written, and matching its checksum.
bool VersionStore::whole(uint64_t position) const noexcept {
  if (!written(position)) return false;
  Slot& s = slot(position);
  return !(s.sequence & 1) && checksum(s.record(), 0) == s.check;
}

// Versions grow by at least one per position, so the versions at the two ends of the span
// bound its length.
bool VersionStore::endsInOrder() const noexcept {
  const SegmentHeader& h = header();
  const uint64_t oldest = keyAt(h.head), newest = keyAt(h.tail - 1);
  return newest >= oldest && newest - oldest >= h.tail - 1 - h.head;
}

// Cheap checks, so that damage the writer would build on is repaired at its mount rather
// than trusted: a span within the capacity whose two ends are whole records in order (an
// append compares with the newest, a lookup starts from the oldest).
bool VersionStore::spanPlausible() const noexcept {
  const SegmentHeader& h = header();
  if (h.tail < h.head || h.tail - h.head > geometry().capacity) return false;
  return h.tail == h.head || (whole(h.head) && whole(h.tail - 1) && endsInOrder());
}

// Puts back a slot a stopped writer was rewriting, then recounts the live span and
// releases what a stopped writer left reserved behind the head.
void VersionStore::recover() {
  SegmentHeader& h = header();
  const Geometry& g = geometry();
  if (h.undoValid) {
    if (h.undoSlot < g.capacity) std::memcpy(slotAt(h.undoSlot), h.undoImage, g.slotSize);
    h.undoValid = 0;
  }
  if (h.tail < h.head || h.tail - h.head > g.capacity) {
    repaired(fmt::format("head {} and tail {} damaged; the log restarts empty at {}", h.head,
                         h.tail, h.tail));
    h.head = h.tail;
  }
  // A tail moved past the slots ever filled would have appends compared with, and lookups
  // led astray by, slots that hold nothing: the span ends at the last filled slot.
  const uint64_t damagedTail = h.tail;
  while (h.tail > h.head && !written(h.tail - 1)) --h.tail;
  if (h.tail != damagedTail) {
    repaired(
        fmt::format("tail {} lies past the filled slots; the log ends at {}", damagedTail, h.tail));
  }
  for (uint64_t pos = h.head; pos < h.tail; ++pos) {
    if (slot(pos).sequence & 1) ++slot(pos).sequence;
  }
  const uint64_t wholeTail = h.tail;
  while (h.tail > h.head && !whole(h.tail - 1)) --h.tail;
  if (h.tail != wholeTail) {
    repaired(
        fmt::format("{} newest record(s) damaged; the log ends at {}", wholeTail - h.tail, h.tail));
  }
  uint64_t damagedAtHead = 0;
  while (h.head < h.tail && (slot(h.head).state != kLive || !whole(h.head))) {
    if (!whole(h.head)) ++damagedAtHead;
    ++h.head;
  }
  if (damagedAtHead != 0) {
    repaired(
        fmt::format("{} oldest record(s) damaged; the log starts at {}", damagedAtHead, h.head));
  }
  if (h.head < h.tail && !endsInOrder()) {
    repaired(
        fmt::format("versions {} to {} out of order over positions {} to {}; the log "
                    "restarts empty at {}",
                    keyAt(h.head), keyAt(h.tail - 1), h.head, h.tail - 1, h.tail));
    h.head = h.tail;
  }
  uint32_t live = 0;
  for (uint64_t pos = h.head; pos < h.tail; ++pos) {
    if (slot(pos).state == kLive) ++live;
  }
  h.count = live;
  recovered();
  const uint64_t chunks = segment()->pinned() ? 0 : g.fileSize / kChunkSize;
  for (uint64_t c = 0; c < chunks; ++c) {
    if (segment()->reserved(c * kChunkSize) && !chunkInUse(c, h.head, h.tail - h.head)) {
      segment()->release(c * kChunkSize, (c + 1) * kChunkSize);
    }
  }
}

}  // namespace KestShard
