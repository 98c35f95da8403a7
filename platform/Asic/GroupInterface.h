#pragma once

#include <map>
#include <utility>
#include <vector>

#include <optional>

#include "Asic/GroupResolver.h"
#include "Asic/LogVersion.h"
#include "Asic/NeededEntry.h"
#include "Asic/OrderedSwTableSet.h"
#include "Asic/SwTableId.h"
#include "Asic/TableVersionShard.h"
#include "Cairn/EntityManager.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// Told of every change an entry log of the group records, once it is in shared memory.
class LogEntryObserver {
 public:
  virtual ~LogEntryObserver() = default;
  virtual void onLogEntry(SwTableId tableId, LogVersion version) = 0;
};

// What the table types of one group share: their group resolver, each type's table set,
// the newest logged version of each type, what each logged change needs of other tables,
// who waits for log entries (the hardware side's feeder, for one), and the group's
// table-version map in shared memory, where the hardware side records what it has taken.
// Made by the ordered-table interface, once per group; held by it and by the group's
// tables and entry logs by reference count; single-threaded: the agent's event thread.
class VESK_EXPORT GroupInterface : public Nimbo::Node {
 public:
  // A group without a table-version map: nothing is ever recorded as taken.
  GroupInterface();
  // The group "<agent>.<group>", whose table-version map is in `em`'s namespace.
  GroupInterface(Nimbo::String canonicalName, Nimbo::Ptr<Cairn::EntityManager> em);

  const Nimbo::String& canonicalName() const noexcept { return canonicalName_; }
  const Nimbo::Ptr<GroupResolver>& groupResolver() const noexcept { return groupResolver_; }

  // Each table type's set of software tables, by table id.
  Nimbo::Ptr<OrderedSwTableSet> swTableSet(SwTableId tableId) const;
  bool swTableSetHas(SwTableId tableId) const { return swTableSets_.contains(tableId); }
  void swTableSetIs(const Nimbo::Ptr<OrderedSwTableSet>& set);
  void swTableSetDel(SwTableId tableId);

  // The version the hardware side has recorded as taken for `tableId`, if any. The map is
  // mounted read-only on first use, once the hardware side has made it. Any failure of the
  // lookup (a damaged record, no stable read while the hardware side is stopped inside a
  // write) is reported to the map (doCorruptionDetected) and read as no version.
  std::optional<LogVersion> tableVersion(SwTableId tableId);
  // The mounted map; null until the hardware side has made it (or without one).
  const Nimbo::Ptr<TableVersionShard>& tableVersionMap();

  // Records a logged change of `tableId` at `version` and tells the observers. Only
  // non-empty needs are kept.
  void addLogEntry(SwTableId tableId, LogVersion version,
                   const Nimbo::Ptr<const NeededEntry>& neededEntry);
  // The newest version addLogEntry was given for the table type; 0 before the first.
  LogVersion loggedVersion(SwTableId tableId) const;
  // What the change at `version` of the table type needs; null when nothing.
  Nimbo::Ptr<const NeededEntry> neededEntry(SwTableId tableId, LogVersion version) const;

  // Observers are not owned; one removes itself before it goes, and not while it is told.
  void logEntryObserverIs(LogEntryObserver* observer);
  void logEntryObserverDel(LogEntryObserver* observer);

 private:
  Nimbo::String canonicalName_;
  Nimbo::Ptr<Cairn::EntityManager> em_;
  Nimbo::Ptr<GroupResolver> groupResolver_;
  std::map<SwTableId, Nimbo::Ptr<OrderedSwTableSet>> swTableSets_;
  Nimbo::Ptr<TableVersionShard> tableVersionMap_;
  // A handful of table types per group: a flat list beats a tree here.
  std::vector<std::pair<SwTableId, LogVersion>> loggedVersions_;
  std::map<std::pair<SwTableId, LogVersion>, Nimbo::Ptr<const NeededEntry>> needs_;
  std::vector<LogEntryObserver*> observers_;
};

}  // namespace Asic
