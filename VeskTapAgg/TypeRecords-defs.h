#pragma once

// The attribute list of every generated class, written once over the table type and made
// into the class's type record by TypeRecord<Traits, Kind>::get(). Included by the one
// file that instantiates the records for every table type (TypeRecords.cpp).

#include "Asic/Constants.h"
#include "Kest/AttrMakers.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/Interface.h"
#include "VeskTapAgg/SwTable.h"
#include "VeskTapAgg/TypeRecords.h"

namespace VeskTapAgg {

// ClassRecord<Traits, Kind>::make(name) builds the record of one class.
template <TableTraits Traits, class Kind>
struct ClassRecord;

template <TableTraits Traits, class Kind>
const Kest::TypeData& TypeRecord<Traits, Kind>::get() {
  static const Kest::TypeData record =
      ClassRecord<Traits, Kind>::make(GeneratedNames<Traits, Kind>::className());
  return record;
}

template <TableTraits Traits>
struct ClassRecord<Traits, SwTableKind> {
  using Self = TableSwTable<Traits>;
  using EntryKey = typename Traits::EntryKey;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("canonicalName",
                                  [](const Self& t) { return t.canonicalName()->name(); }),
            Kest::attrValue<Self>("entrys", [](const Self& t) { return t.entrys(); }),
            Kest::attrValue<Self>("hasPendingHwWrites",
                                  [](const Self& t) { return t.hasPendingHwWrites(); }),
            Kest::attrValue<Self>("tableId", [](const Self& t) { return t.tableId(); }),
            Kest::attrValue<Self>("unitId", [](const Self& t) { return t.unitId(); }),
            Kest::attrValue<Self>("transientRemoveAllVersion",
                                  [](const Self& t) { return t.transientRemoveAllVersion(); }),
            Kest::attrValue<Self>("entryLog", [](const Self& t) { return t.entryLog(); }),
            Kest::attrValue<Self>("groupResolver", [](const Self& t) { return t.groupResolver(); }),
            Kest::attrValue<Self>("stats", [](const Self& t) { return t.statsPtr(); }),
            Kest::attrValue<Self>("swTableSet", [](const Self& t) { return t.swTableSet(); }),
            Kest::attrValue<Self>(
                "swTableHelper", [](const Self& t) { return t.swTableHelper(); },
                [](Self& t, const Nimbo::Ptr<typename Self::SwTableHelperBase>& helper) {
                  t.swTableHelperIs(helper);
                }),
            Kest::attrCollection<Self>(
                "transientAddEntry",
                [](const Self& t) -> const auto& { return t.transientAddEntrys(); },
                [](Self& t, const EntryKey& key) { t.transientAddEntryDel(key); }),
            Kest::attrCollection<Self>(
                "transientRemoveEntry",
                [](const Self& t) -> const auto& { return t.transientRemoveEntrys(); },
                [](Self& t, const EntryKey& key) { t.transientRemoveEntryDel(key); }),
            Kest::attrCollection<Self>(
                "transientVersionForKey",
                [](const Self& t) -> const auto& { return t.transientVersionForKeys(); },
                [](Self& t, const EntryKey& key) { t.transientVersionForKeyDel(key); }),
            Kest::attrQueue<Self>(
                "entryHandleInLog",
                [](const Self& t) -> const auto& { return t.entryHandleInLogs(); }),
            Kest::attrOperation<Self>("clearTable",
                                      [](Self& t, bool release) { t.clearTable(release); },
                                      {"releaseResources"}),
            Kest::attrOperation<Self>("doCreateHwTable", [](Self& t) { t.doCreateHwTable(); }),
            Kest::attrOperation<Self>("handleInitialized", [](Self& t) { t.handleInitialized(); }),
            Kest::attrOperation<Self>("restoreEntries", [](Self& t) { t.restoreEntries(); }),
            Kest::attrOperation<Self>(
                "tableStatusVersion",
                [](Self& t, Asic::LogVersion version) { t.tableStatusVersion(version); },
                {"tableVersion"}),
        });
  }
};

// The walk state is the other class the framework may make itself: an empty state, on no
// table, whose first step ends the walk.
template <TableTraits Traits>
struct ClassRecord<Traits, SwTableIteratorStateKind> {
  using Self = TableSwTableIteratorState<Traits>;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("bookmarkKey", [](const Self& s) { return s.bookmarkKey(); }),
            Kest::attrOperation<Self>("maybeUpdateCurrentEntry",
                                      [](Self& s) { return s.maybeUpdateCurrentEntry(); }),
            Kest::attrValue<Self>("state", [](const Self& s) { return s.state().bits(); }),
            Kest::attrValue<Self>("swTable", [](const Self& s) { return s.swTable(); }),
        },
        []() { return Nimbo::make<Self>(nullptr); });
  }
};

