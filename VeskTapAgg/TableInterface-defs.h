#pragma once

// The body of TableInterface, included by the one file that instantiates it for every
// table type (Interface.cpp).

#include <fmt/format.h>

#include "Asic/Constants.h"
#include "Asic/SwTableInterfacesSingleton.h"
#include "KestSharedMem/EntityManager.h"
#include "Nimbo/Assert.h"
#include "VeskTapAgg/TableInterface.h"

namespace VeskTapAgg {

#define VESK_INTERFACE_TRACE(level, ...) \
  VESK_TRACE_FROM(traceHandle(), level, sourceName().c_str(), className().c_str(), __VA_ARGS__)

namespace interface_detail {

inline const uint32_t kClearedEvent = Kest::RingLog::eventIdFor("swTableCleared", "unitId: {}");
inline const uint32_t kRestoredEvent =
    Kest::RingLog::eventIdFor("swTableRestored", "restored {} entries, unitId: {}");

}  // namespace interface_detail

template <TableTraits Traits>
const Nimbo::String& TableInterface<Traits>::intfName() {
  static const Nimbo::String name = "VeskTapAgg::" + className();
  return name;
}

template <TableTraits Traits>
Nimbo::Ptr<TableInterface<Traits>> TableInterface<Traits>::getIntf(
    const Nimbo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf) {
  Nimbo::Ptr<Asic::SwTableInterfacesSingleton> singleton =
      Asic::SwTableInterfacesSingleton::singleton();
  if (Nimbo::Ptr<Asic::TableInterfaceBase> existing = singleton->swTableIntf(intfName())) {
    return Nimbo::dynamicPtrCast<TableInterface>(existing);
  }
  return Nimbo::make<TableInterface>(orderedTableIntf);
}

template <TableTraits Traits>
TableInterface<Traits>::TableInterface(
    const Nimbo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf)
    : Asic::TableInterfaceBase(orderedTableIntf),
      tableName_(Traits::tableName),
      groupName_("VeskTapAggGroup"),
      agentName_("VeskTapAgg"),
      tableNamespace_("VeskTapAgg") {
  handleInitialized();
}

// The interface takes its type's tables with it: the group interface lets go of the
// table set and the set of its tables. Each table holds the entry log, which holds the
// group interface, so a set left in the group would keep all of them alive.
template <TableTraits Traits>
TableInterface<Traits>::~TableInterface() {
  onDelete();
  if (swTableSet_) {
    if (Nimbo::Ptr<Asic::GroupInterface> group = groupIntf()) group->swTableSetDel(tableId());
    while (!swTableSet_->swTables().empty())
      swTableSet_->swTableDel(swTableSet_->swTables().begin()->first);
  }
  entryLog_ = nullptr;
  swTableStatus_ = nullptr;
  swTableSet_ = nullptr;
}

template <TableTraits Traits>
Nimbo::String TableInterface<Traits>::canonicalGroupName() const {
  return Asic::Constants::canonicalizeGroupName(agentName_, groupName_);
}

template <TableTraits Traits>
Nimbo::Ptr<Asic::GroupInterface> TableInterface<Traits>::groupIntf() const {
  return orderedTableIntf()->groupInterface(canonicalGroupName());
}

template <TableTraits Traits>
void TableInterface<Traits>::handleInitialized() {
  Nimbo::Ptr<Asic::SwTableInterfacesSingleton> singleton =
      Asic::SwTableInterfacesSingleton::singleton();
  if (singleton->swTableIntfHas(intfName())) {
    const std::string condition = fmt::format("!singleton->swTableIntfHas( \"{}\" )", intfName());
    Nimbo::assertionFailed(condition.c_str(), __FILE__, __LINE__, __func__,
                           "Interface already created");
  }
  orderedTableIntf()->makeGroupIntf(agentName_, groupName_, tableId().agentAndGroupId());
  Nimbo::Ptr<Asic::GroupInterface> groupIntf = this->groupIntf();
  VESK_ASSERT(groupIntf);

  VESK_INTERFACE_TRACE(3, " Creating entry log for {}", tableId());
  entryLogIs(tableId(), orderedTableIntf()->entityManager(), groupIntf, agentName_);
  swTableStatusIs(tableId());
  if (std::optional<Asic::LogVersion> taken = groupIntf->tableVersion(tableId())) {
    entryLog_->cleanupEntryLog(*taken);
    VESK_INTERFACE_TRACE(3, " Cleaned entry log until table version: {}", *taken);
    if (*taken < entryLog_->tableVersion()) {
      VESK_INTERFACE_TRACE(2, " Turning ON pendingHwWrites");
      swTableStatus_->pendingHwWritesIs(true);
    }
  }
  VESK_INTERFACE_TRACE(2, " Entry log created for table id: {} at version: {}", tableId(),
                       entryLog_->tableVersion());
  swTableSetIs(tableId(), swTableStatus_);
  groupIntf->swTableSetIs(swTableSet_);
  orderedTableIntf()->swTableIntfIs(intfName(), this);
  singleton->swTableIntfIs(intfName(), Nimbo::Ptr<Asic::TableInterfaceBase>(this));
}

template <TableTraits Traits>
Nimbo::Ptr<TableSwTable<Traits>> TableInterface<Traits>::makeSwTable(
    Asic::UnitId unitId, const Nimbo::Ptr<SwTableHelperBase>& swTableHelper, bool clear) {
  VESK_INTERFACE_TRACE(8, "unitId: {}", unitId);
  Nimbo::Ptr<Asic::GroupInterface> groupIntf = this->groupIntf();
  VESK_ASSERT(groupIntf);
  // The condition is the assertion's text, kept as it stands.
  // clang-format off
  VESK_ASSERT(groupIntf->swTableSetHas( tableId() ));
  // clang-format on

  if (Nimbo::Ptr<Asic::OrderedSwTable> held = swTableSet_->swTable(unitId)) {
    VESK_INTERFACE_TRACE(3, "swTable with unitId: {} exists", unitId);
    Nimbo::Ptr<SwTable> existingTbl = Nimbo::dynamicPtrCast<SwTable>(held);
    VESK_ASSERT(existingTbl);
    if (swTableHelper) {
      VESK_INTERFACE_TRACE(2, "Update software table helper");
      existingTbl->swTableHelperIs(swTableHelper);
    }
    if (clear) {
      VESK_INTERFACE_TRACE(2, " Clearing entries for table id: {}", tableId());
      existingTbl->clearTable(false);
    }
    return existingTbl;
  }

  const Asic::LogVersion version = groupIntf->tableVersion(tableId()).value_or(Asic::LogVersion());
  entryLog_->mountShardConfig(unitId, version);
  auto name = Nimbo::make<Asic::CanonicalTableName>(Asic::CanonicalTableName::orderedTable,
                                                    groupName_, tableNamespace_, tableName_);
  auto table = Nimbo::make<SwTable>(name, tableId(), unitId, swTableSet_.ptr(), entryLog_,
                                    groupIntf->groupResolver());
  if (swTableHelper) table->swTableHelperIs(swTableHelper);
  table->statusIs(swTableStatus_);
  if (clear) {
    ringLog_.record(interface_detail::kClearedEvent, unitId.value());
    VESK_INTERFACE_TRACE(2, " Clearing entries for table: {}, unitId: {}", tableName_, unitId);
    table->clearTable(false);
  } else {
    table->restoreEntries();
    const uint32_t restored = table->entrys();
    ringLog_.record(interface_detail::kRestoredEvent, restored, unitId.value());
    VESK_INTERFACE_TRACE(2, " Restored {} entries for table: {}, unitId: {}", restored, tableName_,
                         unitId);
  }
  swTableSet_->swTableIs(table);
  table->tableStatusVersion(version);
  return table;
}

template <TableTraits Traits>
void TableInterface<Traits>::reconcile() {
  VESK_INTERFACE_TRACE(8, "");
  const Nimbo::Ptr<Cairn::EntityManager>& em = orderedTableIntf()->entityManager();
  Nimbo::Ptr<KestSharedMem::EntityManager> shmEm =
      KestSharedMem::EntityManager::getEntityManager(em->name(), em->local());
  const Nimbo::String path = Asic::Constants::canonicalGroupTableConfigShardPathBase(
      canonicalGroupName(), tableNamespace_, tableName_);
  const std::vector<Nimbo::String> found = shmEm->findEntities(path, 1);
  VESK_INTERFACE_TRACE(3, " No. of config entities found: {}, in shard path: {}", found.size(),
                       path);
  for (const Nimbo::String& name : found) {
    const Asic::UnitId unitId = Asic::Constants::getUnitIdFromConfigPath(name);
    if (swTableSet_->swTableHas(unitId)) continue;
    VESK_INTERFACE_TRACE(3, " Found inactive unit id: {} ", unitId);
    makeSwTable(unitId, nullptr, true);
  }
}

template <TableTraits Traits>
void TableInterface<Traits>::onDelete() {
  VESK_INTERFACE_TRACE(2, " onDelete ");
  orderedTableIntf()->swTableIntfDel(intfName());
}

template <TableTraits Traits>
const Nimbo::Ptr<typename TableInterface<Traits>::EntryLog>& TableInterface<Traits>::entryLogIs(
    Asic::SwTableId tableId, const Nimbo::Ptr<Cairn::EntityManager>& em,
    const Nimbo::Ptr<Asic::GroupInterface>& groupIntf, const Nimbo::String& agentName) {
  const bool same = entryLog_ && entryLog_->tableId() == tableId &&
                    entryLog_->entityManager() == em && entryLog_->groupInterface() == groupIntf &&
                    entryLog_->agentName() == agentName;
  if (!same) entryLog_ = Nimbo::make<EntryLog>(tableId, em, groupIntf, agentName);
  return entryLog_;
}

template <TableTraits Traits>
const Nimbo::Ptr<Asic::OrderedSwTableStatus>& TableInterface<Traits>::swTableStatusIs(
    Asic::SwTableId tableId) {
  if (!swTableStatus_ || swTableStatus_->tableId() != tableId) {
    swTableStatus_ = Nimbo::make<Asic::OrderedSwTableStatus>(tableId);
  }
  return swTableStatus_;
}

template <TableTraits Traits>
const Nimbo::Ptr<Asic::OrderedSwTableSet>& TableInterface<Traits>::swTableSetIs(
    Asic::SwTableId tableId, const Nimbo::Ptr<Asic::OrderedSwTableStatus>& status) {
  if (!swTableSet_ || swTableSet_->tableId() != tableId || swTableSet_->status() != status) {
    swTableSet_ = Nimbo::make<Asic::OrderedSwTableSet>(tableId, status);
  }
  return swTableSet_;
}

#undef VESK_INTERFACE_TRACE

}  // namespace VeskTapAgg
