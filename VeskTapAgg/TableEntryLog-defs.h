#pragma once

// The bodies of TableEntryLog, included by the one file that instantiates it for every
// table type (EntryLog.cpp).

#include <algorithm>

#include "KestShard/CollectionControl.h"
#include "Nimbo/Assert.h"
#include "Nimbo/Exception.h"
#include "VeskTapAgg/EntryLogMessages.h"
#include "VeskTapAgg/TableEntryLog.h"
#include "VeskTapAgg/WriterMount.h"

namespace VeskTapAgg {

namespace entry_log_detail {

// The per-type log handles, made when the library loads.
template <class Traits>
EntryLogMessageHandles messageHandles;

// "{}" for no needs at all, as for an empty set.
inline std::string neededText(const Nimbo::Ptr<const Asic::NeededEntry>& needed) {
  return needed ? fmt::format("{}", *needed) : std::string("{}");
}

// Mounts shard S at `path` as its writer, its collection `collection` (picked out of the
// shard by `collectionOf`) with `capacity` records; a wiped collection is logged as
// "<item>::<table type>" and `wiped` set.
template <class Traits, class S, class CollectionOf>
Nimbo::Ptr<S> mountWriter(const Asic::EntryLogBase& log, const Nimbo::String& path,
                          const char* collection, uint32_t capacity, const char* item,
                          CollectionOf collectionOf, bool& wiped) {
  wiped = false;
  return checkAndwriteMountShard<S>(
      log.entityManager(), S::typeName, path, log.agentName(),
      [&](KestShard::MountInfo& info) {
        info.collectionInfoIs({collection, capacity, false});
      },
      [&](S* shard) -> Nimbo::Ptr<KestShard::CollectionControl> {
        return shard ? collectionOf(*shard).control() : nullptr;
      },
      [&] {
        wiped = true;
        Kest::log(messageHandles<Traits>.error, fmt::format("{}::{}", item, Traits::tableName));
      });
}

}  // namespace entry_log_detail

#define VESK_ENTRY_LOG_TRACE(level, ...) \
  VESK_TRACE_FROM(traceHandle(), level, sourceName().c_str(), className().c_str(), __VA_ARGS__)

template <TableTraits Traits>
TableEntryLog<Traits>::TableEntryLog(Asic::SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> em,
                                     Nimbo::Ptr<Asic::GroupInterface> groupInterface,
                                     Nimbo::String agentName)
    : Asic::EntryLogBase(tableId, std::move(em), std::move(groupInterface), std::move(agentName)),
      tableConfigShard_(Traits::tableConfigShardSalt) {
  handleInitialized();
}

template <TableTraits Traits>
TableEntryLog<Traits>::~TableEntryLog() = default;

template <TableTraits Traits>
void TableEntryLog<Traits>::handleInitialized() {
  VESK_ENTRY_LOG_TRACE(8, "");
  mountShardChangeLog();
}

template <TableTraits Traits>
void TableEntryLog<Traits>::mountShardChangeLog() {
  VESK_ENTRY_LOG_TRACE(8, "");
  const Nimbo::String path = Traits::Constants::tableEntryLogShardPath();
  bool wiped = false;
  tableEntryLog_ = entry_log_detail::mountWriter<Traits, EntryLogShard>(
      *this, path, "entryLogConfig", kChangeLogCapacity, "entryLog",
      [](const EntryLogShard& shard) -> const auto& { return shard.entryLogConfigColl(); }, wiped);
  VESK_ASSERT(tableEntryLog_);
  const auto& changes = tableEntryLog_->entryLogConfigColl();
  // A writer stopped after appending a change but before storing its version leaves the
  // scratchpad one behind the log: the log's newest version is the one given out.
  const uint64_t stored = changes.control()->scratchpad();
  const uint64_t newest = changes.newestVersion();
  uint64_t version = std::max(stored, newest);
  if (wiped || !changes.store().mountRepairs().empty()) {
    // The changes the hardware side had not taken are gone with the log (lost, or dropped
    // by a repair of its damaged span): new versions start above what it has taken, and
    // every unit's configuration is logged again as it is mounted, so that the hardware
    // side ends up with exactly the configuration.
    const uint64_t taken =
        groupInterface()->tableVersion(tableId()).value_or(Asic::LogVersion()).value();
    version = std::max(version, taken);
    relogOnMount_ = true;
  }
  if (version != stored) changes.control()->scratchpadIs(version);
  tableVersionIs(Asic::LogVersion(version));
  VESK_ENTRY_LOG_TRACE(2, " Mounted entryLog: {}, tableVersion: {}", path, tableVersion());
}

template <TableTraits Traits>
void TableEntryLog<Traits>::mountShardConfig(Asic::UnitId unitId, Asic::LogVersion logVersion) {
  VESK_ENTRY_LOG_TRACE(8, " unitId:{}, logVersion: {}", unitId, logVersion);
  const Nimbo::String path = Traits::Constants::configShardPath(unitId);
  bool wiped = false;
  Nimbo::Ptr<ConfigShard> cfgShard = entry_log_detail::mountWriter<Traits, ConfigShard>(
      *this, path, "swTableEntries", kConfigCapacity, "entryCfg",
      [](const ConfigShard& shard) -> const auto& { return shard.swTableEntriesColl(); }, wiped);
  VESK_ASSERT(cfgShard);
  tableConfigShardIs(unitId, cfgShard);
  VESK_ENTRY_LOG_TRACE(2, " Mounted config for unitId: {} at {}", unitId, path);
  // The collection counts its tombstones: a unit without any is not walked, so that a
  // restart costs the same however many entries the unit holds.
  if (logVersion.valid() && cfgShard->swTableEntriesColl().markedCount() != 0) {
    cfgShard->swTableEntriesColl().forEach([&](const ConfigShardEntry& record) {
      if (record.isDeleted && record.logVersion <= logVersion) {
        cfgShard->swTableEntriesDel(record.logEntry.key());
      }
    });
  }
  if (wiped) {
    // The unit's entries are gone: the hardware side drops them too.
    tableDel(nullptr, unitId);
  } else if (relogOnMount_) {
    relog(*cfgShard, unitId, recordsOf(*cfgShard, [](const ConfigShardEntry&) { return true; }));
  } else {
    finishChange(*cfgShard, unitId);
  }
}

// The top bit of the word says the change is a unit delete, whose walk a mount must finish.
template <TableTraits Traits>
void TableEntryLog<Traits>::intentIs(ConfigShard& shard, Asic::LogVersion version,
                                     bool unitDelete) {
  shard.swTableEntriesColl().control()->scratchpadIs(version.value() |
                                                     (uint64_t(unitDelete) << 63));
}

// A writer stopped between writing the unit's configuration and appending the change left
// records that no change names. A unit delete is finished whole (every record still live
// is made a tombstone too); the change is then appended as it would have been when its
// version is still the next one, or else its records are logged again under new versions.
// Either way the hardware side gets them and no version names two changes.
template <TableTraits Traits>
void TableEntryLog<Traits>::finishChange(ConfigShard& shard, Asic::UnitId unitId) {
  const uint64_t word = shard.swTableEntriesColl().control()->scratchpad();
  const bool unitDelete = word >> 63;
  const Asic::LogVersion unfinished(word & ~(uint64_t(1) << 63));
  if (!unfinished.valid()) return;
  std::optional<LogShardEntry> change;
  try {
    change = tableEntryLog_->entryLogConfigColl().find(unfinished);
  } catch (const Nimbo::CorruptionDetectedException& e) {
    tableEntryLog_->entryLogConfigColl().map().doCorruptionDetected(e.what());
  }
  if (!change || change->unitId != unitId) {
    VESK_ENTRY_LOG_TRACE(2, " Finishing the change of unitId: {} at version: {}", unitId,
                         unfinished);
    const bool next = tableVersion().value() + 1 == unfinished.value();
    if (unitDelete) {
      if (next) tableVersionInc(1);
      const Asic::LogVersion version = next ? unfinished : tableVersionInc(1);
      intentIs(shard, version, true);
      for (ConfigShardEntry record : recordsOf(shard, [&](const ConfigShardEntry& r) {
             return !r.isDeleted || r.logVersion == unfinished;
           })) {
        record.isDeleted = true;
        record.logVersion = version;
        shard.swTableEntriesIs(record);
      }
      appendChange(version, DeleteKind::unitDelete, unitId, EntryKey{}, nullptr);
    } else {
      const auto records =
          recordsOf(shard, [&](const ConfigShardEntry& r) { return r.logVersion == unfinished; });
      if (records.size() == 1 && next) {
        tableVersionInc(1);
        appendChange(unfinished,
                     records.front().isDeleted ? DeleteKind::entryDelete : DeleteKind::write,
                     unitId, records.front().logEntry.key(), nullptr);
      } else {
        relog(shard, unitId, records);
      }
    }
  }
  intentIs(shard, Asic::LogVersion());
}

template <TableTraits Traits>
template <class Select>
std::vector<typename Traits::ConfigShardEntry> TableEntryLog<Traits>::recordsOf(
    const ConfigShard& shard, Select&& select) const {
  std::vector<ConfigShardEntry> records;
  shard.swTableEntriesColl().forEach([&](const ConfigShardEntry& record) {
    if (select(record)) records.push_back(record);
  });
  return records;
}

template <TableTraits Traits>
void TableEntryLog<Traits>::relog(ConfigShard& shard, Asic::UnitId unitId,
                                  std::vector<ConfigShardEntry> records) {
  for (ConfigShardEntry& record : records) {
    record.logVersion = tableVersionInc(1);
    intentIs(shard, record.logVersion);
    shard.swTableEntriesIs(record);
    appendChange(record.logVersion, record.isDeleted ? DeleteKind::entryDelete : DeleteKind::write,
                 unitId, record.logEntry.key(), nullptr);
  }
  intentIs(shard, Asic::LogVersion());
}

template <TableTraits Traits>
Nimbo::Ptr<typename Traits::ConfigShard> TableEntryLog<Traits>::tableConfigShard(
    Asic::UnitId unitId) const {
  auto it = tableConfigShard_.find(unitId);
  return it == tableConfigShard_.end() ? nullptr : it->second;
}

template <TableTraits Traits>
void TableEntryLog<Traits>::tableConfigShardIs(Asic::UnitId unitId, Nimbo::Ptr<ConfigShard> shard) {
  tableConfigShard_.insertOrReplace(unitId, std::move(shard));
}

template <TableTraits Traits>
Nimbo::Ptr<typename Traits::ConfigShard> TableEntryLog<Traits>::tableConfigShardDel(
    Asic::UnitId unitId) {
  auto it = tableConfigShard_.find(unitId);
  if (it == tableConfigShard_.end()) return nullptr;
  Nimbo::Ptr<ConfigShard> shard = std::move(it->second);
  tableConfigShard_.erase(unitId);
  return shard;
}

template <TableTraits Traits>
typename Traits::ConfigShard& TableEntryLog<Traits>::mountedConfig(Asic::UnitId unitId) const {
  auto it = tableConfigShard_.find(unitId);
  VESK_ASSERT_MSG(it != tableConfigShard_.end(),
                  "Config shard for unitId:" << unitId.value() << " is not mounted");
  return *it->second;
}

template <TableTraits Traits>
typename Traits::ConfigShardEntry TableEntryLog<Traits>::configRecord(const ConfigShard& shard,
                                                                      const EntryKey& key) const {
  try {
    return shard.swTableEntries(key);
  } catch (const Nimbo::CorruptionDetectedException& e) {
    shard.swTableEntriesColl().map().doCorruptionDetected(e.what());
    return ConfigShardEntry{};
  }
}

template <TableTraits Traits>
Asic::LogVersion TableEntryLog<Traits>::appendChange(
    Asic::LogVersion version, DeleteKind kind, Asic::UnitId unitId, const EntryKey& key,
    const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry) {
  LogShardEntry change{};
  change.logVersion = version;
  change.deleteKind = uint8_t(kind);
  change.unitId = unitId;
  change.key = key;
  tableEntryLog_->entryLogConfigIs(change);
  tableEntryLog_->entryLogConfigColl().control()->scratchpadIs(version.value());
  groupInterface()->addLogEntry(tableId(), version, neededEntry);
  return version;
}

template <TableTraits Traits>
Asic::LogVersion TableEntryLog<Traits>::entryIs(
    const LogEntry& logEntry, const ResourceKeys&,
    const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry, Asic::UnitId unitId,
    const Nimbo::Ptr<Asic::SwTableStats>& stats, bool suppressIdenticalWrites) {
  // The condition is the assertion's text, kept as it stands.
  // clang-format off
  VESK_ASSERT_MSG(tableConfigShardHas( unitId ),
                  "Config shard for unitId:" << unitId.value() << " is not created yet!");
  // clang-format on
  ConfigShard& shard = *tableConfigShard_.find(unitId)->second;
  const EntryKey& key = logEntry.key();
  if (suppressIdenticalWrites) {
    const ConfigShardEntry stored = configRecord(shard, key);
    if (!(stored == ConfigShardEntry{}) && !stored.isDeleted) {
      if (stored.logEntry.isEq(logEntry)) {
        if (stats) stats->suppressedWriteCntInc(1);
        VESK_ENTRY_LOG_TRACE(3, "Suppressing identical write for key: {}", key);
        if (stored.logVersion.valid()) return stored.logVersion;
      } else {
        VESK_ENTRY_LOG_TRACE(
            3, "Not Suppressing write because entry or resource key is different  for key: {}",
            key);
        if (stats) stats->suppressCheckDiffCntInc(1);
      }
    }
  }
  const Asic::LogVersion version = tableVersionInc(1);
  VESK_ENTRY_LOG_TRACE(
      8, " logEntry: {} neededEntry: {} version: {} unitId: {} suppressIdenticalWrites: {}",
      logEntry, entry_log_detail::neededText(neededEntry), version, unitId,
      suppressIdenticalWrites);
  ConfigShardEntry record{};
  record.logEntry = logEntry;
  record.logVersion = version;
  intentIs(shard, version);
  try {
    shard.swTableEntriesIs(record);
  } catch (...) {
    // Nothing was written (a full configuration, say): the version was not used.
    tableVersionIs(Asic::LogVersion(version.value() - 1));
    intentIs(shard, Asic::LogVersion());
    throw;
  }
  appendChange(version, DeleteKind::write, unitId, key, neededEntry);
  intentIs(shard, Asic::LogVersion());
  return version;
}

template <TableTraits Traits>
Asic::LogVersion TableEntryLog<Traits>::entryDel(
    const EntryKey& key, const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry,
    Asic::UnitId unitId) {
  VESK_ENTRY_LOG_TRACE(8, " key:{} neededEntry: {} unitId: {}", key,
                       entry_log_detail::neededText(neededEntry), unitId);
  ConfigShard& shard = mountedConfig(unitId);
  std::optional<ConfigShardEntry> stored;
  try {
    stored = shard.swTableEntriesColl().find(key);
  } catch (const Nimbo::CorruptionDetectedException& e) {
    // The key is there but its record is damaged: delete it all the same, from a clean
    // record of the key.
    shard.swTableEntriesColl().map().doCorruptionDetected(e.what());
    stored = ConfigShardEntry{};
    stored->logEntry.entryKey = key;
  }
  if (!stored) {
    VESK_ENTRY_LOG_TRACE(3, " key: {} entry does not exist. So ignoring delete", key);
    return Asic::LogVersion();
  }
  const Asic::LogVersion version = tableVersionInc(1);
  stored->isDeleted = true;
  stored->logVersion = version;
  intentIs(shard, version);
  shard.swTableEntriesIs(*stored);
  appendChange(version, DeleteKind::entryDelete, unitId, key, neededEntry);
  intentIs(shard, Asic::LogVersion());
  return version;
}

template <TableTraits Traits>
Asic::LogVersion TableEntryLog<Traits>::tableDel(
    const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry, Asic::UnitId unitId) {
  VESK_ENTRY_LOG_TRACE(8, " neededEntry:{}, unitId: {}", entry_log_detail::neededText(neededEntry),
                       unitId);
  const Asic::LogVersion version = tableVersionInc(1);
  ConfigShard& shard = mountedConfig(unitId);
  intentIs(shard, version, true);
  shard.swTableEntriesColl().forEach([&](const ConfigShardEntry& record) {
    if (record.isDeleted) return;
    ConfigShardEntry tombstone = record;
    tombstone.isDeleted = true;
    tombstone.logVersion = version;
    shard.swTableEntriesIs(tombstone);
  });
  appendChange(version, DeleteKind::unitDelete, unitId, EntryKey{}, neededEntry);
  intentIs(shard, Asic::LogVersion());
  return version;
}

template <TableTraits Traits>
void TableEntryLog<Traits>::retire(const LogShardEntry& change) {
  auto it = tableConfigShard_.find(change.unitId);
  if (it == tableConfigShard_.end()) {
    VESK_ENTRY_LOG_TRACE(3, " configShard not found for unitId: {}", change.unitId);
    return;
  }
  ConfigShard& shard = *it->second;
  if (change.deleteKind & uint8_t(DeleteKind::entryDelete)) {
    if (configRecord(shard, change.key).logVersion == change.logVersion) {
      shard.swTableEntriesDel(change.key);
    }
  }
  if (change.deleteKind & uint8_t(DeleteKind::unitDelete)) {
    VESK_ENTRY_LOG_TRACE(3, " deleteing all entries for unitId: {}", change.unitId);
    shard.swTableEntriesColl().forEach([&](const ConfigShardEntry& record) {
      if (record.logVersion == change.logVersion) shard.swTableEntriesDel(record.logEntry.key());
    });
  }
}

template <TableTraits Traits>
void TableEntryLog<Traits>::cleanupEntryLog(Asic::LogVersion version) {
  VESK_ENTRY_LOG_TRACE(8, " version {}", version);
  const Asic::LogVersion mark = cleanupMark();
  if (!mark.valid()) {
    cleanupAll(version);
  } else if (version >= mark) {
    cleanupFromMark(mark, version);
  }
  cleanupMarkIs(version);
}

// Versions above the newest in the log have no record: the walk stops there.
template <TableTraits Traits>
void TableEntryLog<Traits>::cleanupFromMark(Asic::LogVersion mark, Asic::LogVersion version) {
  const auto& changes = tableEntryLog_->entryLogConfigColl();
  const Asic::LogVersion last(std::min(version.value(), changes.newestVersion()));
  for (Asic::LogVersion k = mark; k <= last; ++k) {
    std::optional<LogShardEntry> change;
    try {
      change = changes.find(k);
    } catch (const Nimbo::CorruptionDetectedException& e) {
      changes.map().doCorruptionDetected(e.what());
      tableEntryLog_->entryLogConfigDel(k);
      continue;
    }
    if (!change) continue;
    tableEntryLog_->entryLogConfigDel(k);
    retire(*change);
  }
}

template <TableTraits Traits>
void TableEntryLog<Traits>::cleanupAll(Asic::LogVersion version) {
  tableEntryLog_->entryLogConfigColl().forEach([&](const LogShardEntry& change) {
    if (change.logVersion > version) return;
    tableEntryLog_->entryLogConfigDel(change.logVersion);
    retire(change);
  });
}

template <TableTraits Traits>
typename Traits::LogEntry TableEntryLog<Traits>::entry(const EntryKey& key,
                                                       Asic::UnitId unitId) const {
  VESK_ENTRY_LOG_TRACE(8, " key: {} unitId:{}", key, unitId);
  const ConfigShardEntry record = configRecord(mountedConfig(unitId), key);
  return record.isDeleted ? LogEntry{} : record.logEntry;
}

template <TableTraits Traits>
bool TableEntryLog<Traits>::entryHas(const EntryKey& key, Asic::UnitId unitId) const {
  VESK_ENTRY_LOG_TRACE(8, " key: {} unitId:{}", key, unitId);
  const ConfigShardEntry record = configRecord(mountedConfig(unitId), key);
  return !(record == ConfigShardEntry{}) && !record.isDeleted;
}

template <TableTraits Traits>
typename Traits::ResourceKeys TableEntryLog<Traits>::entryRsrcKeys(const EntryKey& key,
                                                                   Asic::UnitId unitId) const {
  VESK_ENTRY_LOG_TRACE(8, " key: {} unitId:{}", key, unitId);
  return configRecord(mountedConfig(unitId), key).rsrcKeys;
}

template <TableTraits Traits>
Asic::LogVersion TableEntryLog<Traits>::entryLogVersion(const EntryKey& key,
                                                        Asic::UnitId unitId) const {
  VESK_ENTRY_LOG_TRACE(8, " key: {} unitId:{}", key, unitId);
  return configRecord(mountedConfig(unitId), key).logVersion;
}

template <TableTraits Traits>
uint32_t TableEntryLog<Traits>::entrysInDeletion(Asic::UnitId unitId) const {
  VESK_ENTRY_LOG_TRACE(8, " unitId:{}", unitId);
  return mountedConfig(unitId).swTableEntriesColl().markedCount();
}

template <TableTraits Traits>
uint32_t TableEntryLog<Traits>::entrys(Asic::UnitId unitId) const {
  VESK_ENTRY_LOG_TRACE(8, " unitId:{}", unitId);
  return mountedConfig(unitId).swTableEntriesSize() - entrysInDeletion(unitId);
}

#undef VESK_ENTRY_LOG_TRACE

}  // namespace VeskTapAgg
