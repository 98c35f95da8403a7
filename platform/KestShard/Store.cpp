#include "KestShard/Store.h"

#include <sched.h>

#include <cstring>
#include <thread>

#include <fmt/format.h>

#include "Kest/Hash.h"
#include "KestShard/Atomics.h"
#include "Nimbo/Exception.h"

namespace KestShard {

void (*publishHook)() noexcept = nullptr;

Store::Store(Nimbo::Ptr<Segment> segment, Nimbo::String name)
    : ::Shard::ShardMapBase(std::move(name)),
      segment_(std::move(segment)),
      control_(Nimbo::make<CollectionControl>(segment_)),
      salt_(segment_->header().salt) {}

// Two running sums over the record's 64-bit words (position-sensitive through the second),
// mixed once with the salt: catches any damaged word at a fraction of a full hash's cost.
uint64_t Store::checksum(const unsigned char* record, uint32_t salt) const noexcept {
  const uint32_t size = geometry().layout.recordSize;
  uint64_t a = 0, b = 0;
  uint32_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t w;
    std::memcpy(&w, record + i, 8);
    a += w;
    b += a;
  }
  if (i < size) {
    uint64_t w = 0;
    std::memcpy(&w, record + i, size - i);
    a += w;
    b += a;
  }
  return Kest::mix64(a ^ salt_, b + salt);
}

bool Store::recoveryNeeded() const noexcept {
  return (header().generation & 1) != 0 || header().repairAtMount != 0;
}

// A rebuild is a change: the generation moves on (to the next even value), so that no
// reader trusts what it read before it.
void Store::recovered() {
  SegmentHeader& h = header();
  storeRelease(h.generation, (h.generation | 1) + 1);
  h.repairAtMount = 0;
}

void Store::corruptionCountInc() {
  if (writable()) storeRelease(header().corruptionCount, header().corruptionCount + 1);
}

void Store::repaired(Nimbo::String message) {
  doCorruptionDetected(message);
  repairs_.push_back(std::move(message));
}

void Store::throwCorrupt(const Nimbo::String& message) const {
  if (writable()) storeRelease(header().repairAtMount, 1u);
  throw Nimbo::CorruptionDetectedException(fmt::format("{}: {}", segment_->path(), message));
}

Store::Change::Change(const Store& store) : header_(store.header()) {
  storeRelease(header_.generation, header_.generation + 1);
}

Store::Change::~Change() { storeRelease(header_.generation, header_.generation + 1); }

uint64_t Store::loadGeneration() const noexcept { return loadAcquire(header().generation); }

bool Store::generationIs(uint64_t generation) const noexcept {
  fenceAcquire();
  return loadRelaxed(header().generation) == generation;
}

void Store::ReaderWait::next() {
  const auto now = std::chrono::steady_clock::now();
  if (tries_ == 0) deadline_ = now + kReaderPatience;
  if (now > deadline_) store_.throwBusy();
  ++tries_;
  if (tries_ <= 16) return;
  if (tries_ <= 64) {
    sched_yield();
    return;
  }
  const auto pause =
      std::chrono::microseconds(std::min<uint32_t>(1000, 10u << std::min(tries_ - 64, 7u)));
  std::this_thread::sleep_for(pause);
}

bool Store::ReaderWait::writerGone() {
  if (tries_ < 16) return false;  // a live writer's change is over in microseconds
  if (gone_ < 0) gone_ = store_.segment_->writerGone() ? 1 : 0;
  return gone_ == 1;
}

void Store::throwBusy() const {
  throw Nimbo::Exception(fmt::format(
      "{}: no stable read within {} ms: its writer (pid {}) keeps changing it or is stopped in "
      "the middle of a change; try again, or restart the agent so that its mount repairs it",
      segment_->path(), kReaderPatience.count(), loadAcquire(header().writerPid)));
}

}  // namespace KestShard
