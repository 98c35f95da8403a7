#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Asic/EntryLogBase.h"
#include "Asic/NeededEntry.h"
#include "Asic/SwTableStats.h"
#include "Asic/UnitId.h"
#include "Kest/HashMap.h"
#include "Kest/Trace.h"
#include "VeskTapAgg/GeneratedNames.h"
#include "VeskTapAgg/TypeRecords.h"
#include "types/TableShards.h"
#include "types/TableTraits.h"

namespace VeskTapAgg {

// The entry log of one table type: what a restarted agent finds again. Per unit, the
// configuration "swTableEntries" (the last written value of every entry, deleted ones as
// tombstones until the hardware side has taken their delete); per table type, the change
// log "entryLogConfig" (one record per write, entry delete or unit delete, keyed by the
// table version it was given) and, in the change log's scratchpad, the table version.
//
// Each writer takes the next table version and then, in this order, writes the unit's
// configuration, appends the change, stores the version and tells the group interface, so
// that a writer stopped between two steps leaves what a remount understands: the table
// version reloaded from the scratchpad is never above the newest change it names, and a
// configuration record that names a version the change log has not got is logged again
// under a new version when its unit is mounted (the unit's configuration keeps, in its
// scratchpad, the version of the change being written to it). A lost change log starts
// above what the hardware side has taken, and every unit is logged again as it is mounted;
// a lost configuration is a unit delete for the hardware side.
//
// Written once for every table type over its traits; <T>EntryLog (EntryLog.h) names each.
// Owned by the table type's interface by reference count; single-threaded: the agent's
// event thread.
template <TableTraits Traits>
class TableEntryLog : public Asic::EntryLogBase {
 public:
  using EntryKey = typename Traits::EntryKey;
  using LogEntry = typename Traits::LogEntry;
  using ResourceKeys = typename Traits::ResourceKeys;
  using ConfigShardEntry = typename Traits::ConfigShardEntry;
  using LogShardEntry = typename Traits::LogShardEntry;
  using ConfigShard = typename Traits::ConfigShard;
  using EntryLogShard = typename Traits::EntryLogShard;
  using ConfigShardMap = Kest::HashMap2018<Asic::UnitId, Nimbo::Ptr<ConfigShard>>;

  static constexpr uint32_t kConfigCapacity = 65536;
  static constexpr uint32_t kChangeLogCapacity = 1000000;

  // Mounts the change log and loads the table version from it.
  TableEntryLog(Asic::SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> em,
                Nimbo::Ptr<Asic::GroupInterface> groupInterface, Nimbo::String agentName);
  ~TableEntryLog() override;

  // "<T>EntryLog", the name it traces under, and "VeskTapAgg/<T>EntryLog", its source.
  static const Nimbo::String& className() { return Names::className(); }
  static const Nimbo::String& sourceName() { return Names::sourceName(); }
  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, EntryLogKind>::get();
  }

  void handleInitialized();
  void mountShardChangeLog();
  // Mounts the unit's configuration and drops its tombstones at or below `logVersion`
  // (none when it is 0): the hardware side has taken those deletes.
  void mountShardConfig(Asic::UnitId unitId, Asic::LogVersion logVersion);

  const Nimbo::Ptr<EntryLogShard>& tableEntryLog() const noexcept { return tableEntryLog_; }
  Nimbo::Ptr<ConfigShard> tableConfigShard(Asic::UnitId unitId) const;
  bool tableConfigShardHas(Asic::UnitId unitId) const { return tableConfigShard_.contains(unitId); }
  void tableConfigShardIs(Asic::UnitId unitId, Nimbo::Ptr<ConfigShard> shard);
  Nimbo::Ptr<ConfigShard> tableConfigShardDel(Asic::UnitId unitId);
  void tableConfigShardDelAll() { tableConfigShard_.clear(); }
  const ConfigShardMap& tableConfigShards() const noexcept { return tableConfigShard_; }

