// An agent killed with SIGKILL in the middle of a stream of entry-log changes leaves an
// entry log that remounts with every returned change readable.

#include <signal.h>

#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string_view>

#include "KestShard/Atomics.h"
#include "KestShard/Env.h"

#include "VeskTapAgg/EntryLogTestSupport.h"

namespace VeskTest {
namespace {

using Traits = VeskTapAgg::DefaultFwdTcamEntryTraits;
using Agent = EntryLogAgent<Traits>;
using Asic::LogVersion;
using Asic::UnitId;

enum class Op { write, del, tableDel, cleanup };
struct Step {
  Op op;
  uint32_t key;
  uint16_t variant;
  uint64_t keepNewest;  // cleanup: leave this many newest changes in the log
};

// The stream the child runs, the same for a seed in both processes.
std::vector<Step> stream(uint32_t seed, size_t length) {
  std::mt19937 rng(seed);
  std::vector<Step> steps;
  for (size_t i = 0; i < length; ++i) {
    const uint32_t dice = rng() % 100;
    const Op op = dice < 68   ? Op::write
                  : dice < 88 ? Op::del
                  : dice < 90 ? Op::tableDel
                              : Op::cleanup;
    steps.push_back({op, uint32_t(rng() % 64), uint16_t(rng()), rng() % 40});
  }
  return steps;
}

// What the entry log should hold after a prefix of the stream.
struct Model {
  struct Record {
    bool deleted;
    uint64_t version;
  };
  std::map<uint32_t, Record> config;
  std::map<uint64_t, std::pair<uint8_t, uint32_t>> changes;  // version -> kind, key
  uint64_t version = 0;
  uint64_t mark = 0;

  void apply(const Step& s) {
    switch (s.op) {
      case Op::write:
        config[s.key] = {false, ++version};
        changes[version] = {0, s.key};
        break;
      case Op::del:
        if (!config.count(s.key)) return;
        config[s.key] = {true, ++version};
        changes[version] = {1, s.key};
        break;
      case Op::tableDel:
        ++version;
        for (auto& [key, record] : config) {
          if (!record.deleted) record = {true, version};
        }
        changes[version] = {2, 0};
        break;
      case Op::cleanup:
        cleanup(version > s.keepNewest ? version - s.keepNewest : 0);
        break;
    }
  }
  void cleanup(uint64_t upTo) {
    const uint64_t from = mark == 0 ? 0 : mark;
    if (mark == 0 || upTo >= mark) {
      for (auto it = changes.lower_bound(from); it != changes.end() && it->first <= upTo;) {
        retire(it->first, it->second);
        it = changes.erase(it);
      }
    }
    mark = upTo;
  }
  void retire(uint64_t v, std::pair<uint8_t, uint32_t> change) {
    if (change.first == 1 && config.count(change.second) && config[change.second].version == v) {
      config.erase(change.second);
    }
    if (change.first == 2)
      std::erase_if(config, [&](const auto& kv) { return kv.second.version == v; });
  }
};

void runStream(const std::vector<Step>& steps, int reportFd) {
  Agent agent;
  auto& log = agent.mounted();
  for (uint32_t i = 0; i < steps.size(); ++i) {
    const Step& s = steps[i];
    switch (s.op) {
      case Op::write:
        agent.write(s.key, s.variant);
        break;
      case Op::del:
        agent.del(s.key);
        break;
      case Op::tableDel:
        log.tableDel(nullptr, UnitId(0));
        break;
      case Op::cleanup: {
        const uint64_t v = log.tableVersion().value();
        log.cleanupEntryLog(LogVersion(v > s.keepNewest ? v - s.keepNewest : 0));
        break;
      }
    }
    if (write(reportFd, &i, sizeof i) != sizeof i) _exit(3);
  }
}

// The keys a step may leave half done: its own, or all for a unit-wide step.
bool touches(const Step& s, uint32_t key) {
  return s.op == Op::tableDel || s.op == Op::cleanup || s.key == key;
}

class EntryLogCrashTest : public ::testing::TestWithParam<uint32_t> {
 protected:
  TempShmRoot root;
};

TEST_P(EntryLogCrashTest, EveryReturnedChangeSurvivesAKill) {
  const uint32_t killAfter = GetParam();
  const auto steps = stream(killAfter, 4000);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    runStream(steps, fds[1]);
    _exit(0);
  }
  close(fds[1]);
  std::optional<uint32_t> lastReturned;
  uint32_t index;
  while (read(fds[0], &index, sizeof index) == sizeof index) {
    lastReturned = index;
    if (index + 1 >= killAfter) break;
  }
  kill(child, SIGKILL);
  while (read(fds[0], &index, sizeof index) == sizeof index) lastReturned = index;
  close(fds[0]);
  waitpid(child, nullptr, 0);

  Model before;  // after every returned step
  const size_t returned = lastReturned ? *lastReturned + 1 : 0;
  for (size_t i = 0; i < returned; ++i) before.apply(steps[i]);
  Model after = before;  // and the one that may have been under way
  const std::optional<Step> inFlight =
      returned < steps.size() ? std::optional<Step>(steps[returned]) : std::nullopt;
  if (inFlight) after.apply(*inFlight);

