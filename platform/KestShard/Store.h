#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "KestShard/CollectionControl.h"
#include "KestShard/Segment.h"
#include "KestShard/ShardMapBase.h"
#include "Nimbo/Export.h"

namespace KestShard {

// What the two collection engines share: the segment, the collection control, the
// writer's change bracket and the readers' retry loop. Type-independent, so that the
// typed collections over it stay thin templates.
//
// Consistency model. One writer process changes a collection, publishing each step with a
// single aligned store, so that a writer stopped at any instruction leaves every record
// old or new; its next mount repairs the derived words (counts, free lists). Readers in
// other processes copy a record between two loads of the slot's sequence word and retry
// when it moved; answers that depend on the absence of a record are confirmed against the
// header's generation word, which is odd while the writer is inside a change.
class VESK_EXPORT Store : public Shard::ShardMapBase {
 public:
  Store(Nimbo::Ptr<Segment> segment, Nimbo::String name);

  const Nimbo::Ptr<CollectionControl>& control() const noexcept { return control_; }
  const Nimbo::Ptr<Segment>& segment() const noexcept { return segment_; }
  uint32_t capacity() const noexcept { return geometry().capacity; }
  bool writable() const noexcept { return segment_->writable(); }
  uint64_t allocatedBytes() const { return segment_->allocatedBytes(); }
  // Problems the writer's mount found and repaired, already reported.
  const std::vector<Nimbo::String>& mountRepairs() const noexcept { return repairs_; }

 protected:
  const Geometry& geometry() const noexcept { return segment_->geometry(); }
  SegmentHeader& header() const noexcept { return segment_->header(); }
  unsigned char* slotAt(uint32_t slot) const noexcept {
    return segment_->base() + geometry().slotOffset(slot);
  }
  uint64_t checksum(const unsigned char* record, uint32_t salt) const noexcept;
  // Whether the writer's mount must rebuild the derived words (counts, free lists): the
  // last writer stopped inside a change, or asked for it. A clean mount costs the same
  // whatever the collection holds.
  bool recoveryNeeded() const noexcept;
  void recovered();
  void corruptionCountInc() override;
  void repaired(Nimbo::String message);
  // Throws Nimbo::CorruptionDetectedException; the writer also asks its next mount to
  // repair what can be repaired.
  [[noreturn]] void throwCorrupt(const Nimbo::String& message) const;

  // Brackets one change of the writer: the generation is odd inside, even again on every
  // way out, so readers never trust an answer that spans a change.
  class Change {
   public:
    explicit Change(const Store& store);
    ~Change();
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

   private:
    SegmentHeader& header_;
  };

  // What one pass over the shared structure concluded.
  enum class Outcome {
    found,          // a record read whole under its slot's sequence word: always trusted
    absent,         // nothing there: trusted only if no change ran meanwhile
    inconsistent,   // a link or word that makes no sense: damage, unless a change ran
    damagedRecord,  // a record that fails its checksum: damage, unless a change ran; no
                    // rebuild of the index mends it
  };

  // Runs attempt() until it gives an answer that no concurrent change can have spoiled.
  //
  // The writer runs it once; an inconsistency it meets is damage, and it repairs what is
  // derived from the records (repairIndex()) and tries once more before it throws
  // Nimbo::CorruptionDetectedException, so that damage to an index hides nothing.
  //
  // Readers retry while the writer is inside a change, backing off to sleeps, and trust a
  // change left half done by a writer that has exited (each record is old or new). They
  // give up with a clear error after kReaderPatience; they never spin. An inconsistency
  // seen while nothing changed is damage, thrown with the message attempt() left in `why`.
  template <class Attempt>
  void stable(Attempt&& attempt) const {
    Nimbo::String why;
    if (writable()) {
      Outcome outcome = attempt(why);
      if (outcome == Outcome::inconsistent && const_cast<Store*>(this)->repairIndex(why)) {
        why.clear();
        outcome = attempt(why);
      }
      if (outcome == Outcome::inconsistent || outcome == Outcome::damagedRecord) throwCorrupt(why);
      return;
    }
    ReaderWait wait(*this);
    for (;;) {
      const uint64_t before = loadGeneration();
      const Outcome outcome = attempt(why);
      if (outcome == Outcome::found) return;
      if (generationIs(before) && (!(before & 1) || wait.writerGone())) {
        if (outcome == Outcome::absent) return;
        throwCorrupt(why);
      }
      wait.next();
    }
  }

  // The writer met `why`: an engine whose index is derived from its records reports it,
  // rebuilds the index inside a change (readers wait it out) and returns true.
  virtual bool repairIndex(const Nimbo::String&) { return false; }

  static constexpr std::chrono::milliseconds kReaderPatience{2000};

 private:
  // A reader's bounded wait for a stable read: a few immediate retries, then yields, then
  // sleeps growing to a millisecond; throws the busy error once the patience is spent.
  class ReaderWait {
   public:
    explicit ReaderWait(const Store& store) : store_(store) {}
    void next();
    // Whether the writer stopped for good, leaving its change half done (asked once).
    bool writerGone();

   private:
    const Store& store_;
    uint32_t tries_ = 0;
    std::chrono::steady_clock::time_point deadline_{};
    int gone_ = -1;
  };

  uint64_t loadGeneration() const noexcept;
  bool generationIs(uint64_t generation) const noexcept;
  [[noreturn]] void throwBusy() const;

  Nimbo::Ptr<Segment> segment_;
  Nimbo::Ptr<CollectionControl> control_;
  std::vector<Nimbo::String> repairs_;
  uint64_t salt_;  // the segment's, read once: checksums and hashes do not change with it
};

}  // namespace KestShard