  // Writers: each returns the version it gave the change. The unit's configuration must be
  // mounted (entryIs stops the agent when it is not).
  //
  // Writes `logEntry` (rsrcKeys are not kept by these tables). With suppression on, a
  // write equal to the live stored entry returns the stored version and logs nothing.
  Asic::LogVersion entryIs(const LogEntry& logEntry, const ResourceKeys& rsrcKeys,
                           const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry,
                           Asic::UnitId unitId, const Nimbo::Ptr<Asic::SwTableStats>& stats,
                           bool suppressIdenticalWrites);
  // Turns the key's record into a tombstone; returns 0 and logs nothing for a key that has
  // no record.
  Asic::LogVersion entryDel(const EntryKey& key,
                            const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry,
                            Asic::UnitId unitId);
  // Turns every live record of the unit into a tombstone of one new version.
  Asic::LogVersion tableDel(const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry,
                            Asic::UnitId unitId);
  // The hardware side has taken every change up to `version`: drops those changes and the
  // tombstones they made, and moves the cleanup mark to `version`.
  void cleanupEntryLog(Asic::LogVersion version);

  // Readers of a mounted unit's configuration. A tombstone reads as absent, except for
  // its version.
  LogEntry entry(const EntryKey& key, Asic::UnitId unitId) const;
  bool entryHas(const EntryKey& key, Asic::UnitId unitId) const;
  ResourceKeys entryRsrcKeys(const EntryKey& key, Asic::UnitId unitId) const;
  Asic::LogVersion entryLogVersion(const EntryKey& key, Asic::UnitId unitId) const;
  uint32_t entrysInDeletion(Asic::UnitId unitId) const;
  uint32_t entrys(Asic::UnitId unitId) const;
  // Asks the caches for where the unit's configuration keeps `key`, for a change about
  // to be written: its index word, or (`record`) the record that word points at.
  void prefetch(const EntryKey& key, Asic::UnitId unitId, bool record) const noexcept {
    const auto shard = tableConfigShard_.find(unitId);
    if (shard != tableConfigShard_.end()) shard->second->swTableEntriesColl().prefetch(key, record);
  }
  // entryHas and then entry of the same key with one lookup, traced as the two: the entry
  // when the unit's configuration holds it live, else nothing. `between()` runs between
  // them, for a caller that stands for an operation there.
  template <class Between>
  std::optional<LogEntry> liveEntry(const EntryKey& key, Asic::UnitId unitId,
                                    Between&& between) const {
    VESK_TRACE_AS(traceHandle(), 8, sourceName().c_str(), "entryHas", className().c_str(),
                  " key: {} unitId:{}", key, unitId);
    const ConfigShardEntry record = configRecord(mountedConfig(unitId), key);
    if (record == ConfigShardEntry{} || record.isDeleted) return std::nullopt;
    between();
    VESK_TRACE_AS(traceHandle(), 8, sourceName().c_str(), "entry", className().c_str(),
                  " key: {} unitId:{}", key, unitId);
    return record.logEntry;
  }

 private:
  using Names = GeneratedNames<Traits, EntryLogKind>;
  static Kest::TraceHandle& traceHandle() { return Names::traceHandle(); }

  ConfigShard& mountedConfig(Asic::UnitId unitId) const;
  // The stored record of `key`, or a default record when there is none or it is damaged.
  ConfigShardEntry configRecord(const ConfigShard& shard, const EntryKey& key) const;
  // The unit's configuration remembers the version of the change being written to it
  // (none once the change is in the change log), so that its next mount can finish it.
  void intentIs(ConfigShard& shard, Asic::LogVersion version, bool unitDelete = false);
  void finishChange(ConfigShard& shard, Asic::UnitId unitId);
  template <class Select>
  std::vector<ConfigShardEntry> recordsOf(const ConfigShard& shard, Select&& select) const;
  // Logs `records` of the unit again, each under a new version.
  void relog(ConfigShard& shard, Asic::UnitId unitId, std::vector<ConfigShardEntry> records);
  // Steps 2 to 5 of every writer, after the configuration is written.
  Asic::LogVersion appendChange(Asic::LogVersion version, DeleteKind kind, Asic::UnitId unitId,
                                const EntryKey& key,
                                const Nimbo::Ptr<const Asic::NeededEntry>& neededEntry);
  void retire(const LogShardEntry& change);
  void cleanupFromMark(Asic::LogVersion mark, Asic::LogVersion version);
  void cleanupAll(Asic::LogVersion version);

  Nimbo::Ptr<EntryLogShard> tableEntryLog_;
  ConfigShardMap tableConfigShard_;
  bool relogOnMount_ = false;  // the change log was lost: units are logged again at mount
};

}  // namespace VeskTapAgg
