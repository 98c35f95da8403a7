#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "Kest/HashMap.h"

namespace {

using Map = Kest::HashMap2018<uint64_t, int>;

template <class M>
std::vector<uint64_t> keysInOrder(const M& m) {
  std::vector<uint64_t> out;
  for (const auto& [k, v] : m) out.push_back(k);
  return out;
}

// A weak hasher: its hash is the key's low bits, unmixed.
struct IdentityHasher {
  uint32_t operator()(const uint64_t& key, uint32_t) const noexcept { return uint32_t(key); }
};
// The worst hasher: every key collides on `hash`.
struct ConstantHasher {
  uint32_t hash = 0;
  uint32_t operator()(const uint64_t&, uint32_t) const noexcept { return hash; }
};

// --- Basic operations ---

TEST(HashMap2018, InsertFindReplaceAndErase) {
  Map m(1);
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.find(5), m.end());
  EXPECT_FALSE(m.erase(5));
  EXPECT_TRUE(m.insertOrReplace(5, 50).second);
  EXPECT_TRUE(m.insertOrReplace(6, 60).second);
  auto [it, inserted] = m.insertOrReplace(5, 55);
  EXPECT_FALSE(inserted);
  EXPECT_EQ(it->second, 55);
  EXPECT_EQ(m.size(), 2u);
  EXPECT_EQ(m.find(6)->second, 60);
  m.find(6)->second = 66;
  EXPECT_EQ(m.find(6)->second, 66);
  EXPECT_TRUE(m.contains(5));
  EXPECT_TRUE(m.erase(5));
  EXPECT_FALSE(m.contains(5));
  EXPECT_EQ(m.size(), 1u);
  m.clear();
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.begin(), m.end());
  EXPECT_TRUE(m.insertOrReplace(5, 1).second) << "usable after clear";
}

TEST(HashMap2018, GrowsToManyElementsAndFindsEveryOne) {
  Map m(2);
  for (uint64_t k = 0; k < 100000; ++k) m.insertOrReplace(k * 7919, int(k));
  EXPECT_EQ(m.size(), 100000u);
  for (uint64_t k = 0; k < 100000; ++k) {
    auto it = m.find(k * 7919);
    ASSERT_NE(it, m.end()) << k;
    ASSERT_EQ(it->second, int(k));
  }
  EXPECT_FALSE(m.contains(1));
  const auto order = keysInOrder(m);
  EXPECT_EQ(std::set<uint64_t>(order.begin(), order.end()).size(), 100000u);
}

TEST(HashMap2018, CopiesAreIndependentAndMovesLeaveAnEmptyMap) {
  Map a(3);
  for (uint64_t k = 0; k < 100; ++k) a.insertOrReplace(k, int(k));
  Map b = a;
  b.erase(1);
  b.insertOrReplace(2, -2);
  EXPECT_EQ(a.size(), 100u);
  EXPECT_EQ(a.find(2)->second, 2);
  EXPECT_EQ(b.size(), 99u);
  Map c = std::move(b);
  EXPECT_EQ(c.size(), 99u);
  EXPECT_EQ(c.find(2)->second, -2);
  EXPECT_TRUE(b.empty());  // NOLINT(bugprone-use-after-move): moved-from state is defined
  EXPECT_EQ(b.find(2), b.end());
}

// --- Order ---

TEST(HashMap2018, OrderDependsOnlyOnTheKeysAndTheSeed) {
  Map grown(4), reserved(4), churned(4);
  reserved.reserve(5000);
  for (uint64_t k = 0; k < 300; ++k) {
    grown.insertOrReplace(k, 0);
    reserved.insertOrReplace(299 - k, 0);
  }
  for (uint64_t k = 0; k < 5000; ++k) churned.insertOrReplace(k, 0);  // grows a lot larger
  for (uint64_t k = 300; k < 5000; ++k) churned.erase(k);
  EXPECT_EQ(keysInOrder(grown), keysInOrder(reserved));
  EXPECT_EQ(keysInOrder(grown), keysInOrder(churned));
}

TEST(HashMap2018, TheSaltChangesTheOrder) {
  Map a(10), b(11);
  for (uint64_t k = 0; k < 64; ++k) {
    a.insertOrReplace(k, 0);
    b.insertOrReplace(k, 0);
  }
  EXPECT_NE(a.seed(), b.seed());
  EXPECT_NE(keysInOrder(a), keysInOrder(b));
}

TEST(HashMap2018DeathTest, VeskHashSeedFixesTheProcessSeed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process reads the variable
  setenv("VESK_HASH_SEED", "0x2018", 1);
  EXPECT_EXIT(std::exit(Kest::hashSeed() == 0x2018 ? 0 : 1), testing::ExitedWithCode(0), "");
  unsetenv("VESK_HASH_SEED");
}

// --- Positions ---

TEST(HashMap2018, FindOrNextAndFindAfterFollowTheOrder) {
  Map m(5);
  for (uint64_t k = 0; k < 50; k += 2) m.insertOrReplace(k, 0);
  const auto order = keysInOrder(m);
  EXPECT_EQ(m.findOrNext(order[10])->first, order[10]);
  EXPECT_EQ(m.findAfter(order[10])->first, order[11]);
  EXPECT_EQ(m.findAfter(order.back()), m.end());
  m.erase(order[10]);
  EXPECT_EQ(m.findOrNext(order[10])->first, order[11]);
  EXPECT_EQ(m.findAfter(order[10])->first, order[11]);
  for (uint64_t absent = 1; absent < 50; absent += 2) {
    // Inserting an absent key puts it right before the element findOrNext named.
    auto next = m.findOrNext(absent);
    const bool atEnd = next == m.end();
    const uint64_t nextKey = atEnd ? 0 : next->first;
    m.insertOrReplace(absent, 1);
    auto after = m.findAfter(absent);
    EXPECT_EQ(after == m.end(), atEnd) << absent;
    if (!atEnd && after != m.end()) {
      EXPECT_EQ(after->first, nextKey) << absent;
    }
    m.erase(absent);
  }
}

