#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <deque>
#include <map>
#include <random>

#include "KestShard/Atomics.h"
#include "ShardTestSupport.h"

namespace ShardTest {
namespace {

// A deterministic stream of inserts, replaces and deletes on a keyed collection and of
// appends and deletes of the oldest on a log; a killed writer is compared against it.
struct Model {
  std::map<uint32_t, uint64_t> records;
  std::deque<uint64_t> log;

  struct Op {
    enum Kind { put, erase, append, trim } kind;
    uint32_t id;
  };
  static Op opAt(std::mt19937& rng) {
    uint32_t r = rng() % 10, id = rng() % 1500;
    if (r < 5) return {Op::put, id};
    if (r < 7) return {Op::erase, id};
    if (r < 9) return {Op::append, id};
    return {Op::trim, id};
  }
  void apply(const Op& op, uint64_t index) {
    switch (op.kind) {
      case Op::put:
        records[op.id] = index;
        break;
      case Op::erase:
        records.erase(op.id);
        break;
      case Op::append:
        log.push_back(index + 1);
        break;
      case Op::trim:
        if (!log.empty()) log.pop_front();
        break;
    }
  }
};

void applyToShard(TestShard& shard, const Model::Op& op, uint64_t index, const Model& before) {
  switch (op.kind) {
    case Model::Op::put:
      shard.records.insertOrReplace(Record::of(op.id, index));
      break;
    case Model::Op::erase:
      shard.records.erase(Record::of(op.id, 0).key);
      break;
    case Model::Op::append:
      shard.log.insertOrReplace(LogRecord::of(index + 1));
      break;
    case Model::Op::trim:
      if (!before.log.empty()) shard.log.erase(before.log.front());
      break;
  }
}

std::map<uint32_t, uint64_t> recordsOf(TestShard& shard) {
  std::map<uint32_t, uint64_t> out;
  for (auto it = shard.records.begin(); it != shard.records.end(); ++it) {
    EXPECT_TRUE(it->whole()) << "torn record for key " << it->key.id;
    out[it->key.id] = it->generation;
  }
  return out;
}

std::deque<uint64_t> logOf(TestShard& shard) {
  std::deque<uint64_t> out;
  for (auto it = shard.log.begin(); it != shard.log.end(); ++it) {
    EXPECT_TRUE(it->whole()) << "torn log record " << it->version;
    out.push_back(it->version);
  }
  return out;
}

class CrashTest : public ::testing::TestWithParam<int> {
 protected:
  TempRoot root;
};

TEST_P(CrashTest, WriterKilledAnywhereLeavesEveryRecordOldOrNewAndLosesNothingCompleted) {
  const int seed = GetParam();
  auto* completed = static_cast<std::atomic<uint64_t>*>(mmap(nullptr, sizeof(std::atomic<uint64_t>),
                                                             PROT_READ | PROT_WRITE,
                                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  new (completed) std::atomic<uint64_t>(0);
  const uint64_t target = 2000 + uint64_t(seed) * 3517 % 30000;

  pid_t child = fork();
  if (child == 0) {
    auto shard = mountTestShard("crash", 2048, 100000);
    std::mt19937 rng(seed);
    Model model;
    for (uint64_t i = 0;; ++i) {
      Model::Op op = Model::opAt(rng);
      applyToShard(*shard, op, i, model);
      model.apply(op, i);
      completed->store(i + 1, std::memory_order_release);
    }
  }
  int status = 0;
  while (completed->load(std::memory_order_acquire) < target) {
    ASSERT_EQ(waitpid(child, &status, WNOHANG), 0) << "the writer died on its own";
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  const uint64_t done = completed->load();

  // Everything up to `done` completed; operation `done` may have been in flight.
  std::mt19937 rng(seed);
  Model before;
  for (uint64_t i = 0; i < done; ++i) before.apply(Model::opAt(rng), i);
  Model after = before;
  after.apply(Model::opAt(rng), done);

  auto shard = mountTestShard("crash", 2048, 100000);
  auto records = recordsOf(*shard);
  auto log = logOf(*shard);
  EXPECT_TRUE(records == before.records || records == after.records) << "after " << done << " ops";
  EXPECT_TRUE(log == before.log || log == after.log) << "after " << done << " ops";
  EXPECT_EQ(shard->records.count(), records.size());
  EXPECT_EQ(shard->log.count(), log.size());
  for (const auto& repair : shard->records.store().mountRepairs())
    ADD_FAILURE() << "after " << done << " ops: " << repair;
  for (const auto& repair : shard->log.store().mountRepairs())
    ADD_FAILURE() << "after " << done << " ops: " << repair;
  for (auto [id, generation] : records) {
    ASSERT_EQ(*shard->records.find(Record::of(id, 0).key), Record::of(id, generation));
  }
  // And it goes on working, also in the slots the killed writer was filling.
  for (uint64_t v = done + 10; v < done + 20; ++v) {
    shard->records.insertOrReplace(Record::of(uint32_t(9000 + v - done), v));
    shard->log.insertOrReplace(LogRecord::of(v));
    ASSERT_EQ(*shard->records.find(Record::of(uint32_t(9000 + v - done), 0).key),
              Record::of(uint32_t(9000 + v - done), v));
    ASSERT_TRUE(shard->log.find(v).has_value());
  }
  munmap(completed, sizeof(std::atomic<uint64_t>));
}

INSTANTIATE_TEST_SUITE_P(KillPoints, CrashTest, ::testing::Range(1, 33));

// The same promise at every single publishing store rather than at random times: inserts of
// new keys, replaces, and erases (many of them of records in the middle of a chain), each
// stopped at each of its stores. A stop is a clean state for the next mount, never damage.
TEST(KillPointSweep, AStopAtAnyStoreOfAChangeLeavesOldOrNewAndNothingToRepair) {
  TempRoot root;
  constexpr uint32_t kPresent = 700;  // of a capacity of 1024: chains of several records
  struct Op {
    enum { insert, replace, erase } kind;
    uint32_t id;
  };
  std::vector<Op> ops;
  for (uint32_t i = 0; i < 8; ++i) ops.push_back({Op::insert, 5000 + i});
  for (uint32_t i = 0; i < 8; ++i) ops.push_back({Op::replace, i * 37});
  for (uint32_t i = 0; i < 40; ++i) ops.push_back({Op::erase, 3 + i * 17});
  auto apply = [](std::map<uint32_t, uint64_t>& model, const Op& op) {
    if (op.kind == Op::erase)
      model.erase(op.id);
    else
      model[op.id] = 1;
  };
  std::map<uint32_t, uint64_t> initial;
  for (uint32_t id = 0; id < kPresent; ++id) initial[id] = 0;

  auto* completed = static_cast<std::atomic<uint32_t>*>(mmap(nullptr, sizeof(std::atomic<uint32_t>),
                                                             PROT_READ | PROT_WRITE,
                                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  bool finished = false;
  for (uint32_t stop = 1; !finished; ++stop) {
    const std::string path = "sweep" + std::to_string(stop);
    new (completed) std::atomic<uint32_t>(0);
    pid_t child = fork();
    if (child == 0) {
      auto shard = mountTestShard(path, 1024, 64);
      for (uint32_t id = 0; id < kPresent; ++id) shard->records.insertOrReplace(Record::of(id, 0));
      static uint32_t countdown;
      countdown = stop;
      KestShard::publishHook = []() noexcept {
        if (--countdown == 0) raise(SIGKILL);
      };
      for (const Op& op : ops) {
        if (op.kind == Op::erase)
          shard->records.erase(Record::of(op.id, 0).key);
        else
          shard->records.insertOrReplace(Record::of(op.id, 1));
        completed->fetch_add(1);
      }
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    ASSERT_TRUE(finished || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL))
        << "stop " << stop;

    const uint32_t done = completed->load();
    std::map<uint32_t, uint64_t> before = initial;
    for (uint32_t i = 0; i < done; ++i) apply(before, ops[i]);
    std::map<uint32_t, uint64_t> after = before;
    if (done < ops.size()) apply(after, ops[done]);
    {
      auto shard = mountTestShard(path, 1024, 64);
      for (const auto& repair : shard->records.store().mountRepairs()) {
        ADD_FAILURE() << "stop " << stop << " in op " << done << ": " << repair;
      }
      auto records = recordsOf(*shard);
      EXPECT_TRUE(records == before || records == after) << "stop " << stop << " in op " << done;
      EXPECT_EQ(shard->records.count(), records.size()) << "stop " << stop;
    }
    unmount(path);
  }
  munmap(completed, sizeof(std::atomic<uint32_t>));
}

}  // namespace
}  // namespace ShardTest
