#pragma once

#include <utility>

#include "Asic/OrderedSwTableSet.h"
#include "Asic/OrderedSwTableStatus.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/TableInterfaceBase.h"
#include "Kest/RingLog.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/GeneratedNames.h"
#include "VeskTapAgg/SwTable.h"
#include "VeskTapAgg/TypeRecords.h"

namespace VeskTapAgg {

// Where one table type meets the ordered-table framework: made once per process by
// getIntf(), it registers the type (group interface, entry log cleaned up to what the
// hardware side has taken, status, table set, both registries), then makes the software
// table of each unit on demand, restored from shared memory or cleared, and clears units
// that have configuration but no table (reconcile). Written once over the traits;
// Interface.h names it <T>Interface. Owned by the process-wide registry of table
// interfaces, which keeps it for the life of the process; single-threaded: the agent's
// event thread.
template <TableTraits Traits>
class TableInterface : public Asic::TableInterfaceBase {
 public:
  using EntryLog = typename NamedEntryLog<Traits>::Type;
  using SwTable = TableSwTable<Traits>;
  using SwTableHelperBase = TableSwTableHelperBase<Traits>;

  // The table type's interface, made (and registered) on the first call.
  static Nimbo::Ptr<TableInterface> getIntf(
      const Nimbo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf);

  // Only getIntf makes one; a second of one type stops the agent.
  explicit TableInterface(const Nimbo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf);
  ~TableInterface() override;

  void handleInitialized();
  // The software table of `unitId`, made on the first call: mounted at the version the
  // hardware side has taken, restored (or cleared when `clear`), then entered in the table
  // set. A later call returns it, taking `swTableHelper` when given and clearing on `clear`.
  Nimbo::Ptr<SwTable> makeSwTable(Asic::UnitId unitId,
                                  const Nimbo::Ptr<SwTableHelperBase>& swTableHelper, bool clear);
  void reconcile() override;
  void onDelete();
  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, InterfaceKind>::get();
  }

  // "VeskTapAgg::<T>Interface": the name both registries know the interface by.
  static const Nimbo::String& intfName();
  // "<T>Interface", its trace handle's name, and "VeskTapAgg/<T>Interface", its source.
  static const Nimbo::String& className() { return Names::className(); }
  static const Nimbo::String& sourceName() { return Names::sourceName(); }
  static Kest::TraceHandle& traceHandle() { return Names::traceHandle(); }

  static constexpr Asic::SwTableId tableId() noexcept { return Traits::tableId; }
  const Nimbo::String& tableName() const noexcept { return tableName_; }
  const Nimbo::String& groupName() const noexcept { return groupName_; }
  const Nimbo::String& agentName() const noexcept { return agentName_; }
  const Nimbo::String& tableNamespace() const noexcept { return tableNamespace_; }

  // Each setter keeps the object it holds when that was built from equal arguments, else
  // makes a new one; each ...Del hands the held object back and leaves the field null.
  const Nimbo::Ptr<EntryLog>& entryLog() const noexcept { return entryLog_; }
  const Nimbo::Ptr<EntryLog>& entryLogIs(Asic::SwTableId tableId,
                                         const Nimbo::Ptr<Cairn::EntityManager>& em,
                                         const Nimbo::Ptr<Asic::GroupInterface>& groupIntf,
                                         const Nimbo::String& agentName);
  Nimbo::Ptr<EntryLog> entryLogDel() { return std::exchange(entryLog_, nullptr); }
  const Nimbo::Ptr<Asic::OrderedSwTableStatus>& swTableStatus() const noexcept {
    return swTableStatus_;
  }
  const Nimbo::Ptr<Asic::OrderedSwTableStatus>& swTableStatusIs(Asic::SwTableId tableId);
  Nimbo::Ptr<Asic::OrderedSwTableStatus> swTableStatusDel() {
    return std::exchange(swTableStatus_, nullptr);
  }
  const Nimbo::Ptr<Asic::OrderedSwTableSet>& swTableSet() const noexcept { return swTableSet_; }
  const Nimbo::Ptr<Asic::OrderedSwTableSet>& swTableSetIs(
      Asic::SwTableId tableId, const Nimbo::Ptr<Asic::OrderedSwTableStatus>& status);
  Nimbo::Ptr<Asic::OrderedSwTableSet> swTableSetDel() {
    return std::exchange(swTableSet_, nullptr);
  }

  // What the interface did lately: tables cleared and restored, for post-mortem reading.
  const Kest::RingLog& ringLog() const noexcept { return ringLog_; }

 private:
  using Names = GeneratedNames<Traits, InterfaceKind>;
  Nimbo::String canonicalGroupName() const;
  Nimbo::Ptr<Asic::GroupInterface> groupIntf() const;

  Nimbo::String tableName_;
  Nimbo::String groupName_;
  Nimbo::String agentName_;
  Nimbo::String tableNamespace_;
  Nimbo::Ptr<EntryLog> entryLog_;
  Nimbo::Ptr<Asic::OrderedSwTableStatus> swTableStatus_;
  Nimbo::Ptr<Asic::OrderedSwTableSet> swTableSet_;
  Kest::RingLog ringLog_{64};
};

}  // namespace VeskTapAgg