template <TableTraits Traits>
struct ClassRecord<Traits, SwTableEntriesKind> {
  using Self = typename TableSwTable<Traits>::SwTableEntries_py;
  using EntryKey = typename Traits::EntryKey;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrCollection<Self>(
                "tableEntries", [](const Self& s) -> const auto& { return s.tableEntriesColl(); },
                [](Self& s, const EntryKey& key) { s.tableEntriesDel(key); }),
            Kest::attrOperation<Self>("tableEntriesDelAll",
                                      [](Self& s) { s.tableEntriesDelAll(); }),
        });
  }
};

template <TableTraits Traits>
struct ClassRecord<Traits, EntryHandleKind> {
  using Self = typename TableSwTable<Traits>::EntryHandle;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("entryState", [](const Self& h) { return h.entryState(); }),
            Kest::attrValue<Self>("entryVersion", [](const Self& h) { return h.entryVersion(); }),
            Kest::attrValue<Self>("key", [](const Self& h) { return h.key(); }),
            Kest::attrValue<Self>("logVersion", [](const Self& h) { return h.logVersion(); }),
            Kest::attrValue<Self>("swTable", [](const Self& h) { return h.swTable(); }),
            Kest::attrValue<Self>("tableId", [](const Self& h) { return h.tableId(); }),
            Kest::attrValue<Self>("tableName", [](const Self& h) { return h.tableName(); }),
        });
  }
};

template <TableTraits Traits>
struct ClassRecord<Traits, EntryWrapperKind> {
  using Self = TableEntryWrapper<Traits>;
  using SwTable = Nimbo::Ptr<TableSwTable<Traits>>;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("entry", [](const Self& w) { return w.entry(); }),
            Kest::attrValue<Self>("entryHandle", [](const Self& w) { return w.entryHandle(); }),
            Kest::attrValue<Self>("key", [](const Self& w) { return w.key(); }),
            Kest::attrValue<Self>("logEntry", [](const Self& w) { return w.logEntry(); }),
            Kest::attrOperation<Self>("finalizeOnFailure",
                                      [](Self& w, const SwTable& t, bool isDelete) {
                                        return w.finalizeOnFailure(t, isDelete);
                                      },
                                      {"swTable", "isDelete"}),
            Kest::attrOperation<Self>(
                "finalizeOnSuccess",
                [](Self& w, const SwTable& t, bool isDelete) { w.finalizeOnSuccess(t, isDelete); },
                {"swTable", "isDelete"}),
            Kest::attrOperation<Self>("retrieveClientData",
                                      [](Self& w) { w.retrieveClientData(); }),
            Kest::attrOperation<Self>("setResolvedFields", [](Self& w) { w.setResolvedFields(); }),
        });
  }
};

template <TableTraits Traits>
struct ClassRecord<Traits, ResolverEntryKind> {
  using Self = TableResolverEntry<Traits>;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("dependency", [](const Self& r) { return r.dependency(); }),
            Kest::attrValue<Self>("entryWrapper", [](const Self& r) { return r.entryWrapper(); }),
            Kest::attrValue<Self>("flags", [](const Self& r) { return r.flags(); }),
            Kest::attrValue<Self>("isEntryDeleted",
                                  [](const Self& r) { return r.isEntryDeleted(); }),
            Kest::attrValue<Self>("isTableDeleted",
                                  [](const Self& r) { return r.isTableDeleted(); }),
            Kest::attrValue<Self>("swTable", [](const Self& r) { return r.swTable(); }),
            Kest::attrOperation<Self>("isResolved", [](Self& r) { return r.isResolved(); }),
        });
  }
};

// The hook object is the one class the framework may make itself: a default one has no
// state and is what a table installs when it initialises.
template <TableTraits Traits>
struct ClassRecord<Traits, SwTableHelperBaseKind> {
  using Self = TableSwTableHelperBase<Traits>;
  using Wrapper = Nimbo::Ptr<TableEntryWrapper<Traits>>;
  using SwTable = Nimbo::Ptr<TableSwTable<Traits>>;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrOperation<Self>("finalizeOnSuccess",
                                      [](Self& h, const Wrapper& w, bool isDelete,
                                         const SwTable& t) { h.finalizeOnSuccess(w, isDelete, t); },
                                      {"entry", "isDelete", "swTable"}),
            Kest::attrOperation<Self>(
                "finalizeOnFailure",
                [](Self& h, const Wrapper& w, bool isDelete, const SwTable& t) {
                  return h.finalizeOnFailure(w, isDelete, t);
                },
                {"entry", "isDelete", "swTable"}),
            Kest::attrOperation<Self>(
                "finalizeOnResourceUpdate",
                [](Self& h, const Wrapper& w, const SwTable& t, bool someResourceHasFailed) {
                  return h.finalizeOnResourceUpdate(w, t, someResourceHasFailed);
                },
                {"entry", "swTable", "someResourceHasFailed"}),
        },
        []() { return Nimbo::make<Self>(); });
  }
};

template <TableTraits Traits>
struct ClassRecord<Traits, EntryLogKind> {
  using Self = TableEntryLog<Traits>;

