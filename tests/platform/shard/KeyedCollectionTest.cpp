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
