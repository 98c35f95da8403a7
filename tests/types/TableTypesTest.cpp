// The conformance suite every table type passes: written once, run for all ten.
#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <vector>

#include "KestShard/Directory.h"
#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"
#include "TableTestSupport.h"
#include "support/TempShmRoot.h"
#include "types/TableShards.h"

namespace {

using VeskTest::patternedKey;

template <class Traits>
class TableTypeTest : public ::testing::Test {
 protected:
  using Key = typename Traits::EntryKey;

  static typename Traits::ConfigShardEntry configOf(uint8_t seed, uint64_t version,
                                                    bool deleted = false) {
    typename Traits::ConfigShardEntry r{};
    r.logEntry.entryKey = patternedKey<Key>(seed);
    r.logVersion = Asic::LogVersion(version);
    r.isDeleted = deleted;
    return r;
  }

  // A record default-constructed over storage full of garbage.
  template <class Record>
  static Record defaultOverGarbage() {
    alignas(Record) unsigned char storage[sizeof(Record)];
    std::memset(storage, 0xa5, sizeof storage);
    Record* r = new (storage) Record;
    return *r;
  }

  template <class Record>
  static void expectDefaultIsZero() {
    const Record r = defaultOverGarbage<Record>();
    EXPECT_TRUE(VeskTest::allBytesZero(r)) << typeid(Record).name();
    EXPECT_TRUE(r.isEq(Record{}));
    EXPECT_TRUE(r == Record());
  }

  template <class Shard>
  Nimbo::Ptr<Shard> mount(const Nimbo::String& path) {
    KestShard::MountInfo info(KestShard::KestShardType::writer);
    info.collectionInfoIs({"swTableEntries", 65536, false});
    info.collectionInfoIs({"entryLogConfig", 1000000, false});
    return KestSharedMem::mountShard<Shard>(
        KestSharedMem::EntityManager::getEntityManager("types", true), path, Shard::typeName, info);
  }