  static Kest::TypeData make(const Nimbo::String& name) {
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("agentName", [](const Self& l) { return l.agentName(); }),
            Kest::attrValue<Self>("cleanupMark", [](const Self& l) { return l.cleanupMark(); }),
            Kest::attrValue<Self>("tableId", [](const Self& l) { return l.tableId(); }),
            Kest::attrValue<Self>("tableVersion", [](const Self& l) { return l.tableVersion(); }),
            Kest::attrValue<Self>("entityManager", [](const Self& l) { return l.entityManager(); }),
            Kest::attrValue<Self>("groupInterface",
                                  [](const Self& l) { return l.groupInterface(); }),
            Kest::attrValue<Self>("tableEntryLog", [](const Self& l) { return l.tableEntryLog(); }),
            Kest::attrCollection<Self>(
                "tableConfigShard",
                [](const Self& l) -> const auto& { return l.tableConfigShards(); },
                [](Self& l, Asic::UnitId unit) { l.tableConfigShardDel(unit); }),
            Kest::attrOperation<Self>("cleanupEntryLog",
                                      [](Self& l, Asic::LogVersion v) { l.cleanupEntryLog(v); },
                                      {"version"}),
            Kest::attrOperation<Self>(
                "entrys", [](const Self& l, Asic::UnitId u) { return l.entrys(u); }, {"unit"}),
            Kest::attrOperation<Self>(
                "entrysInDeletion",
                [](const Self& l, Asic::UnitId u) { return l.entrysInDeletion(u); }, {"unit"}),
            Kest::attrOperation<Self>(
                "mountShardConfig",
                [](Self& l, Asic::UnitId u, Asic::LogVersion v) { l.mountShardConfig(u, v); },
                {"unitId", "logVersion"}),
        });
  }
};

// The interface's attributes. "ordTblIntf" is the ordered-table interface under the name
// getIntf's argument goes by; "swTableHelper" and "unitId" name makeSwTable's arguments and
// "reset" nothing the interface does, so those three are listed but cannot be reached.
template <TableTraits Traits>
struct ClassRecord<Traits, InterfaceKind> {
  using Self = TableInterface<Traits>;
  using OrderedTableIntf = Nimbo::Ptr<Asic::OrderedTableInterface>;

  static Kest::TypeData make(const Nimbo::String& name) {
    using Kest::AttrKind;
    return Kest::makeTypeData<Self>(
        name,
        {
            Kest::attrValue<Self>("agentName", [](const Self& i) { return i.agentName(); }),
            Kest::attrValue<Self>(
                "entityManager",
                [](const Self& i) { return i.orderedTableIntf()->entityManager(); }),
            Kest::attrValue<Self>("entryLog", [](const Self& i) { return i.entryLog(); }),
            Kest::attrOperation<Self>(
                "getIntf", [](const Self&, const OrderedTableIntf& o) { return Self::getIntf(o); },
                {"orderedTableIntf"}),
            Kest::attrValue<Self>("groupInterface",
                                  [](const Self& i) {
                                    return i.orderedTableIntf()->groupInterface(
                                        Asic::Constants::canonicalizeGroupName(i.agentName(),
                                                                               i.groupName()));
                                  }),
            Kest::attrValue<Self>("groupName", [](const Self& i) { return i.groupName(); }),
            Kest::attrOperation<Self>("handleInitialized", [](Self& i) { i.handleInitialized(); }),
            Kest::attrOperation<Self>("makeSwTable",
                                      [](Self& i, Asic::UnitId unit,
                                         const Nimbo::Ptr<typename Self::SwTableHelperBase>& helper,
                                         bool clear) { return i.makeSwTable(unit, helper, clear); },
                                      {"unitId", "swTableHelper", "clear"}),
            Kest::attrOperation<Self>("onDelete", [](Self& i) { i.onDelete(); }),
            Kest::attrValue<Self>("ordTblIntf", [](const Self& i) { return i.orderedTableIntf(); }),
            Kest::attrValue<Self>("orderedTableIntf",
                                  [](const Self& i) { return i.orderedTableIntf(); }),
            Kest::attrDeclared("reset", AttrKind::operation),
            Kest::attrDeclared("swTableHelper", AttrKind::pointer),
            Kest::attrValue<Self>("swTableSet", [](const Self& i) { return i.swTableSet(); }),
            Kest::attrValue<Self>("swTableStatus", [](const Self& i) { return i.swTableStatus(); }),
            Kest::attrValue<Self>("tableId", [](const Self&) { return Self::tableId(); }),
            Kest::attrValue<Self>("tableName", [](const Self& i) { return i.tableName(); }),
            Kest::attrValue<Self>("tableNamespace",
                                  [](const Self& i) { return i.tableNamespace(); }),
            Kest::attrDeclared("unitId", AttrKind::value),
        });
  }
};

}  // namespace VeskTapAgg