  Agent agent;
  auto& log = agent.mounted();
  const auto versions = agent.changeVersions();
  if (!versions.empty()) {
    EXPECT_EQ(log.tableVersion().value(), versions.back());
  }
  EXPECT_GE(log.tableVersion().value(), before.version);
  EXPECT_LE(log.tableVersion().value(), after.version);

  for (uint32_t key = 0; key < 64; ++key) {
    const LogVersion stored = log.entryLogVersion(agent.key(key), UnitId(0));
    const bool live = log.entryHas(agent.key(key), UnitId(0));
    auto matches = [&](const Model& m) {
      auto it = m.config.find(key);
      if (it == m.config.end()) return !stored.valid();
      return stored.value() == it->second.version && live == !it->second.deleted;
    };
    if (inFlight && touches(*inFlight, key)) {
      EXPECT_TRUE(matches(before) || matches(after)) << "key " << key;
    } else {
      EXPECT_TRUE(matches(before)) << "key " << key << " after " << returned << " steps";
    }
  }
  uint32_t tombstones = 0;
  log.tableConfigShard(UnitId(0))->swTableEntriesColl().forEach(
      [&](const auto& record) { tombstones += record.isDeleted ? 1 : 0; });
  EXPECT_EQ(log.entrysInDeletion(UnitId(0)), tombstones) << "the tombstone count was kept";
  // Changes the hardware side has not been told to drop are all still there.
  const uint64_t keptFrom = std::max(before.mark, after.mark) + 1;
  for (const auto& [version, change] : before.changes) {
    if (version < keptFrom) continue;
    const auto record = log.tableEntryLog()->entryLogConfig(LogVersion(version));
    EXPECT_EQ(record.logVersion, LogVersion(version));
    EXPECT_EQ(record.deleteKind, change.first);
  }
}

INSTANTIATE_TEST_SUITE_P(KillPoints, EntryLogCrashTest,
                         ::testing::Values(1u, 9u, 60u, 250u, 900u, 2200u, 3999u));

// The narrowest window: the change is in the log but its version is not stored yet.
TEST(EntryLogRemountTest, AChangeLoggedButNotCountedIsCountedAtMount) {
  TempShmRoot root;
  ASSERT_EQ(inChild([] {
              Agent agent;
              agent.mounted();
              agent.write(1);
              agent.write(2);
              agent.log().tableEntryLog()->entryLogConfigColl().control()->scratchpadIs(1);
            }),
            0);
  Agent agent;
  EXPECT_EQ(agent.log().tableVersion(), LogVersion(2));
  EXPECT_EQ(agent.log().tableEntryLog()->entryLogConfigColl().control()->scratchpad(), 2u);
  agent.mounted();
  EXPECT_EQ(agent.write(3), LogVersion(3)) << "version 2 is not given out twice";
}

// Stops the process (SIGKILL) when the change log asks for more space: by then the
// change being appended has already been written to the unit's configuration.
class KillAtChangeLogGrowth : public KestShard::EnvWrapper {
 public:
  KillAtChangeLogGrowth() : EnvWrapper(KestShard::Env::system()) {}
  int openAt(int d, const char* name, int flags, mode_t mode) override {
    const int fd = EnvWrapper::openAt(d, name, flags, mode);
    if (std::string_view(name).starts_with("entryLogConfig")) logFds_.push_back(fd);
    return fd;
  }
  int reserve(int fd, off_t offset, off_t len) override {
    if (armed && std::find(logFds_.begin(), logFds_.end(), fd) != logFds_.end()) raise(SIGKILL);
    return EnvWrapper::reserve(fd, offset, len);
  }
  // A closed descriptor (the namespace's record of the log, say) is no longer the log's
  // when its number comes back.
  int close(int fd) override {
    logFds_.erase(std::remove(logFds_.begin(), logFds_.end(), fd), logFds_.end());
    return EnvWrapper::close(fd);
  }
  bool armed = false;

