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

// The keys of `order` that are in `keep`, in the order of `order`.
std::vector<uint64_t> restricted(const std::vector<uint64_t>& order,
                                 const std::set<uint64_t>& keep) {
  std::vector<uint64_t> out;
  for (uint64_t k : order) {
    if (keep.count(k)) out.push_back(k);
  }
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

// Inserts, replaces and erases are checked against std::map below; here what that does not do.
TEST(HashMap2018, AFoundValueChangesInPlaceAndAClearedMapIsUsedAgain) {
  Map m(1);
  EXPECT_EQ(m.insertOrReplace(5, 55).first->second, 55);
  m.find(5)->second = 66;
  EXPECT_EQ(m.find(5)->second, 66) << "a found value changes in place";
  EXPECT_TRUE(m.contains(5));
  m.clear();
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.begin(), m.end());
  EXPECT_TRUE(m.insertOrReplace(5, 1).second) << "usable after clear";
}

TEST(HashMap2018, CopiesAreIndependent) {
  Map a(3);
  for (uint64_t k = 0; k < 100; ++k) a.insertOrReplace(k, int(k));
  Map b = a;
  b.erase(1);
  b.insertOrReplace(2, -2);
  EXPECT_EQ(a.size(), 100u);
  EXPECT_EQ(a.find(2)->second, 2);
  Map c = std::move(b);
  EXPECT_EQ(c.size(), 99u);
  EXPECT_EQ(c.find(2)->second, -2);
  EXPECT_FALSE(c.contains(1));
}

// --- Order ---

TEST(HashMap2018, OrderDependsOnlyOnTheKeysAndTheSeed) {
  Map grown(4), reserved(4), churned(4);
  reserved.reserve(5000);
  for (uint64_t k = 0; k < 300; ++k) {
    grown.insertOrReplace(k, 0);
    reserved.insertOrReplace(299 - k, 0);
  }
  for (uint64_t k = 0; k < 5000; ++k) churned.insertOrReplace(k, 0);  // grows far larger
  for (uint64_t k = 300; k < 5000; ++k) churned.erase(k);
  EXPECT_EQ(keysInOrder(grown), keysInOrder(reserved));
  EXPECT_EQ(keysInOrder(grown), keysInOrder(churned));
  Map otherSalt(5);
  for (uint64_t k = 0; k < 300; ++k) otherSalt.insertOrReplace(k, 0);
  EXPECT_NE(keysInOrder(grown), keysInOrder(otherSalt));
}

TEST(HashMap2018, TheSeedIsTheProcessSeedExclusiveOrTheSalt) {
  EXPECT_EQ(Map(4).seed(), Map::seedFor(Kest::hashSeed(), 4));
  std::mt19937 rng(11);
  for (int i = 0; i < 1000; ++i) {
    const uint32_t processSeed = rng(), a = rng(), b = rng();
    // Only processSeed ^ salt counts: another process seed with the matching salt agrees.
    ASSERT_EQ(Map::seedFor(processSeed, a), Map::seedFor(processSeed ^ a ^ b, b));
    if (a != b) {
      ASSERT_NE(Map::seedFor(processSeed, a), Map::seedFor(processSeed, b));
    }
  }
}

TEST(HashMap2018DeathTest, VeskHashSeedFixesTheProcessSeed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process reads the variable
  setenv("VESK_HASH_SEED", "0x2018", 1);
  EXPECT_EXIT(std::exit(Kest::hashSeed() == 0x2018 ? 0 : 1), testing::ExitedWithCode(0), "");
  unsetenv("VESK_HASH_SEED");
}

// --- Positions ---

// findOrNext and findAfter at `key`, and the place an insert of an absent key takes.
template <class M>
void checkPositions(M& m, uint64_t key, bool present) {
  auto at = m.findOrNext(key);
  auto after = m.findAfter(key);
  if (present) {
    ASSERT_EQ(at->first, key);
    ASSERT_EQ(after, std::next(at));
    return;
  }
  ASSERT_EQ(after, at) << "nothing lies between an absent key and what follows it";
  const bool atEnd = at == m.end();
  const uint64_t nextKey = atEnd ? 0 : at->first;
  m.insertOrReplace(key, 0);
  auto next = std::next(m.find(key));
  ASSERT_EQ(next == m.end(), atEnd);
  if (!atEnd) {
    ASSERT_EQ(next->first, nextKey);
  }
  m.erase(key);
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
}

TEST(HashMap2018, AWalkHeldAsAKeySurvivesInsertsGrowthAndErases) {
  Map m(7);
  for (uint64_t k = 0; k < 200; ++k) m.insertOrReplace(k, 0);
  const auto order = keysInOrder(m);
  std::set<uint64_t> erasedUnseen;
  std::vector<uint64_t> seen;
  uint64_t extra = 1000000, at = 0;
  for (auto it = m.begin(); it != m.end(); it = m.findAfter(at)) {
    at = it->first;
    if (at >= 200) continue;
    seen.push_back(at);
    for (int i = 0; i < 30; ++i) m.insertOrReplace(extra++, 1);  // grows the table repeatedly
    const uint64_t victim = (at * 37) % 200;                     // sometimes `at` itself
    if (m.erase(victim) && std::find(seen.begin(), seen.end(), victim) == seen.end()) {
      erasedUnseen.insert(victim);
    }
  }
  std::set<uint64_t> expected(order.begin(), order.end());
  for (uint64_t k : erasedUnseen) expected.erase(k);
  EXPECT_EQ(seen, restricted(order, expected)) << "each remaining key once, in order";
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
    switch (rng() % 5) {
      case 0:
      case 1:
        ASSERT_EQ(m.insertOrReplace(k, op).second, model.insert_or_assign(k, op).second) << op;
        break;
      case 2:
        ASSERT_EQ(m.erase(k), model.erase(k) == 1) << op;
        break;
      case 3:
        checkPositions(m, k, model.count(k) == 1);
        break;
      default:
        ASSERT_EQ(m.find(k) == m.end(), model.count(k) == 0) << op;
        if (model.count(k)) {
          ASSERT_EQ(m.find(k)->second, model[k]) << op;
        }
    }
    if (op % 4999 == 0) {
      // Keys that stayed keep their relative order, whatever happened around them.
      std::set<uint64_t> stayed;
      for (uint64_t key : lastOrder) {
        if (model.count(key)) stayed.insert(key);
      }
      const auto order = keysInOrder(m);
      ASSERT_EQ(restricted(order, stayed), restricted(lastOrder, stayed)) << op;
      lastOrder = order;
    }
  }
  ASSERT_EQ(m.size(), model.size());
  std::map<uint64_t, int> walked;
  for (const auto& [key, value] : m) walked.emplace(key, value);
  ASSERT_EQ(walked, model);
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