TEST(HashMap2018, EraseDuringIterationReturnsTheNextElement) {
  Map m(6);
  for (uint64_t k = 0; k < 1000; ++k) m.insertOrReplace(k, int(k));
  const auto order = keysInOrder(m);
  std::vector<uint64_t> visited, kept;
  for (auto it = m.begin(); it != m.end();) {
    visited.push_back(it->first);
    if (it->first % 3 == 0) {
      it = m.erase(it);
    } else {
      kept.push_back(it->first);
      ++it;
    }
  }
  EXPECT_EQ(visited, order);
  EXPECT_EQ(keysInOrder(m), kept);
  EXPECT_EQ(m.size(), kept.size());
}

TEST(HashMap2018, AWalkHeldAsAKeySurvivesInsertsGrowthAndErases) {
  Map m(7);
  for (uint64_t k = 0; k < 200; ++k) m.insertOrReplace(k, 0);
  const auto order = keysInOrder(m);
  std::set<uint64_t> erased;
  std::vector<uint64_t> seen;
  uint64_t extra = 1000000;
  for (auto it = m.begin(); it != m.end();) {
    const uint64_t at = it->first;
    if (at < 200) {
      seen.push_back(at);
      for (int i = 0; i < 30; ++i) m.insertOrReplace(extra++, 1);  // grows the table repeatedly
      const uint64_t victim = (at * 37) % 200;                      // sometimes `at` itself
      if (m.erase(victim)) erased.insert(victim);
    }
    it = m.findAfter(at);
  }
  std::vector<uint64_t> expected;
  for (uint64_t k : order) {
    // Every original key is seen once, in order, unless erased before the walk reached it.
    if (std::find(seen.begin(), seen.end(), k) != seen.end() || !erased.count(k)) expected.push_back(k);
  }
  EXPECT_EQ(seen, expected);
  EXPECT_GT(seen.size(), 100u);
}

// --- Against a reference ---

template <class M>
void checkAgainstModel(M& m, uint64_t keyRange, int ops, uint32_t rngSeed) {
  std::map<uint64_t, int> model;
  std::mt19937_64 rng(rngSeed);
  std::vector<uint64_t> lastOrder;
  for (int op = 0; op < ops; ++op) {
    const uint64_t k = rng() % keyRange;
    switch (rng() % 4) {
      case 0:
      case 1:
        ASSERT_EQ(m.insertOrReplace(k, op).second, model.insert_or_assign(k, op).second) << op;
        break;
      case 2:
        ASSERT_EQ(m.erase(k), model.erase(k) == 1) << op;
        break;
      default: {
        auto it = m.find(k);
        auto expected = model.find(k);
        ASSERT_EQ(it == m.end(), expected == model.end()) << op;
        if (it != m.end()) {
          ASSERT_EQ(it->second, expected->second) << op;
        }
      }
    }
    if (op % 4999 == 0) {
      // The relative order of the keys that stayed never changes.
      const auto order = keysInOrder(m);
      std::vector<uint64_t> stayed;
      for (uint64_t key : lastOrder) {
        if (model.count(key)) stayed.push_back(key);
      }
      std::vector<uint64_t> now;
      const std::set<uint64_t> before(lastOrder.begin(), lastOrder.end());
      for (uint64_t key : order) {
        if (before.count(key)) now.push_back(key);
      }
      ASSERT_EQ(now, stayed) << op;
      lastOrder = order;
    }
  }
  ASSERT_EQ(m.size(), model.size());
  const auto order = keysInOrder(m);
  ASSERT_EQ(std::set<uint64_t>(order.begin(), order.end()),
            [&] {
              std::set<uint64_t> keys;
              for (const auto& [key, value] : model) keys.insert(key);
              return keys;
            }());
  for (const auto& [key, value] : model) ASSERT_EQ(m.find(key)->second, value);
}

TEST(HashMap2018, RandomOperationsMatchStdMap) {
  Map m(8);
  checkAgainstModel(m, 5000, 200000, 1);
}

TEST(HashMap2018, AWeakHasherStillMatchesStdMap) {
  Kest::HashMap2018<uint64_t, int, IdentityHasher> m(9);
  checkAgainstModel(m, 1 << 20, 100000, 2);
}

TEST(HashMap2018, KeysThatAllCollideStayCorrectWhereverTheirHomeIs) {
  // One home for every key: a run as long as the map, which must spill into the tail.
  for (uint32_t hash : {0u, 1u, 0x12345678u, 0x80000000u, 0xc0000000u, 0xfffffff0u, 0xffffffffu}) {
    Kest::HashMap2018<uint64_t, int, ConstantHasher> m(0, ConstantHasher{hash});
    checkAgainstModel(m, 600, 6000, hash);
    const auto order = keysInOrder(m);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end())) << "equal hashes order by key";
  }
}

}  // namespace
