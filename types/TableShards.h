#pragma once

#include "KestShard/Shard.h"
#include "Nimbo/Export.h"
#include "types/TableTypes.h"

namespace VeskTapAgg {

// A unit's configuration in shared memory: the collection "swTableEntries" of
// ConfigShardEntry records keyed by entry key, counting its tombstones (isDeleted). Mounted through
// an entity manager under its registered type name "VeskTapAgg::<T>ConfigShard"; single-threaded.
// Reads throw Nimbo::CorruptionDetectedException for a damaged record: report it with
// swTableEntriesColl().map().doCorruptionDetected().
template <class Traits>
class TableConfigShard : public KestShard::Shard {
 public:
  using Key = typename Traits::EntryKey;
  using Record = typename Traits::ConfigShardEntry;
  struct KeyOf {
    const Key& operator()(const Record& r) const { return r.logEntry.key(); }
  };
  struct DeletedOf {
    const bool& operator()(const Record& r) const { return r.isDeleted; }
  };
  using Collection = KestShard::KeyedCollection<Record, KeyOf, DeletedOf>;

  explicit TableConfigShard(const KestShard::MountContext& c)
      : KestShard::Shard(c),
        swTableEntries_(mountKeyed<Record, KeyOf, DeletedOf>(c, "swTableEntries")) {}

  // The record of `key`, or a default record when there is none.
  Record swTableEntries(const Key& key) const {
    return swTableEntries_.find(key).value_or(Record{});
  }
  bool swTableEntriesHas(const Key& key) const { return swTableEntries_.contains(key); }
  void swTableEntriesIs(const Record& record) { swTableEntries_.insertOrReplace(record); }
  bool swTableEntriesDel(const Key& key) { return swTableEntries_.erase(key); }
  uint32_t swTableEntriesSize() const noexcept { return swTableEntries_.count(); }
  const Collection& swTableEntriesColl() const noexcept { return swTableEntries_; }

 private:
  Collection swTableEntries_;
};

// A table type's change log in shared memory: the collection "entryLogConfig" of
// LogShardEntry records keyed by version, iterated in version order. Registered as
// "VeskTapAgg::<T>EntryLogShard"; single-threaded.
template <class Traits>
class TableEntryLogShard : public KestShard::Shard {
 public:
  using Record = typename Traits::LogShardEntry;
  struct VersionOf {
    const Asic::LogVersion& operator()(const Record& r) const { return r.logVersion; }
  };
  using Collection = KestShard::VersionCollection<Record, VersionOf>;

  explicit TableEntryLogShard(const KestShard::MountContext& c)
      : KestShard::Shard(c),
        entryLogConfig_(mountVersioned<Record, VersionOf>(c, "entryLogConfig")) {}

  Record entryLogConfig(Asic::LogVersion version) const {
    return entryLogConfig_.find(version).value_or(Record{});
  }
  bool entryLogConfigHas(Asic::LogVersion version) const {
    return entryLogConfig_.contains(version);
  }
  void entryLogConfigIs(const Record& record) { entryLogConfig_.insertOrReplace(record); }
  bool entryLogConfigDel(Asic::LogVersion version) { return entryLogConfig_.erase(version); }
  uint32_t entryLogConfigSize() const noexcept { return entryLogConfig_.count(); }
  const Collection& entryLogConfigColl() const noexcept { return entryLogConfig_; }

 private:
  Collection entryLogConfig_;
};

#define VESK_TAPAGG_DECLARE_SHARDS(Name, ...)                                             \
  class VESK_EXPORT Name##ConfigShard final : public TableConfigShard<Name##Traits> {     \
   public:                                                                                \
    using TableConfigShard::TableConfigShard;                                             \
    static constexpr const char* typeName = "VeskTapAgg::" #Name "ConfigShard";           \
  };                                                                                      \
  class VESK_EXPORT Name##EntryLogShard final : public TableEntryLogShard<Name##Traits> { \
   public:                                                                                \
    using TableEntryLogShard::TableEntryLogShard;                                         \
    static constexpr const char* typeName = "VeskTapAgg::" #Name "EntryLogShard";         \
  };
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_SHARDS)

// Makes every table type's shards mountable by type name; idempotent. Every program that
// includes this header calls it at start-up, which also keeps the types library linked.
VESK_EXPORT bool registerTableShardTypes();
inline const bool kTableShardTypesRegistered = registerTableShardTypes();

}  // namespace VeskTapAgg