 private:
  std::vector<int> logFds_;
};

// A kill between a change's configuration write and its change-log append: after the
// remount every configuration record is named by the change of its version (the change
// is finished under a new version), and no version names two records.
TEST(EntryLogRemountTest, AConfigurationWriteWithoutItsChangeIsLoggedAtMount) {
  TempShmRoot root;
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    static KillAtChangeLogGrowth env;
    KestShard::Env::currentIs(&env);
    Agent agent;
    agent.mounted();
    agent.write(0);
    env.armed = true;
    for (uint32_t n = 1;; ++n) agent.write(n % 4000);  // until the log grows
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

  Agent agent;
  auto& log = agent.mounted();
  std::map<uint64_t, uint32_t> changeKeys;  // version -> key id, from the change log
  for (const auto& c : agent.changes()) {
    uint32_t id;
    std::memcpy(&id, &c.key, sizeof id);
    changeKeys[c.logVersion.value()] = id;
  }
  std::set<uint64_t> versions;
  uint32_t records = 0;
  log.tableConfigShard(UnitId(0))->swTableEntriesColl().forEach([&](const auto& record) {
    uint32_t id;
    std::memcpy(&id, &record.logEntry.entryKey, sizeof id);
    const uint64_t v = record.logVersion.value();
    ++records;
    EXPECT_TRUE(versions.insert(v).second) << "version " << v << " names two records";
    ASSERT_TRUE(changeKeys.count(v)) << "key " << id << " at version " << v << " has no change";
    EXPECT_EQ(changeKeys[v], id);
    EXPECT_LE(v, log.tableVersion().value());
  });
  EXPECT_GT(records, 1u);
  const uint64_t next = agent.write(5000).value();
  EXPECT_EQ(next, log.tableVersion().value());
  EXPECT_FALSE(versions.count(next)) << "a new change reuses no version";
}

// The kill-point sweep: a writer stopped at the Nth publishing store of a write, a replace,
// a delete, a unit delete or a cleanup, for every N until the change completes. After each
// stop the remount holds every key as before or after the change, every record is named
// by a change of its version (but after a cleanup, which drops changes), and a new change
// takes a version no record or change holds.
enum class SweptChange { write, replace, del, tableDel, cleanup };

class KillPointSweepTest : public ::testing::TestWithParam<SweptChange> {
 protected:
  static void prepare(Agent& agent) {
    agent.mounted();
    for (uint32_t key = 0; key < 12; ++key) agent.write(key, 1);
    agent.del(3);
  }
  static void change(Agent& agent, SweptChange kind) {
    auto& log = agent.log();
    switch (kind) {
      case SweptChange::write:
        agent.write(20, 2);
        break;
      case SweptChange::replace:
        agent.write(5, 2);
        break;
      case SweptChange::del:
        agent.del(7);
        break;
      case SweptChange::tableDel:
        log.tableDel(nullptr, UnitId(0));
        break;
      case SweptChange::cleanup:
        log.cleanupEntryLog(log.tableVersion());
        break;
    }
  }
  static void checkRemount(SweptChange kind, uint32_t n);
  TempShmRoot root;
};

TEST_P(KillPointSweepTest, EveryStoreOfAChangeIsAPlaceToStop) {
  const SweptChange kind = GetParam();
  bool completed = false;
  for (uint32_t n = 1; !completed && n < 2000; ++n) {
    std::filesystem::remove_all(root.path());
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      Agent agent;
      prepare(agent);
      static uint32_t countdown;
      countdown = n;
      KestShard::publishHook = []() noexcept {
        if (--countdown == 0) raise(SIGKILL);
      };
      change(agent, kind);
      KestShard::publishHook = nullptr;
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    completed = WIFEXITED(status);
    ASSERT_TRUE(completed || WTERMSIG(status) == SIGKILL) << "stop " << n;

    // Checked in a process of its own, as a restarted agent: mounts are process-wide.
    EXPECT_EQ(inChild([&] { checkRemount(kind, n); }), 0) << "after stop " << n;
  }
  EXPECT_TRUE(completed) << "the change never completed";
}

void KillPointSweepTest::checkRemount(SweptChange kind, uint32_t n) {
  {
    Agent agent;
    auto& log = agent.mounted();
    std::map<uint64_t, typename Traits::LogShardEntry> changes;
    uint64_t newest = log.tableVersion().value();
    for (const auto& c : agent.changes()) {
      changes[c.logVersion.value()] = c;
      newest = std::max(newest, c.logVersion.value());
    }
    uint32_t live = 0;
    log.tableConfigShard(UnitId(0))->swTableEntriesColl().forEach([&](const auto& record) {
      const uint64_t v = record.logVersion.value();
      newest = std::max(newest, v);
      live += record.isDeleted ? 0 : 1;
      if (kind == SweptChange::cleanup) return;
      ASSERT_TRUE(changes.count(v))
          << "stop " << n << ": a record at version " << v << " has no change";
      const auto& c = changes[v];
      if (c.deleteKind != uint8_t(VeskTapAgg::DeleteKind::unitDelete)) {
        EXPECT_EQ(std::memcmp(&c.key, &record.logEntry.entryKey, sizeof c.key), 0) << "stop " << n;
      } else {
        EXPECT_TRUE(record.isDeleted) << "stop " << n;
      }
    });
    switch (kind) {
      case SweptChange::write:
        EXPECT_TRUE(live == 11 || live == 12) << "stop " << n;
        break;
      case SweptChange::replace:
      case SweptChange::cleanup:
        EXPECT_EQ(live, 11u) << "stop " << n;
        break;
      case SweptChange::del:
        EXPECT_TRUE(live == 11 || live == 10) << "stop " << n;
        break;
      case SweptChange::tableDel:
        EXPECT_TRUE(live == 11 || live == 0) << "stop " << n;
        break;
    }
    EXPECT_GT(agent.write(30).value(), newest) << "stop " << n << ": a version is issued twice";
  }
}

INSTANTIATE_TEST_SUITE_P(Changes, KillPointSweepTest,
                         ::testing::Values(SweptChange::write, SweptChange::replace,
                                           SweptChange::del, SweptChange::tableDel,
                                           SweptChange::cleanup));

}  // namespace
}  // namespace VeskTest
