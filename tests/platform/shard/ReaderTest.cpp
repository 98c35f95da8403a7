#include <signal.h>

#include <set>

#include "Nimbo/Exception.h"

#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

class ReaderTest : public ::testing::Test {
 protected:
  TempRoot root;
};

// A writer process rewrites records and the log without pause while this process reads
// them through a read-only mount: every record read must be whole.
TEST_F(ReaderTest, ReaderInAnotherProcessNeverSeesATornRecord) {
  {
    auto shard = mountTestShard("live", 512, 4096);
    for (uint32_t id = 0; id < 256; ++id) shard->records.insertOrReplace(Record::of(id, 0));
    unmount("live");
  }
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t writer = fork();
  if (writer == 0) {
    auto shard = mountTestShard("live", 512, 4096);
    char go = 1;
    if (write(ready[1], &go, 1) != 1) _exit(1);
    uint64_t version = 1;
    for (uint64_t generation = 1;; ++generation) {
      uint32_t id = uint32_t(generation * 7919 % 256);
      shard->records.insertOrReplace(Record::of(id, generation));
      if (generation % 3 == 0) shard->records.erase(Record::of((id + 128) % 256, 0).key);
      shard->log.insertOrReplace(LogRecord::of(version++));
      if (shard->log.count() > 1000) shard->log.erase(version - 1001);
    }
  }
  char go = 0;
  ASSERT_EQ(read(ready[0], &go, 1), 1);

  auto reader = mountTestShard("live", 512, 4096, KestShard::KestShardType::reader, "agent");
  std::set<uint64_t> generationsSeen;
  uint64_t hits = 0;
  // Read until the writer has visibly moved on many times (bounded, in case it never runs).
  for (int round = 0; generationsSeen.size() < 300 && round < 20000000; ++round) {
    uint32_t id = uint32_t(round % 256);
    if (auto r = reader->records.find(Record::of(id, 0).key)) {
      ASSERT_TRUE(r->whole()) << "torn record for key " << id;
      generationsSeen.insert(r->generation);
      ++hits;
    }
    if (auto l = reader->log.at(0); l != reader->log.end()) {
      ASSERT_TRUE(l->whole());
    }
    if (round % 500 == 0) {
      for (auto it = reader->records.begin(); it != reader->records.end(); ++it) {
        ASSERT_TRUE(it->whole());
      }
      for (auto it = reader->log.begin(); it != reader->log.end(); ++it) ASSERT_TRUE(it->whole());
    }
  }
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  EXPECT_GT(hits, 0u);
  EXPECT_GE(generationsSeen.size(), 300u) << "the reader should have raced the writer";
}

// A writer that stopped in the middle of a change leaves the generation odd: a reader can
// still trust whole records, but never an absence, and says so instead of spinning.
TEST_F(ReaderTest, ReaderGivesUpClearlyOnAWriterStoppedMidChange) {
  {
    auto shard = mountTestShard("stopped");
    shard->records.insertOrReplace(Record::of(1, 1));
    KestShard::SegmentHeader& h = shard->records.store().segment()->header();
    h.generation |= 1;  // as if killed between two steps of a change
    unmount("stopped");
  }
  pid_t child = fork();
  if (child == 0) {
    auto reader = mountTestShard("stopped", 1024, 1024, KestShard::KestShardType::reader);
    bool hitTrusted = reader->records.find(Record::of(1, 0).key)->whole();
    try {
      reader->records.find(Record::of(2, 0).key);
    } catch (const Nimbo::Exception& e) {
      _exit(hitTrusted && std::string(e.what()).find("no stable read") != std::string::npos ? 0
                                                                                            : 2);
    }
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  // The next writer mount repairs the generation and readers answer again.
  auto shard = mountTestShard("stopped");
  EXPECT_EQ(shard->records.store().segment()->header().generation % 2, 0u);
}

// The same stop, by a writer process that has exited: its change will never end, every
// record is old or new, and a reader trusts what it sees (absences too) instead of waiting.
TEST_F(ReaderTest, ReaderTrustsAChangeLeftHalfDoneByAWriterThatExited) {
  pid_t writer = fork();
  if (writer == 0) {
    auto shard = mountTestShard("exited");
    shard->records.insertOrReplace(Record::of(1, 1));
    shard->records.store().segment()->header().generation |= 1;
    _exit(0);  // no unmount: as killed
  }
  int status = 0;
  waitpid(writer, &status, 0);
  ASSERT_EQ(WEXITSTATUS(status), 0);
  auto reader = mountTestShard("exited", 1024, 1024, KestShard::KestShardType::reader);
  EXPECT_TRUE(reader->records.find(Record::of(1, 0).key)->whole());
  EXPECT_FALSE(reader->records.find(Record::of(2, 0).key).has_value());
  size_t walked = 0;
  reader->records.forEach([&](const Record& r) { walked += r.whole() ? 1 : 0; });
  EXPECT_EQ(walked, 1u);
}

}  // namespace
}  // namespace ShardTest
