#pragma once

// The bodies of TableSwTable and of its entry wrapper, included by the one file that
// instantiates them for every table type (SwTable.cpp).

#include "OrderedTable/OrderedSwTableAccessor.h"
#include "VeskTapAgg/TablePendingChange.h"
#include "VeskTapAgg/TableSwTable.h"

namespace VeskTapAgg {

#define VESK_SW_TABLE_TRACE(level, className, ...) \
  VESK_TRACE_FROM(traceHandle(), level, sourceName().c_str(), className, __VA_ARGS__)

// The wrapper traces through its own handle ("<T>EntryWrapper"), from the unit it is
// generated in ("VeskTapAgg/<T>InfraTypes").
#define VESK_ENTRY_WRAPPER_TRACE(level, ...)                               \
  VESK_TRACE_FROM(Names::traceHandle(), level, Unit::sourceName().c_str(), \
                  Names::className().c_str(), __VA_ARGS__)

template <TableTraits Traits>
void TableEntryWrapper<Traits>::finalizeOnSuccess(const Nimbo::Ptr<SwTable>& swTable,
                                                  bool isDelete) {
  VESK_ENTRY_WRAPPER_TRACE(8, " key: {} isDeleted: {}", key(), isDelete);
  swTable->swTableHelper()->finalizeOnSuccess(Nimbo::Ptr<TableEntryWrapper>(this), isDelete,
                                              swTable);
}

template <TableTraits Traits>
bool TableEntryWrapper<Traits>::finalizeOnFailure(const Nimbo::Ptr<SwTable>& swTable,
                                                  bool isDelete) {
  VESK_ENTRY_WRAPPER_TRACE(8, " key: {} isDeleted: {}", key(), isDelete);
  const bool retVal = swTable->swTableHelper()->finalizeOnFailure(
      Nimbo::Ptr<TableEntryWrapper>(this), isDelete, swTable);
  VESK_ENTRY_WRAPPER_TRACE(3, " retVal: {}", retVal);
  return retVal;
}

template <TableTraits Traits>
Asic::SwTableId TableSwTable<Traits>::EntryHandle::tableId() const {
  VESK_TRACE_FROM(traceHandle(), 8, sourceName().c_str(), "EntryHandle", "");
  return swTable_->Asic::SwTableBase::tableId();
}

template <TableTraits Traits>
Nimbo::String TableSwTable<Traits>::EntryHandle::tableName() const {
  VESK_TRACE_FROM(traceHandle(), 8, sourceName().c_str(), "EntryHandle", "");
  return swTable_->canonicalName()->name();
}

template <TableTraits Traits>
TableSwTable<Traits>::TableSwTable(const Nimbo::Ptr<const Asic::CanonicalTableName>& name,
                                   Asic::SwTableId tableId, Asic::UnitId unitId,
                                   Asic::OrderedSwTableSet* swTableSet,
                                   const Nimbo::Ptr<EntryLog>& entryLog,
                                   const Nimbo::Ptr<Asic::GroupResolver>& groupResolver)
    : Asic::OrderedSwTable(name, tableId, unitId, swTableSet),
      transientAddEntry_(Traits::transientAddEntrySalt),
      transientRemoveEntry_(Traits::transientRemoveEntrySalt),
      transientVersionForKey_(Traits::transientVersionForKeySalt),
      entryLog_(entryLog),
      groupResolver_(groupResolver) {
  handleInitialized();
}

template <TableTraits Traits>
TableSwTable<Traits>::~TableSwTable() {
  publisher().mutedIs(true);
  entryHandleInLog_.delAll();
}

template <TableTraits Traits>
void TableSwTable<Traits>::handleInitialized() {
  VESK_SW_TABLE_TRACE(8, className().c_str(), "doesMarkSweep: False hwErrorHandling: False");
  swTableHelperIs(Nimbo::make<SwTableHelperBase>());
  statsIs();
}

// Changes.

template <TableTraits Traits>
typename TableSwTable<Traits>::EntryHandle::PtrConst TableSwTable<Traits>::entryWrite(
    const EntryKey& key, const Entry& entry,
    const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), " key: {}", key);
  return entryWriteWithResponseHandler(key, entry, dependency, ResponseHandler());
}