  VeskTest::TempShmRoot root;
};
TYPED_TEST_SUITE(TableTypeTest, VeskTest::AllTables);

TYPED_TEST(TableTypeTest, DefaultRecordsAreAllZeroAndEqualToValueInitializedOnes) {
  this->template expectDefaultIsZero<typename TypeParam::EntryKey>();
  this->template expectDefaultIsZero<typename TypeParam::Entry>();
  this->template expectDefaultIsZero<typename TypeParam::LogEntry>();
  this->template expectDefaultIsZero<typename TypeParam::ResourceKeys>();
  this->template expectDefaultIsZero<typename TypeParam::ConfigShardEntry>();
  this->template expectDefaultIsZero<typename TypeParam::LogShardEntry>();
}

TYPED_TEST(TableTypeTest, KeyHashDependsOnEveryByteAndOnTheSeed) {
  using Key = typename TypeParam::EntryKey;
  const Key key = patternedKey<Key>(3);
  const uint32_t base = key.hash(0x1234);
  EXPECT_EQ(key.hash(0x1234), base) << "the hash is a function of key and seed";
  EXPECT_NE(base, key.hash(0x1235));
  EXPECT_NE(Key{}.hash(0), Key{}.hash(1));
  for (size_t i = 0; i < sizeof(Key); ++i) {
    Key changed = key;
    reinterpret_cast<unsigned char*>(&changed)[i] ^= 0x40;
    EXPECT_NE(changed.hash(0x1234), base) << "byte " << i << " does not reach the hash";
  }
}

TYPED_TEST(TableTypeTest, KeyOrderingAgreesWithEqualityForKeysOneByteApart) {
  using Key = typename TypeParam::EntryKey;
  const Key key = patternedKey<Key>(11);
  const Key copy = key;
  EXPECT_TRUE(copy.isEq(key));
  EXPECT_TRUE((copy <=> key) == 0);
  for (size_t i = 0; i < sizeof(Key); ++i) {
    Key changed = key;
    reinterpret_cast<unsigned char*>(&changed)[i] += 1;
    EXPECT_FALSE(changed.isEq(key)) << "byte " << i;
    EXPECT_FALSE(changed == key) << "byte " << i;
    EXPECT_TRUE((changed <=> key) != 0) << "byte " << i;
    EXPECT_EQ((changed <=> key) < 0, (key <=> changed) > 0) << "byte " << i;
  }
}

TYPED_TEST(TableTypeTest, ConfigAndChangeRecordsCompareFieldByField) {
  using Config = typename TypeParam::ConfigShardEntry;
  const Config base = this->configOf(1, 10);
  EXPECT_TRUE(base.isEq(this->configOf(1, 10)));
  EXPECT_FALSE(base.isEq(this->configOf(2, 10)));
  EXPECT_FALSE(base.isEq(this->configOf(1, 11)));
  EXPECT_FALSE(base.isEq(this->configOf(1, 10, true)));
  Config other = base;
  other.rsrcKeys.reserved = 1;
  EXPECT_FALSE(base == other);

  typename TypeParam::LogShardEntry change{};
  change.logVersion = Asic::LogVersion(4);
  auto differs = [&](auto edit) {
    auto copy = change;
    edit(copy);
    return !copy.isEq(change) && !(copy == change);
  };
  EXPECT_TRUE(differs([](auto& c) { c.logVersion = Asic::LogVersion(5); }));
  EXPECT_TRUE(differs([](auto& c) { c.deleteKind = 1; }));
  EXPECT_TRUE(differs([](auto& c) { c.unitId = Asic::UnitId(1); }));
  EXPECT_TRUE(differs([](auto& c) { c.key = patternedKey<typename TypeParam::EntryKey>(1); }));
}

// Both shards are mounted by the names their types are registered under.
TYPED_TEST(TableTypeTest, ConfigurationAndChangeLogRoundTripThroughSharedMemory) {
  using Traits = TypeParam;
  using Key = typename Traits::EntryKey;
  auto config = this->template mount<typename Traits::ConfigShard>(
      Traits::Constants::configShardPath(Asic::UnitId(1)));
  ASSERT_TRUE(config);
  for (uint8_t s = 0; s < 10; ++s) config->swTableEntriesIs(this->configOf(s, s + 1, s % 3 == 0));
  EXPECT_EQ(config->swTableEntriesSize(), 10u);
  for (uint8_t s = 0; s < 10; ++s) {
    EXPECT_TRUE(
        config->swTableEntries(patternedKey<Key>(s)).isEq(this->configOf(s, s + 1, s % 3 == 0)));
  }
  EXPECT_TRUE(
      config->swTableEntries(patternedKey<Key>(99)).isEq(typename Traits::ConfigShardEntry{}))
      << "an absent key reads as a default record";
  EXPECT_TRUE(config->swTableEntriesDel(patternedKey<Key>(4)));
  EXPECT_FALSE(config->swTableEntriesHas(patternedKey<Key>(4)));

  auto log = this->template mount<typename Traits::EntryLogShard>(
      Traits::Constants::tableEntryLogShardPath());
  ASSERT_TRUE(log);
  for (uint64_t v = 1; v <= 5; ++v) {
    typename Traits::LogShardEntry r{};
    r.logVersion = Asic::LogVersion(v);
    r.deleteKind = uint8_t(v % 3);
    r.unitId = Asic::UnitId(uint16_t(v));
    r.key = patternedKey<Key>(uint8_t(v));
    log->entryLogConfigIs(r);
  }
  EXPECT_TRUE(log->entryLogConfigDel(Asic::LogVersion(1)));
  std::vector<uint64_t> versions;
  for (auto it = log->entryLogConfigColl().begin(); it != log->entryLogConfigColl().end(); ++it) {
    versions.push_back(it->logVersion.value());
    EXPECT_EQ(it->unitId, Asic::UnitId(uint16_t(it->logVersion.value())));
    EXPECT_TRUE(it->key.isEq(patternedKey<Key>(uint8_t(it->logVersion.value()))));
  }
  EXPECT_EQ(versions, (std::vector<uint64_t>{2, 3, 4, 5}));
}

}  // namespace
