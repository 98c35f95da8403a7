#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "Kest/HashMap.h"

namespace {

using Map = Kest::HashMap2018<uint64_t, int>;

std::vector<uint64_t> keys(const Map& m) {
  std::vector<uint64_t> out;
  for (auto& [k, v] : m) out.push_back(k);
  return out;
}

TEST(HashMap2018, RandomOperationsMatchAnOrderedMap) {
  Map m(0x1234);
  std::map<uint64_t, int> model;
  std::mt19937 rng(3);
  for (int op = 0; op < 50000; ++op) {
    uint64_t k = rng() % 3000;
    if (rng() % 3) {
      EXPECT_EQ(m.insertOrReplace(k, op).second, model.insert_or_assign(k, op).second);
    } else {
      EXPECT_EQ(m.erase(k), model.erase(k) == 1);
    }
  }
  ASSERT_EQ(m.size(), model.size());
  for (auto [k, v] : model) {
    auto it = m.find(k);
    ASSERT_NE(it, m.end());
    EXPECT_EQ(it->second, v);
  }
  auto walked = keys(m);
  EXPECT_EQ(std::set<uint64_t>(walked.begin(), walked.end()).size(), model.size());
}

TEST(HashMap2018, OrderDoesNotChangeWhenTheTableGrows) {
  Map m(7);
  for (uint64_t k = 0; k < 40; ++k) m.insertOrReplace(k, 0);
  auto before = keys(m);
  for (uint64_t k = 1000; k < 5000; ++k) m.insertOrReplace(k, 0);  // several doublings
  for (uint64_t k = 1000; k < 5000; ++k) m.erase(k);
  EXPECT_EQ(keys(m), before);
}

TEST(HashMap2018, AKeyIsAPositionThroughInsertsErasesAndGrowth) {
  Map m(9);
  for (uint64_t k = 0; k < 100; ++k) m.insertOrReplace(k, 0);
  auto order = keys(m);
  // Walk by key: between steps, insert many keys (growing the table) and erase some.
  std::vector<uint64_t> seen;
  uint64_t extra = 10000;
  for (auto it = m.begin(); it != m.end();) {
    uint64_t at = it->first;
    if (at < 100) {
      seen.push_back(at);
      for (int i = 0; i < 20; ++i) m.insertOrReplace(extra++, 1);
    }
    it = m.findOrNext(at);
    ASSERT_EQ(it->first, at);
    ++it;
  }
  EXPECT_EQ(seen, order);
  // Erasing the current element hands back the next one.
  size_t visited = 0;
  for (auto it = m.begin(); it != m.end(); ++visited) it = m.erase(it);
  EXPECT_EQ(visited, 100 + size_t(extra - 10000));
  EXPECT_TRUE(m.empty());
}

TEST(HashMap2018, SaltChangesTheOrder) {
  Map a(1), b(2);
  for (uint64_t k = 0; k < 64; ++k) {
    a.insertOrReplace(k, 0);
    b.insertOrReplace(k, 0);
  }
  EXPECT_NE(keys(a), keys(b));
  EXPECT_EQ(a.seed() ^ b.seed(), 3u);
}

TEST(HashMap2018, FindOrNextOfAnAbsentKeyLandsOnItsSuccessor) {
  Map m(5);
  for (uint64_t k = 0; k < 50; k += 2) m.insertOrReplace(k, 0);
  auto order = keys(m);
  m.erase(order[10]);
  EXPECT_EQ(m.findOrNext(order[10])->first, order[11]);
  EXPECT_EQ(m.find(order[10]), m.end());
}

}  // namespace