template <TableTraits Traits>
typename TableSwTable<Traits>::EntryHandle::PtrConst
TableSwTable<Traits>::entryWriteWithResponseHandler(
    const EntryKey& key, const Entry& entry,
    const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
    const ResponseHandler& responseHandler) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), " key: {}", key);
  return Asic::OrderedSwTableAccessor<TableSwTable>::entryWriteGeneric(*this, key, entry,
                                                                       dependency, responseHandler);
}

template <TableTraits Traits>
typename TableSwTable<Traits>::EntryHandle::PtrConst TableSwTable<Traits>::entryRemove(
    const EntryKey& key, const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), " key: {}", key);
  return entryRemoveWithResponseHandler(key, dependency, ResponseHandler());
}

template <TableTraits Traits>
typename TableSwTable<Traits>::EntryHandle::PtrConst
TableSwTable<Traits>::entryRemoveWithResponseHandler(
    const EntryKey& key, const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
    const ResponseHandler& responseHandler) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), " key: {}", key);
  return Asic::OrderedSwTableAccessor<TableSwTable>::entryRemoveGeneric(*this, key, dependency,
                                                                        responseHandler);
}

template <TableTraits Traits>
void TableSwTable<Traits>::entryRemoveAll(
    const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), "");
  entryRemoveAllWithResponseHandler(dependency, ResponseHandler());
}

template <TableTraits Traits>
void TableSwTable<Traits>::entryRemoveAllWithResponseHandler(
    const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
    const ResponseHandler& responseHandler) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), "");
  Asic::OrderedSwTableAccessor<TableSwTable>::entryRemoveAllGeneric(*this, dependency,
                                                                    responseHandler);
}

// Reads.

template <TableTraits Traits>
typename Traits::Entry TableSwTable<Traits>::entryRead(const EntryKey& key) const {
  VESK_SW_TABLE_TRACE(8, className().c_str(), " key: {}", key);
  return Asic::OrderedSwTableAccessor<TableSwTable>::entryReadGeneric(*this, key);
}

template <TableTraits Traits>
typename Traits::Entry TableSwTable<Traits>::entry(const EntryKey& key) const {
  return entryRead(key);
}

template <TableTraits Traits>
bool TableSwTable<Traits>::entryHas(const EntryKey& key) const {
  VESK_SW_TABLE_TRACE(8, "", "key: {}", key);
  if (transientAddEntry_.contains(key)) return true;
  if (transientRemoveEntry_.contains(key)) return false;
  if (transientRemoveAllVersion_.valid()) return false;
  return entryLog_->entryHas(key, unitId());
}

template <TableTraits Traits>
uint32_t TableSwTable<Traits>::entrys() const {
  if (transientRemoveAllVersion_.valid()) return uint32_t(transientAddEntry_.size());
  const uint32_t logged = entryLog_->entrys(unitId());
  uint32_t added = 0, removed = 0;
  for (const auto& [key, wrapper] : transientAddEntry_) {
    added += entryLog_->entryHas(key, unitId()) ? 0 : 1;
  }
  for (const auto& [key, wrapper] : transientRemoveEntry_) {
    removed += entryLog_->entryHas(key, unitId()) ? 1 : 0;
  }
  return added + logged - removed;
}

template <TableTraits Traits>
bool TableSwTable<Traits>::hasPendingHwWrites() const {
  VESK_SW_TABLE_TRACE(8, className().c_str(), "");
  return Asic::OrderedSwTableAccessor<TableSwTable>::hasPendingHwWrites(*this);
}

template <TableTraits Traits>
typename Traits::Entry TableSwTable<Traits>::entryFromConfig(const EntryKey& key) const {
  VESK_TRACE_FROM(traceHandle(), 8, "OrderedTable/OrderedSwTableAccessor", "", "key: {}", key);
  if (!entryLog_->tableConfigShardHas(unitId())) return Entry{};
  const LogEntry logEntry = entryLog_->entry(key, unitId());
  return entryOf(logEntry);
}

template <TableTraits Traits>
std::optional<typename Traits::Entry> TableSwTable<Traits>::liveEntryFromConfig(
    const EntryKey& key) const {
  const auto logEntry = entryLog_->liveEntry(key, unitId(), [&] {
    VESK_TRACE_AS(traceHandle(), 8, "OrderedTable/OrderedSwTableAccessor", "entryFromConfig", "",
                  "key: {}", key);
  });
  if (!logEntry) return std::nullopt;
  return entryOf(*logEntry);
}

