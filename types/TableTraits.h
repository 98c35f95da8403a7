#pragma once

#include <compare>
#include <concepts>
#include <cstdint>
#include <type_traits>

#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "Asic/UnitId.h"
#include "Nimbo/String.h"

namespace VeskTapAgg {

// A record that lives in shared memory as its bytes and whose default value stands for
// absence. No padding either (reserved fields instead), so that every byte a writer stores
// is a defined value.
template <class R>
concept ShmRecord = std::is_trivially_copyable_v<R> && std::is_default_constructible_v<R> &&
    std::has_unique_object_representations_v<R> && requires(const R& r) {
  { r.isEq(r) } -> std::same_as<bool>;
  { r == r } -> std::same_as<bool>;
};

// A key of a shared-memory collection, hashed and compared by its bytes.
template <class K>
concept ShmKey = ShmRecord<K> && requires(const K& k, uint32_t seed) {
  { k.hash(seed) } -> std::same_as<uint32_t>;
  { k <=> k } -> std::convertible_to<std::strong_ordering>;
};

// What every generic table algorithm knows of a table type: one traits struct per type,
// generated from the catalogue list (types/Catalogue.h) as <T>Traits.
//   EntryKey           the key clients address entries by (a TCAM line or index)
//   Entry              the desired content of one entry; holds its key (key())
//   LogEntry           the entry as written to the entry log; holds its key (key())
//   ResourceKeys       the other tables' entries an entry holds (none here)
//   ConfigShardEntry   a unit's configuration record: logEntry, rsrcKeys, logVersion, isDeleted
//   LogShardEntry      a change-log record: logVersion, deleteKind, unitId, key
//   ConfigShard, EntryLogShard   the shard types holding those records (declared here,
//                                defined in types/TableShards.h)
//   Constants          configShardPath(unit) and tableEntryLogShardPath()
//   tableName, tableId, and the hash salts of the table's four keyed collections
template <class T>
concept TableTraits = ShmKey<typename T::EntryKey> && ShmRecord<typename T::Entry> &&
    ShmRecord<typename T::LogEntry> && ShmRecord<typename T::ResourceKeys> &&
    ShmRecord<typename T::ConfigShardEntry> && ShmRecord<typename T::LogShardEntry> &&
    requires(const typename T::Entry& entry, const typename T::LogEntry& logEntry,
             const typename T::ConfigShardEntry& config, const typename T::LogShardEntry& change,
             Asic::UnitId unit) {
  typename T::ConfigShard;
  typename T::EntryLogShard;
  { entry.key() } -> std::same_as<const typename T::EntryKey&>;
  { logEntry.key() } -> std::same_as<const typename T::EntryKey&>;
  { config.logEntry } -> std::convertible_to<typename T::LogEntry>;
  { config.rsrcKeys } -> std::convertible_to<typename T::ResourceKeys>;
  { config.logVersion } -> std::convertible_to<Asic::LogVersion>;
  { config.isDeleted } -> std::convertible_to<bool>;
  { change.logVersion } -> std::convertible_to<Asic::LogVersion>;
  { change.deleteKind } -> std::convertible_to<uint8_t>;
  { change.unitId } -> std::convertible_to<Asic::UnitId>;
  { change.key } -> std::convertible_to<typename T::EntryKey>;
  { T::Constants::configShardPath(unit) } -> std::same_as<Nimbo::String>;
  { T::Constants::tableEntryLogShardPath() } -> std::same_as<Nimbo::String>;
  { T::tableName } -> std::convertible_to<const char*>;
  { T::tableId } -> std::convertible_to<Asic::SwTableId>;
  { T::transientAddEntrySalt } -> std::convertible_to<uint32_t>;
  { T::transientRemoveEntrySalt } -> std::convertible_to<uint32_t>;
  { T::transientVersionForKeySalt } -> std::convertible_to<uint32_t>;
  { T::tableEntriesSalt } -> std::convertible_to<uint32_t>;
  { T::tableConfigShardSalt } -> std::convertible_to<uint32_t>;
};

}  // namespace VeskTapAgg
