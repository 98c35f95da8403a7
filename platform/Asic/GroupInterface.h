#pragma once

#include <map>
#include <utility>
#include <vector>

#include "Asic/LogVersion.h"
#include "Asic/NeededEntry.h"
#include "Asic/SwTableId.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// Told of every change an entry log of the group records, once it is in shared memory.
class LogEntryObserver {
 public:
  virtual ~LogEntryObserver() = default;
  virtual void onLogEntry(SwTableId tableId, LogVersion version) = 0;
};

// What the table types of one group share: the newest logged version of each table type,
// what each logged change needs of other tables, and who waits for log entries (the
// hardware side's feeder, for one). Owned by the group's tables by reference count;
// single-threaded: the agent's event thread.
class VESK_EXPORT GroupInterface : public Nimbo::Node {
 public:
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
  // A handful of table types per group: a flat list beats a tree here.
  std::vector<std::pair<SwTableId, LogVersion>> loggedVersions_;
  std::map<std::pair<SwTableId, LogVersion>, Nimbo::Ptr<const NeededEntry>> needs_;
  std::vector<LogEntryObserver*> observers_;
};

}  // namespace Asic