// Resolution and commit.

template <TableTraits Traits>
bool TableSwTable<Traits>::isResolverEntryResolved(const Nimbo::Ptr<ResolverEntry>& resolverEntry) {
  return Asic::OrderedSwTableAccessor<TableSwTable>::isResolverEntryResolved(*this, resolverEntry);
}

template <TableTraits Traits>
void TableSwTable<Traits>::commitEntry(const Nimbo::Ptr<Asic::ResolverEntry>& resolverEntry) {
  Asic::OrderedSwTableAccessor<TableSwTable>::commitEntry(*this, resolverEntry);
}

template <TableTraits Traits>
Nimbo::Ptr<const Asic::OrderedSwTable::EntryHandle> TableSwTable<Traits>::updateEntry(
    const EntryKey& key) {
  return Asic::OrderedSwTableAccessor<TableSwTable>::updateEntry(*this, key);
}

template <TableTraits Traits>
Nimbo::Ptr<const Asic::NeededEntry> TableSwTable<Traits>::getNeededEntrySet(
    const Nimbo::Ptr<const EntryWrapper>& wrapper) const {
  if (wrapper) {
    VESK_TRACE_FROM(traceHandle(), 8, "OrderedTable/OrderedSwTableAccessor", "", "key: {}",
                    wrapper->key());
  }
  return Nimbo::make<Asic::NeededEntry>();
}

template <TableTraits Traits>
void TableSwTable<Traits>::setRsrcPtrs(const Nimbo::Ptr<EntryWrapper>& wrapper, bool refresh) {
  VESK_TRACE_FROM(traceHandle(), 8, "OrderedTable/OrderedSwTableAccessor", "",
                  "key: {}, refresh: {}", wrapper->key(), refresh);
}

// Restart and restore.

template <TableTraits Traits>
void TableSwTable<Traits>::clearTable(bool releaseResources) {
  VESK_SW_TABLE_TRACE(8, className().c_str(), "");
  Asic::OrderedSwTableAccessor<TableSwTable>::delAllEntries(*this, releaseResources, nullptr,
                                                            nullptr);
}

template <TableTraits Traits>
void TableSwTable<Traits>::tableStatusVersion(Asic::LogVersion tableVersion) {
  Asic::OrderedSwTableAccessor<TableSwTable>::tableStatusVersion(*this, tableVersion);
}

// Attributes.

template <TableTraits Traits>
void TableSwTable<Traits>::swTableHelperIs(const Nimbo::Ptr<SwTableHelperBase>& helper) {
  if (helper.ptr() == swTableHelper_.ptr()) return;
  swTableHelper_ = helper;
  publisher().announce("swTableHelper");
}

template <TableTraits Traits>
void TableSwTable<Traits>::wrapperIs(WrapperMap& map, const char* attribute,
                                     const Nimbo::Ptr<EntryWrapper>& wrapper) {
  if (!wrapper) {
    throw Nimbo::NullMutatorArgumentException(fmt::format("{}Is: null entry wrapper", attribute));
  }
  const EntryKey key = wrapper->key();
  auto [it, inserted] = map.insertOrReplace(key, wrapper);
  VESK_ASSERT_MSG(it->first == key, "fwkKey() == KeyFunktor()( _value )");
  publisher().announce(attribute, [&] { return fmt::format("{}", key); });
}

template <TableTraits Traits>
void TableSwTable<Traits>::wrapperDel(WrapperMap& map, const char* attribute, const EntryKey& key) {
  if (map.erase(key)) publisher().announce(attribute, [&] { return fmt::format("{}", key); });
}

template <TableTraits Traits>
void TableSwTable<Traits>::wrappersDelAll(WrapperMap& map, const char* attribute) {
  if (!publisher().observed()) {
    map.clear();
    return;
  }
  while (!map.empty()) {
    const EntryKey key = map.begin()->first;
    wrapperDel(map, attribute, key);
  }
}

template <TableTraits Traits>
Nimbo::Ptr<TableEntryWrapper<Traits>> TableSwTable<Traits>::wrapperIn(const WrapperMap& map,
                                                                      const EntryKey& key) {
  auto it = map.find(key);
  return it == map.end() ? nullptr : it->second;
}

