#include <fcntl.h>
#include <sys/mman.h>

#include <set>

#include "Kest/Log.h"
#include "KestShard/SegmentLayout.h"
#include "Nimbo/Exception.h"
#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

class CorruptionTest : public ::testing::Test {
 protected:
  TempRoot root;
};

// Maps a segment file read-write as an outsider would and lets the test damage it.
class Damage {
 public:
  explicit Damage(const std::string& file) {
    fd_ = open(file.c_str(), O_RDWR);
    size_ = lseek(fd_, 0, SEEK_END);
    base_ = static_cast<unsigned char*>(
        mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
  }
  ~Damage() {
    munmap(base_, size_);
    close(fd_);
  }
  // Flips a byte inside the stored copy of `bytes` (found by content).
  template <class T>
  void flipInside(const T& value, size_t at) {
    void* hit = memmem(base_ + 8192, size_ - 8192, &value, sizeof value);
    ASSERT_NE(hit, nullptr);
    static_cast<unsigned char*>(hit)[at] ^= 0x5a;
  }
  unsigned char* base() const { return base_; }
  // The stored copy of `value` (found by content).
  template <class T>
  unsigned char* find(const T& value) const {
    return static_cast<unsigned char*>(memmem(base_ + 8192, size_ - 8192, &value, sizeof value));
  }
  // What a writer killed inside a change of the slot after the one holding `newest` (slots
  // `stride` bytes apart, the sequence word first in a slot header of `headerSize` bytes)
  // leaves behind: that slot odd, and the header between two steps of a change.
  template <class T>
  void stopWriterFilling(const T& newest, ptrdiff_t stride, size_t headerSize) {
    unsigned char* record = find(newest);
    ASSERT_NE(record, nullptr);
    *reinterpret_cast<uint32_t*>(record + stride - ptrdiff_t(headerSize)) |= 1;
    reinterpret_cast<KestShard::SegmentHeader*>(base_)->generation |= 1;
  }

 private:
  int fd_;
  size_t size_;
  unsigned char* base_;
};

TEST_F(CorruptionTest, DamagedRecordIsReportedOnLookupAndOthersStayReadable) {
  auto shard = mountTestShard("rec");
  for (uint32_t id = 0; id < 20; ++id) shard->records.insertOrReplace(Record::of(id, 1));
  Damage(segmentFile(root, "rec", "records")).flipInside(Record::of(7, 1), 40);  // payload
  EXPECT_THROW(shard->records.find(Record::of(7, 0).key), Nimbo::CorruptionDetectedException);
  for (uint32_t id = 0; id < 20; ++id) {
    if (id == 7) continue;
    EXPECT_TRUE(shard->records.find(Record::of(id, 0).key)->whole()) << id;
  }
  shard->records.insertOrReplace(Record::of(7, 2));  // a rewrite heals it
  EXPECT_TRUE(shard->records.find(Record::of(7, 0).key)->whole());
}

TEST_F(CorruptionTest, DamagedKeyIsReportedNotMistakenForAbsence) {
  auto shard = mountTestShard("key");
  shard->records.insertOrReplace(Record::of(5, 1));
  Damage(segmentFile(root, "key", "records")).flipInside(Record::of(5, 1), 2);  // key.id
  EXPECT_THROW(shard->records.find(Record::of(5, 0).key), Nimbo::CorruptionDetectedException);
}

TEST_F(CorruptionTest, IterationReportsADamagedRecordAndGoesPastIt) {
  auto shard = mountTestShard("walk");
  for (uint32_t id = 0; id < 50; ++id) shard->records.insertOrReplace(Record::of(id, 1));
  // The order follows the process's hash seed: damage a record in the middle of it, so that
  // begin() (which has no iterator to leave standing when it throws) is not the step that
  // meets it.
  auto middle = shard->records.begin();
  for (int n = 0; n < 25; ++n) ++middle;
  Damage(segmentFile(root, "walk", "records")).flipInside(*middle, 30);
  Kest::LogCapture log;
  size_t good = 0, reported = 0;
  bool onDamaged = false;  // the iterator stands on the record it reported
  for (auto it = shard->records.begin(); it != shard->records.end();) {
    if (!onDamaged) {
      EXPECT_TRUE(it->whole());
      ++good;
    }
    try {
      ++it;
      onDamaged = false;
    } catch (const Nimbo::CorruptionDetectedException& e) {
      shard->records.map().doCorruptionDetected(e.what());
      ++reported;
      onDamaged = true;
    }
  }
  EXPECT_EQ(good, 49u);
  EXPECT_EQ(reported, 1u);
  EXPECT_EQ(shard->records.map().corruptionsDetected(), 1u);
  ASSERT_EQ(log.records().size(), 1u);
  EXPECT_EQ(log.records()[0].name, "SHARD_CORRUPTION_DETECTED");
  EXPECT_NE(log.records()[0].text.find("walk/records: "), std::string::npos)
      << log.records()[0].text;
  EXPECT_NE(log.records()[0].text.find("fails its checksum"), std::string::npos);
  EXPECT_EQ(shard->records.store().segment()->header().corruptionCount, 1u)
      << "the count is kept in shared memory for other processes";
}

TEST_F(CorruptionTest, DamagedLogRecordIsReported) {
  auto shard = mountTestShard("log");
  for (uint64_t v = 1; v <= 10; ++v) shard->log.insertOrReplace(LogRecord::of(v));
  Damage(segmentFile(root, "log", "log")).flipInside(LogRecord::of(4), 20);
  EXPECT_THROW(shard->log.find(4), Nimbo::CorruptionDetectedException);
  EXPECT_TRUE(shard->log.find(5)->whole());
}

// A writer killed while it filled the next slot leaves that slot odd. The next writer mount
// repairs what lies within the collection's span, not past it, so the next writer must fill
// such a slot so that it ends even; otherwise every later read of it retries and fails.
TEST_F(CorruptionTest, ASlotLeftOddByAKilledWriterIsFilledAgainWhole) {
  {
    auto shard = mountTestShard("odd");
    for (uint64_t v = 1; v <= 5; ++v) shard->log.insertOrReplace(LogRecord::of(v));
    for (uint32_t id = 1; id <= 5; ++id) shard->records.insertOrReplace(Record::of(id, 1));
    unmount("odd");
  }
  {
    Damage log(segmentFile(root, "odd", "log"));
    log.stopWriterFilling(LogRecord::of(5), log.find(LogRecord::of(5)) - log.find(LogRecord::of(4)),
                          16);
    Damage records(segmentFile(root, "odd", "records"));
    records.stopWriterFilling(Record::of(5, 1),
                              records.find(Record::of(5, 1)) - records.find(Record::of(4, 1)), 24);
  }
  auto shard = mountTestShard("odd");
  shard->log.insertOrReplace(LogRecord::of(6));
  shard->records.insertOrReplace(Record::of(6, 1));
  EXPECT_TRUE(shard->log.find(6)->whole());
  EXPECT_TRUE(shard->records.find(Record::of(6, 0).key)->whole());
  EXPECT_EQ(shard->log.count(), 6u);
  EXPECT_EQ(shard->records.count(), 6u);
}

TEST_F(CorruptionTest, DamagedHeaderIsReportedOnLookupAndRepairedByTheWriter) {
  auto shard = mountTestShard("hdr");
  shard->records.insertOrReplace(Record::of(1, 1));
  {
    Damage d(segmentFile(root, "hdr", "records"));
    reinterpret_cast<KestShard::SegmentHeader*>(d.base())->capacity = 3;
  }
  try {
    shard->records.find(Record::of(1, 0).key);
    FAIL() << "damaged header not detected";
  } catch (const Nimbo::CorruptionDetectedException& e) {
    EXPECT_NE(std::string(e.what()).find("capacity"), std::string::npos) << e.what();
  }
  EXPECT_TRUE(shard->records.find(Record::of(1, 0).key)->whole()) << "repaired after the report";
}

// A change log at `name` holding versions 21 to 60 (1 to 20 appended and erased), unmounted.
void logOfVersions21To60(const std::string& name) {
  auto shard = mountTestShard(name, 64, 1024);
  for (uint64_t v = 1; v <= 60; ++v) shard->log.insertOrReplace(LogRecord::of(v));
  for (uint64_t v = 1; v <= 20; ++v) shard->log.erase(v);
  unmount(name);
}

// A tail moved past the slots ever filled (a flipped bit, say) would have the writer compare
// appends with empty slots, take a version older than the stored ones and then find it
// nowhere. The writer's mount ends the span at the last filled slot instead.
TEST_F(CorruptionTest, ALogTailPastTheFilledSlotsIsTrimmedAtTheWriterMount) {
  logOfVersions21To60("tail");
  {
    Damage d(segmentFile(root, "tail", "log"));
    reinterpret_cast<KestShard::SegmentHeader*>(d.base())->tail += 400;
  }
  auto shard = mountTestShard("tail", 64, 1024);
  EXPECT_FALSE(shard->log.store().mountRepairs().empty());
  EXPECT_EQ(shard->log.newestVersion(), 60u);
  EXPECT_THROW(shard->log.insertOrReplace(LogRecord::of(5)), Nimbo::InvalidArgumentException);
  shard->log.insertOrReplace(LogRecord::of(61));
  EXPECT_TRUE(shard->log.find(61)->whole());
  EXPECT_EQ(shard->log.count(), 41u);
}

// The writer appends after the newest record's version and lookups start from the oldest:
// a damaged record at either end would have appends go out of order (and then be found
// nowhere). Readers report it; the writer's mount drops it, reported, and goes on in order.
TEST_F(CorruptionTest, ADamagedRecordAtEitherEndOfTheLogIsDroppedAtTheWriterMount) {
  logOfVersions21To60("ends");
  {
    Damage d(segmentFile(root, "ends", "log"));
    d.flipInside(LogRecord::of(60), 0);  // the version itself
    d.flipInside(LogRecord::of(21), 30);
  }
  {
    auto reader = mountTestShard("ends", 64, 1024, KestShard::KestShardType::reader);
    EXPECT_THROW(reader->log.newestVersion(), Nimbo::CorruptionDetectedException);
    EXPECT_THROW(reader->log.find(21), Nimbo::CorruptionDetectedException);
    unmount("ends");
  }
  auto shard = mountTestShard("ends", 64, 1024);
  EXPECT_EQ(shard->log.store().mountRepairs().size(), 2u);
  EXPECT_EQ(shard->log.newestVersion(), 59u);
  EXPECT_EQ(shard->log.begin()->version, 22u);
  EXPECT_EQ(shard->log.count(), 38u);
  shard->log.insertOrReplace(LogRecord::of(60));
  EXPECT_TRUE(shard->log.find(60)->whole());
}

// The first non-empty bucket word of a keyed collection's index.
uint32_t& firstUsedBucket(Damage& d, uint32_t buckets) {
  auto* words = reinterpret_cast<uint32_t*>(d.base() + 8192);
  uint32_t b = 0;
  while (b + 1 < buckets && words[b] == 0) ++b;
  return words[b];
}

// A shard `name` of 64 records, unmounted with the first used bucket word set to `link`.
void fullShardWithFirstLinkAs(const TempRoot& root, const std::string& name, uint32_t link) {
  {
    auto shard = mountTestShard(name, 64);
    for (uint32_t id = 0; id < 64; ++id) shard->records.insertOrReplace(Record::of(id, 1));
  }
  unmount(name);
  Damage d(segmentFile(root, name, "records"));
  firstUsedBucket(d, 64) = link;
}

// The index is derived from the records: a writer that meets a broken link rebuilds it
// from the slots, and nothing the chain held is lost.
TEST_F(CorruptionTest, ADamagedLinkHidesNothingFromTheWriter) {
  fullShardWithFirstLinkAs(root, "chain", 60000);  // far outside the used slots
  auto shard = mountTestShard("chain", 64);
  for (uint32_t id = 0; id < 64; ++id) {
    auto found = shard->records.find(Record::of(id, 0).key);
    ASSERT_TRUE(found.has_value()) << id;
    EXPECT_TRUE(found->whole()) << id;
  }
  EXPECT_EQ(shard->records.count(), 64u);
  EXPECT_FALSE(shard->records.store().mountRepairs().empty()) << "the rebuild is reported";
  EXPECT_TRUE(shard->records.erase(Record::of(0, 0).key));
  shard->records.insertOrReplace(Record::of(1000, 1));  // fully usable again
  EXPECT_TRUE(shard->records.contains(Record::of(1000, 0).key));
  shard.reset();
  unmount("chain");
  shard = mountTestShard("chain", 64);
  EXPECT_TRUE(shard->records.store().mountRepairs().empty()) << "the rebuilt index was left whole";
  EXPECT_EQ(shard->records.count(), 64u);
}

// A chain cut off at its bucket word is invisible to a lookup; a full walk counts what it
// reached against the collection's count: a reader reports the shortfall, the writer
// rebuilds the index and walks everything.
TEST_F(CorruptionTest, AWalkThatMissesRecordsReportsAndTheWriterRecoversThem) {
  fullShardWithFirstLinkAs(root, "cut", 0);
  {
    Kest::LogCapture log;
    auto reader = mountTestShard("cut", 64, 1024, KestShard::KestShardType::reader);
    size_t walked = 0;
    reader->records.forEach([&](const Record&) { ++walked; });
    EXPECT_LT(walked, 64u);
    EXPECT_GE(reader->records.map().corruptionsDetected(), 1u);
    ASSERT_FALSE(log.records().empty());
    EXPECT_NE(log.records().back().text.find("a walk reached"), std::string::npos);
    reader.reset();
    unmount("cut");
  }
  auto shard = mountTestShard("cut", 64);
  std::set<uint32_t> seen;
  shard->records.forEach([&](const Record& r) { seen.insert(r.key.id); });
  EXPECT_EQ(seen.size(), 64u);
  EXPECT_TRUE(shard->records.contains(Record::of(*seen.begin(), 0).key));
  for (uint32_t id = 0; id < 64; ++id)
    EXPECT_TRUE(shard->records.contains(Record::of(id, 0).key)) << id;
}

// Counts, the high-water mark and the free list are derived words too: implausible ones
// are rebuilt by the writer's mount rather than trusted.
TEST_F(CorruptionTest, DamagedCountsAreRebuiltAtTheWriterMount) {
  auto shard = mountTestShard("counts", 64);
  for (uint32_t id = 0; id < 40; ++id) shard->records.insertOrReplace(Record::of(id, 1));
  for (uint32_t id = 0; id < 10; ++id) shard->records.erase(Record::of(id, 0).key);
  shard.reset();
  unmount("counts");
  {
    Damage d(segmentFile(root, "counts", "records"));
    auto& h = *reinterpret_cast<KestShard::SegmentHeader*>(d.base());
    h.count = 5000;
    h.freeHead = 4000;
  }
  shard = mountTestShard("counts", 64);
  EXPECT_EQ(shard->records.count(), 30u);
  EXPECT_FALSE(shard->records.store().mountRepairs().empty());
  for (uint32_t id = 100; id < 134; ++id) shard->records.insertOrReplace(Record::of(id, 1));
  EXPECT_EQ(shard->records.count(), 64u) << "every freed slot is found again";
  EXPECT_THROW(shard->records.insertOrReplace(Record::of(999, 1)),
               Nimbo::CapacityExceededException);
}

}  // namespace
}  // namespace ShardTest
