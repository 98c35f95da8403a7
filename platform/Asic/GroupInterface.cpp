#include "Asic/GroupInterface.h"

#include <algorithm>

#include "Asic/MountNamespace.h"
#include "Nimbo/Exception.h"

namespace Asic {

GroupInterface::GroupInterface() : groupResolver_(Nimbo::make<GroupResolver>()) {}

GroupInterface::GroupInterface(Nimbo::String canonicalName, Nimbo::Ptr<Cairn::EntityManager> em)
    : canonicalName_(std::move(canonicalName)),
      em_(std::move(em)),
      groupResolver_(Nimbo::make<GroupResolver>()) {}

Nimbo::Ptr<OrderedSwTableSet> GroupInterface::swTableSet(SwTableId tableId) const {
  auto it = swTableSets_.find(tableId);
  return it == swTableSets_.end() ? nullptr : it->second;
}

void GroupInterface::swTableSetIs(const Nimbo::Ptr<OrderedSwTableSet>& set) {
  swTableSets_[set->tableId()] = set;
}

void GroupInterface::swTableSetDel(SwTableId tableId) { swTableSets_.erase(tableId); }

const Nimbo::Ptr<TableVersionShard>& GroupInterface::tableVersionMap() {
  if (!tableVersionMap_ && em_) {
    tableVersionMap_ = TableVersionShard::mountReader(mountEntityManager(*em_), canonicalName_);
  }
  return tableVersionMap_;
}

std::optional<LogVersion> GroupInterface::tableVersion(SwTableId tableId) {
  const Nimbo::Ptr<TableVersionShard>& map = tableVersionMap();
  if (!map) return std::nullopt;
  try {
    return map->tableVersion(tableId);
  } catch (const Nimbo::Exception& e) {
    // A damaged record, or no stable read while the hardware side is stopped in the middle
    // of its write: either way the version is unknown, which is what the caller handles.
    map->tableVersions().map().doCorruptionDetected(e.what());
    return std::nullopt;
  }
}

void GroupInterface::addLogEntry(SwTableId tableId, LogVersion version,
                                 const Nimbo::Ptr<const NeededEntry>& neededEntry) {
  auto logged = std::find_if(loggedVersions_.begin(), loggedVersions_.end(),
                             [&](const auto& entry) { return entry.first == tableId; });
  if (logged == loggedVersions_.end()) {
    loggedVersions_.emplace_back(tableId, version);
  } else {
    logged->second = version;
  }
  if (neededEntry && !neededEntry->empty()) needs_[{tableId, version}] = neededEntry;
  for (LogEntryObserver* observer : observers_) observer->onLogEntry(tableId, version);
}

LogVersion GroupInterface::loggedVersion(SwTableId tableId) const {
  for (const auto& [table, version] : loggedVersions_) {
    if (table == tableId) return version;
  }
  return LogVersion();
}

Nimbo::Ptr<const NeededEntry> GroupInterface::neededEntry(SwTableId tableId,
                                                          LogVersion version) const {
  auto it = needs_.find({tableId, version});
  return it == needs_.end() ? nullptr : it->second;
}

void GroupInterface::logEntryObserverIs(LogEntryObserver* observer) {
  if (std::find(observers_.begin(), observers_.end(), observer) == observers_.end()) {
    observers_.push_back(observer);
  }
}

void GroupInterface::logEntryObserverDel(LogEntryObserver* observer) {
  observers_.erase(std::remove(observers_.begin(), observers_.end(), observer), observers_.end());
}

}  // namespace Asic
