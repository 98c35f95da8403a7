#include <map>
#include <random>
#include <set>

#include "Nimbo/Exception.h"
#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

class KeyedCollectionTest : public ::testing::Test {
 protected:
  TempRoot root;
};

std::vector<uint32_t> idsInOrder(const Records& records) {
  std::vector<uint32_t> ids;
  for (auto it = records.begin(); it != records.end(); ++it) ids.push_back(it->key.id);
  return ids;
}

// A large index is reserved chunk by chunk as records arrive, so a few records leave
// most chunks unreserved, and a walk must skip exactly the empty chunks, whose bucket
// boundaries are not multiples of the buckets per chunk.
TEST_F(KeyedCollectionTest, AWalkOverASparseIndexVisitsEveryRecord) {
  // Each collection hashes with its own salt: many small ones place records everywhere.
  for (int trial = 0; trial < 64; ++trial) {
    auto shard = mountTestShard("sparse/" + std::to_string(trial), 65536);
    Records& r = shard->records;
    for (uint32_t id = 0; id < 3; ++id) {
      r.insertOrReplace(Record::of(id, 1));
      ASSERT_EQ(idsInOrder(r).size(), r.count()) << "trial " << trial << ", record " << id;
    }
  }
}

TEST_F(KeyedCollectionTest, RandomOperationsMatchAnOrdinaryMap) {
  auto shard = mountTestShard("diff", 512);
  Records& r = shard->records;
  std::map<uint32_t, uint64_t> model;
  std::mt19937 rng(42);
  for (int op = 0; op < 20000; ++op) {
    uint32_t id = rng() % 700;  // more keys than capacity: some inserts are refused
    switch (rng() % 3) {
      case 0:
      case 1:
        try {
          r.insertOrReplace(Record::of(id, op));
          model[id] = op;
        } catch (const Nimbo::CapacityExceededException&) {
          ASSERT_EQ(model.size(), 512u);
          ASSERT_FALSE(model.count(id));
        }
        break;
      case 2:
        ASSERT_EQ(r.erase(Record::of(id, 0).key), model.erase(id) == 1);
        break;
    }
  }
  ASSERT_EQ(r.count(), model.size());
  for (auto [id, generation] : model) {
    auto found = r.find(Record::of(id, 0).key);
    ASSERT_TRUE(found);
    EXPECT_EQ(*found, Record::of(id, generation));
  }
  std::vector<uint32_t> walked = idsInOrder(r);
  EXPECT_EQ(std::set<uint32_t>(walked.begin(), walked.end()).size(), model.size());
  EXPECT_EQ(walked.size(), model.size());
}

TEST_F(KeyedCollectionTest, IterationIsPositionedByKeyAndSurvivesErasingAsItGoes) {
  auto shard = mountTestShard("iter");
  Records& r = shard->records;
  for (uint32_t id = 0; id < 300; ++id) r.insertOrReplace(Record::of(id, 1));
  std::vector<uint32_t> order = idsInOrder(r);
  ASSERT_EQ(order.size(), 300u);

  // Positioned at a present key: that key, then the rest in the same order.
  auto it = r.at(Record::of(order[120], 0).key);
  std::vector<uint32_t> tail;
  for (; it != r.end(); ++it) tail.push_back(it->key.id);
  EXPECT_EQ(tail, std::vector<uint32_t>(order.begin() + 120, order.end()));

  // Positioned at an absent key: the record where it would have been, or later.
  r.erase(Record::of(order[50], 0).key);
  EXPECT_EQ(r.at(Record::of(order[50], 0).key)->key.id, order[51]);

  // Erasing the current record and stepping on visits every other record once.
  size_t visited = 0;
  for (auto cur = r.begin(); cur != r.end(); ++cur) {
    ++visited;
    r.erase(cur->key);
  }
  EXPECT_EQ(visited, 299u);
  EXPECT_EQ(r.count(), 0u);
  EXPECT_TRUE(r.begin() == r.end());
}

