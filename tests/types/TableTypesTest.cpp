#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "KestShard/Directory.h"
#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"
#include "support/TempShmRoot.h"
#include "types/TableShards.h"

namespace {

template <class First, class... Rest>
struct DropFirst {
  using type = ::testing::Types<Rest...>;
};
#define VESK_TEST_TRAITS(Name, ...) , VeskTapAgg::Name##Traits
using AllTables = DropFirst<void VESK_TAPAGG_TABLES(VESK_TEST_TRAITS)>::type;
#undef VESK_TEST_TRAITS

// A key whose every byte differs from its neighbours', made from a seed.
template <class Key>
Key patternedKey(uint8_t seed) {
  Key key{};
  auto* bytes = reinterpret_cast<unsigned char*>(&key);
  for (size_t i = 0; i < sizeof key; ++i) bytes[i] = uint8_t(seed + i * 7 + 1);
  return key;
}

template <class Traits>
class TableTypeTest : public ::testing::Test {
 protected:
  using Key = typename Traits::EntryKey;

  typename Traits::ConfigShardEntry configOf(uint8_t seed, uint64_t version, bool deleted = false) {
    typename Traits::ConfigShardEntry r{};
    r.logEntry.entryKey = patternedKey<Key>(seed);
    r.logVersion = Asic::LogVersion(version);
    r.isDeleted = deleted;
    return r;
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
TYPED_TEST_SUITE(TableTypeTest, AllTables);

TYPED_TEST(TableTypeTest, KeyHashDependsOnEveryByteAndOnTheSeed) {
  using Key = typename TypeParam::EntryKey;
  const Key key = patternedKey<Key>(3);
  const uint32_t base = key.hash(0x1234);
  EXPECT_NE(base, key.hash(0x1235));
  for (size_t i = 0; i < sizeof(Key); ++i) {
    Key changed = key;
    reinterpret_cast<unsigned char*>(&changed)[i] ^= 0x40;
    EXPECT_NE(changed.hash(0x1234), base) << "byte " << i << " does not reach the hash";
    EXPECT_FALSE(changed.isEq(key));
  }
}

TYPED_TEST(TableTypeTest, OrderingAgreesWithEquality) {
  using Key = typename TypeParam::EntryKey;
  for (uint8_t a = 0; a < 20; ++a) {
    for (uint8_t b = 0; b < 20; ++b) {
      Key ka = patternedKey<Key>(a), kb = patternedKey<Key>(b);
      EXPECT_EQ(ka.isEq(kb), (ka <=> kb) == 0);
      EXPECT_EQ((ka <=> kb) < 0, (kb <=> ka) > 0);
    }
  }
  EXPECT_TRUE(typename TypeParam::Entry{}.isEq(typename TypeParam::Entry()));
  EXPECT_TRUE(typename TypeParam::ConfigShardEntry{}.isEq(typename TypeParam::ConfigShardEntry()));
}

TYPED_TEST(TableTypeTest, PathsAreUniquePerUnitAndValidSharedMemoryPaths) {
  using Constants = typename TypeParam::Constants;
  std::set<Nimbo::String> paths{Constants::tableEntryLogShardPath()};
  for (uint16_t unit : {0, 1, 2, 65535}) {
    Nimbo::String path = Constants::configShardPath(Asic::UnitId(unit));
    EXPECT_NO_THROW(KestShard::Directory::components(path)) << path;
    EXPECT_EQ(Asic::Constants::getUnitIdFromConfigPath(path), Asic::UnitId(unit));
    EXPECT_NE(path.find(TypeParam::tableName), Nimbo::String::npos);
    paths.insert(path);
  }
  EXPECT_EQ(paths.size(), 5u);
}

TYPED_TEST(TableTypeTest, ConfigurationAndChangeLogRoundTripThroughSharedMemory) {
  using Traits = TypeParam;
  auto config = this->template mount<typename Traits::ConfigShard>(
      Traits::Constants::configShardPath(Asic::UnitId(1)));
  ASSERT_TRUE(config);
  for (uint8_t s = 0; s < 10; ++s) config->swTableEntriesIs(this->configOf(s, s + 1, s % 3 == 0));
  EXPECT_EQ(config->swTableEntriesSize(), 10u);
  for (uint8_t s = 0; s < 10; ++s) {
    auto stored = config->swTableEntries(patternedKey<typename Traits::EntryKey>(s));
    EXPECT_TRUE(stored.isEq(this->configOf(s, s + 1, s % 3 == 0)));
  }
  EXPECT_TRUE(config->swTableEntries(patternedKey<typename Traits::EntryKey>(99))
                  .isEq(typename Traits::ConfigShardEntry{}))
      << "an absent key reads as a default record";
  EXPECT_TRUE(config->swTableEntriesDel(patternedKey<typename Traits::EntryKey>(4)));
  EXPECT_FALSE(config->swTableEntriesHas(patternedKey<typename Traits::EntryKey>(4)));

  auto log = this->template mount<typename Traits::EntryLogShard>(
      Traits::Constants::tableEntryLogShardPath());
  ASSERT_TRUE(log);
  for (uint64_t v = 1; v <= 5; ++v) {
    typename Traits::LogShardEntry r{};
    r.logVersion = Asic::LogVersion(v);
    r.deleteKind = uint8_t(v % 3);
    r.unitId = Asic::UnitId(uint16_t(v));
    r.key = patternedKey<typename Traits::EntryKey>(uint8_t(v));
    log->entryLogConfigIs(r);
  }
  EXPECT_TRUE(log->entryLogConfigDel(Asic::LogVersion(1)));
  std::vector<uint64_t> versions;
  for (auto it = log->entryLogConfigColl().begin(); it != log->entryLogConfigColl().end(); ++it) {
    versions.push_back(it->logVersion.value());
    EXPECT_EQ(it->unitId, Asic::UnitId(uint16_t(it->logVersion.value())));
  }
  EXPECT_EQ(versions, (std::vector<uint64_t>{2, 3, 4, 5}));
}

TEST(Catalogue, HashSaltsAreDistinctAcrossEveryCollectionOfEveryType) {
  std::set<uint32_t> salts;
#define VESK_TEST_SALTS(Name, lower, role, id, a, b, c, d) salts.insert({a, b, c, d});
  VESK_TAPAGG_TABLES(VESK_TEST_SALTS)
#undef VESK_TEST_SALTS
  EXPECT_EQ(salts.size(), 40u);
  EXPECT_EQ(VeskTapAgg::DefaultFwdTcamEntryTraits::tableEntriesSalt, 0x2cbc41fdu);
}

TEST(Catalogue, ShardTypesAreRegisteredUnderTheirNames) {
  std::vector<std::string> names;
#define VESK_TEST_SHARD_NAMES(Name, ...) \
  names.insert(names.end(), {"VeskTapAgg::" #Name "ConfigShard", "VeskTapAgg::" #Name "EntryLogShard"});
  VESK_TAPAGG_TABLES(VESK_TEST_SHARD_NAMES)
#undef VESK_TEST_SHARD_NAMES
  ASSERT_EQ(names.size(), 20u);
  for (const auto& name : names) EXPECT_NO_THROW(KestShard::ShardTypeRegistry::factory(name)) << name;
}

TEST(RecordFormat, ReferenceKeyPrintsTheFieldsThatTakePartInTheMatch) {
  VeskTapAgg::DefaultFwdTcamEntryEntryKey key{};
  key.priority = 10;
  key.vlan = {100, 0xfff};
  key.dstIp = {0x0a000001, 0xffffff00};
  key.dstMac = {{0, 0x1c, 0x73, 1, 2, 3}, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
  key.actionIndex = 7;
  EXPECT_EQ(fmt::format("{}", key),
            "DefaultFwdTcamEntryEntryKey(prio=10, vlan=100/0xfff, "
            "dstMac=00:1c:73:01:02:03/ff:ff:ff:ff:ff:ff, dstIp=10.0.0.1/255.255.255.0, action=7)");
  VeskTapAgg::DefaultFwdTcamActionEntryKey action{5};
  EXPECT_EQ(fmt::format("{}", action), "DefaultFwdTcamActionKey(index=5)");
}

}  // namespace