template <TableTraits Traits>
Nimbo::Ptr<TableEntryWrapper<Traits>> TableSwTable<Traits>::transientAddEntry(
    const EntryKey& key) const {
  return wrapperIn(transientAddEntry_, key);
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientAddEntryIs(const Nimbo::Ptr<EntryWrapper>& wrapper) {
  wrapperIs(transientAddEntry_, "transientAddEntry", wrapper);
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientAddEntryDel(const EntryKey& key) {
  wrapperDel(transientAddEntry_, "transientAddEntry", key);
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientAddEntryDelAll() {
  wrappersDelAll(transientAddEntry_, "transientAddEntry");
}

template <TableTraits Traits>
Nimbo::Ptr<TableEntryWrapper<Traits>> TableSwTable<Traits>::transientRemoveEntry(
    const EntryKey& key) const {
  return wrapperIn(transientRemoveEntry_, key);
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientRemoveEntryIs(const Nimbo::Ptr<EntryWrapper>& wrapper) {
  wrapperIs(transientRemoveEntry_, "transientRemoveEntry", wrapper);
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientRemoveEntryDel(const EntryKey& key) {
  wrapperDel(transientRemoveEntry_, "transientRemoveEntry", key);
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientRemoveEntryDelAll() {
  wrappersDelAll(transientRemoveEntry_, "transientRemoveEntry");
}

template <TableTraits Traits>
Asic::EntryVersion TableSwTable<Traits>::transientVersionForKey(const EntryKey& key) const {
  return transientVersionForKeyGet(key).value_or(Asic::EntryVersion::invalid());
}

template <TableTraits Traits>
std::optional<Asic::EntryVersion> TableSwTable<Traits>::transientVersionForKeyGet(
    const EntryKey& key) const {
  auto it = transientVersionForKey_.find(key);
  if (it == transientVersionForKey_.end()) return std::nullopt;
  return it->second;
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientVersionForKeyIs(const EntryKey& key,
                                                    const Asic::EntryVersion& version) {
  auto it = transientVersionForKey_.find(key);
  if (it == transientVersionForKey_.end()) {
    transientVersionForKey_.insertOrReplace(key, version);
  } else if (it->second == version) {
    return;
  } else {
    it->second = version;
  }
  publisher().announce("transientVersionForKey", [&] { return fmt::format("{}", key); });
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientVersionForKeyDel(const EntryKey& key) {
  if (transientVersionForKey_.erase(key)) {
    publisher().announce("transientVersionForKey", [&] { return fmt::format("{}", key); });
  }
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientVersionForKeyDelAll() {
  if (transientVersionForKey_.empty()) return;
  transientVersionForKey_.clear();
  publisher().announce("transientVersionForKey");
}

template <TableTraits Traits>
void TableSwTable<Traits>::transientRemoveAllVersionIs(Asic::MajorVersion version) {
  if (version == transientRemoveAllVersion_) return;
  const Asic::MajorVersion old = transientRemoveAllVersion_;
  transientRemoveAllVersion_ = version;
  publisher().announce("transientRemoveAllVersion", [&] { return fmt::format("{}", old); });
}

template <TableTraits Traits>
uint32_t TableSwTable<Traits>::entryHandleInLogEnq(const Nimbo::Ptr<EntryHandle>& handle) {
  const uint32_t index = entryHandleInLog_.enq(handle);
  publisher().announce("entryHandleInLog", [&] { return fmt::format("{}", index); });
  return index;
}

template <TableTraits Traits>
Nimbo::Ptr<typename TableSwTable<Traits>::EntryHandle> TableSwTable<Traits>::entryHandleInLogDeq() {
  if (entryHandleInLog_.empty()) return nullptr;
  const uint32_t index = entryHandleInLog_.frontIndex();
  Nimbo::Ptr<EntryHandle> front = entryHandleInLog_.deq();
  publisher().announce("entryHandleInLog", [&] { return fmt::format("{}", index); });
  return front;
}

template <TableTraits Traits>
void TableSwTable<Traits>::entryHandleInLogDelAll() {
  if (!publisher().observed()) {
    entryHandleInLog_.delAll();
    return;
  }
  while (!entryHandleInLog_.empty()) entryHandleInLogDeq();
}

#undef VESK_SW_TABLE_TRACE

}  // namespace VeskTapAgg