// A walk that comes back to the key it reached last, or steps past it, starts from that
// record's slot instead of seeking: only while nothing has changed. Every change made
// between two steps, by this process or by the writer in another, is seen.
TEST_F(KeyedCollectionTest, AWalkSeesEveryChangeMadeBetweenItsSteps) {
  std::vector<uint32_t> order;
  auto key = [&](size_t at) { return Record::of(order[at], 0).key; };
  {
    auto shard = mountTestShard("steps");
    Records& w = shard->records;
    for (uint32_t id = 0; id < 300; ++id) w.insertOrReplace(Record::of(id, 1));
    order = idsInOrder(w);
    EXPECT_EQ(*w.at(key(5)), Record::of(order[5], 1));
    w.insertOrReplace(Record::of(order[5], 2));
    EXPECT_EQ(*w.at(key(5)), Record::of(order[5], 2)) << "positioned again after a replace";
    // The slot of the record a walk stands on is freed and taken by another key, of
    // another bucket: the step must not follow that slot's new links (for a record whose
    // successor shares its bucket, that would skip the successor).
    for (size_t at = 0; at + 1 < order.size(); ++at) {
      auto it = w.at(key(at));
      w.erase(key(at));
      w.insertOrReplace(Record::of(1000, 1));
      ++it;
      ASSERT_TRUE(it.valid());
      // The new record is visited if its place is next; the successor is never skipped.
      EXPECT_TRUE(it->key.id == order[at + 1] || it->key.id == 1000)
          << "after record " << at << ": " << it->key.id;
      w.erase(Record::of(1000, 0).key);
      w.insertOrReplace(Record::of(order[at], 1));
    }
    unmount("steps");
  }

  // The writer runs in a child and makes one change per command; this process reads.
  int commands[2], done[2];
  ASSERT_EQ(pipe(commands), 0);
  ASSERT_EQ(pipe(done), 0);
  const pid_t writer = fork();
  if (writer == 0) {
    close(commands[1]);
    close(done[0]);
    auto mine = mountTestShard("steps");
    for (uint32_t command[3]; read(commands[0], command, sizeof command) == sizeof command;) {
      const Record record = Record::of(command[1], command[2]);
      if (command[0] == 'r') mine->records.insertOrReplace(record);
      if (command[0] == 'e') mine->records.erase(record.key);
      if (write(done[1], "k", 1) != 1) _exit(1);
    }
    _exit(0);
  }
  close(commands[0]);
  close(done[1]);  // a writer that dies ends the wait for its answer
  auto change = [&](char what, size_t at, uint32_t version) {
    const uint32_t command[3] = {uint32_t(what), order[at], version};
    ASSERT_EQ(write(commands[1], command, sizeof command), ssize_t(sizeof command));
    char ack = 0;
    ASSERT_EQ(read(done[0], &ack, 1), 1);
  };
  auto reader = mountTestShard("steps", 1024, 1024, KestShard::KestShardType::reader);
  Records& r = reader->records;

  auto it = r.at(key(10));
  ASSERT_EQ(*it, Record::of(order[10], 1));
  change('r', 11, 7);
  ++it;
  EXPECT_EQ(*it, Record::of(order[11], 7)) << "the next record, replaced since the last step";
  change('r', 11, 8);
  EXPECT_EQ(*r.at(key(11)), Record::of(order[11], 8)) << "the last record, replaced since";
  it = r.at(key(13));
  ++it;  // reads and remembers the record at 14
  ASSERT_EQ(it->key.id, order[14]);
  change('e', 14, 0);
  EXPECT_EQ(r.at(key(14))->key.id, order[15]) << "a remembered record, erased since";

  // The slot of the record a walk stands on is freed and taken by another key: the step
  // must not follow that slot's new links.
  it = r.at(key(20));
  change('e', 20, 0);
  const uint32_t command[3] = {'r', 1000, 1};
  ASSERT_EQ(write(commands[1], command, sizeof command), ssize_t(sizeof command));
  char ack = 0;
  ASSERT_EQ(read(done[0], &ack, 1), 1);
  ++it;
  EXPECT_EQ(it->key.id, order[21]);

  close(commands[1]);
  int status = 0;
  waitpid(writer, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(KeyedCollectionTest, RecordsSurviveRemountInAnotherProcess) {
  {
    auto shard = mountTestShard("restart");
    for (uint32_t id = 0; id < 50; ++id) shard->records.insertOrReplace(Record::of(id, id));
    shard->log.insertOrReplace(LogRecord::of(9));
    shard->records.control()->scratchpadIs(1234);
    unmount("restart");
  }
  pid_t child = fork();
  if (child == 0) {
    auto shard = mountTestShard("restart");
    bool ok = shard->records.count() == 50 && shard->records.control()->scratchpad() == 1234 &&
              shard->log.find(9)->whole();
    for (uint32_t id = 0; id < 50; ++id) {
      ok = ok && *shard->records.find(Record::of(id, 0).key) == Record::of(id, id);
    }
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

}  // namespace
}  // namespace ShardTest
