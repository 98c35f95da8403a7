#include <deque>
#include <random>

#include "Nimbo/Exception.h"
#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

class VersionCollectionTest : public ::testing::Test {
 protected:
  TempRoot root;
};

std::vector<uint64_t> versions(const Log& log) {
  std::vector<uint64_t> out;
  for (auto it = log.begin(); it != log.end(); ++it) out.push_back(it->version);
  return out;
}

TEST_F(VersionCollectionTest, RefusesAnOlderVersionAndReplacesAStoredOne) {
  auto shard = mountTestShard("order");
  Log& log = shard->log;
  log.insertOrReplace(LogRecord::of(10));
  log.insertOrReplace(LogRecord::of(12));
  EXPECT_THROW(log.insertOrReplace(LogRecord::of(11)), Nimbo::InvalidArgumentException);
  EXPECT_FALSE(log.find(11));
  EXPECT_FALSE(log.erase(11));
  EXPECT_EQ(log.at(11)->version, 12u) << "positioned at an absent version: the next one";
  LogRecord changed = LogRecord::of(10);
  changed.unit = 99;
  log.insertOrReplace(changed);
  EXPECT_EQ(log.find(10)->unit, 99u);
  EXPECT_EQ(versions(log), (std::vector<uint64_t>{10, 12}));
}

TEST_F(VersionCollectionTest, SpanBeyondCapacityIsRefusedAndNothingIsLost) {
  auto shard = mountTestShard("cap", 16, 50);
  Log& log = shard->log;
  for (uint64_t v = 1; v <= 50; ++v) log.insertOrReplace(LogRecord::of(v));
  EXPECT_THROW(log.insertOrReplace(LogRecord::of(51)), Nimbo::CapacityExceededException);
  EXPECT_EQ(log.count(), 50u);
  EXPECT_TRUE(log.erase(1));  // the oldest leaves: room for one more
  log.insertOrReplace(LogRecord::of(51));
  EXPECT_EQ(versions(log).front(), 2u);
  EXPECT_EQ(versions(log).back(), 51u);
}

TEST_F(VersionCollectionTest, RingWrapsManyTimesLikeAnOrdinaryQueue) {
  auto shard = mountTestShard("ring", 16, 97);
  Log& log = shard->log;
  std::deque<uint64_t> model;
  std::mt19937 rng(7);
  uint64_t next = 1;
  for (int op = 0; op < 5000; ++op) {
    if (model.size() < 97 && rng() % 2) {
      next += 1 + rng() % 3;  // versions grow, with gaps
      log.insertOrReplace(LogRecord::of(next));
      model.push_back(next);
    } else if (!model.empty()) {
      size_t victim = rng() % 4 == 0 ? rng() % model.size() : 0;  // mostly the oldest
      ASSERT_TRUE(log.erase(model[victim]));
      model.erase(model.begin() + victim);
    }
  }
  EXPECT_EQ(versions(log), std::vector<uint64_t>(model.begin(), model.end()));
  for (uint64_t v : model) EXPECT_TRUE(log.find(v)->whole());
}

TEST_F(VersionCollectionTest, MemoryFollowsTheLiveSpan) {
  auto shard = mountTestShard("mem", 16, 100000);
  Log& log = shard->log;
  auto& store = log.store();
  const uint64_t empty = store.allocatedBytes();
  for (uint64_t v = 1; v <= 20000; ++v) log.insertOrReplace(LogRecord::of(v));
  const uint64_t full = store.allocatedBytes();
  EXPECT_GT(full, empty + 20000 * sizeof(LogRecord));
  for (uint64_t v = 1; v <= 19990; ++v) ASSERT_TRUE(log.erase(v));
  EXPECT_LE(store.allocatedBytes(), empty + 2 * KestShard::kChunkSize);
  EXPECT_EQ(versions(log).front(), 19991u);
}

}  // namespace
}  // namespace ShardTest
