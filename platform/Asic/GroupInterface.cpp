#include "Asic/GroupInterface.h"

#include <algorithm>

namespace Asic {

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
