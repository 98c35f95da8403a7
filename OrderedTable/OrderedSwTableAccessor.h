#pragma once

#include <limits>

#include "Asic/EntryFlags.h"
#include "Asic/NeededEntry.h"
#include "Kest/Clock.h"
#include "Kest/Trace.h"
#include "Nimbo/Assert.h"
#include "Nimbo/Exception.h"

namespace Asic {

// The algorithms every ordered software table runs, written once over its table class T
// (TableSwTable<Traits>): the write and remove pipeline, resolution and commit, and the
// restore-side reads. T keeps the state and its accessors; this keeps the steps. Traces go
// to T's handle under the source "OrderedTable/OrderedSwTableAccessor". Stateless;
// called on the agent's event thread.
template <class T>
class OrderedSwTableAccessor {
 public:
  using EntryKey = typename T::EntryKey;
  using Entry = typename T::Entry;
  using EntryHandle = typename T::EntryHandle;
  using EntryWrapper = typename T::EntryWrapper;
  using ResolverEntry = typename T::ResolverEntry;
  using ResponseHandler = typename T::ResponseHandler;
  using Dependency = Nimbo::Ptr<const DependencyEntryHandle>;

  static constexpr uint32_t kChangeLogFull = 1000000;

  static typename EntryHandle::PtrConst entryWriteGeneric(T& table, const EntryKey& key,
                                                          const Entry& entry,
                                                          const Dependency& dependency,
                                                          const ResponseHandler& handler);
  static typename EntryHandle::PtrConst entryRemoveGeneric(T& table, const EntryKey& key,
                                                           const Dependency& dependency,
                                                           const ResponseHandler& handler);
  static void entryRemoveAllGeneric(T& table, const Dependency& dependency,
                                    const ResponseHandler& handler);
  static bool hasPendingHwWrites(const T& table);

  static bool isResolverEntryResolved(T& table, const Nimbo::Ptr<ResolverEntry>& resolverEntry);
  static void commitEntry(T& table, const Nimbo::Ptr<Asic::ResolverEntry>& resolverEntry);
  static Nimbo::Ptr<const OrderedSwTable::EntryHandle> updateEntry(T& table, const EntryKey& key);

  static void delAllEntries(T& table, bool releaseResources,
                            const Nimbo::Ptr<const NeededEntry>& neededEntry,
                            const Nimbo::Ptr<EntryHandle>& entryHandle);
  static Nimbo::Ptr<EntryWrapper> entryWrapperFromConfig(
      T& table, const EntryKey& key, bool refreshRsrcPtrs,
      Nimbo::Ptr<OrderedSwTable::EntryHandle>& entryHandle);
  static Entry entryReadGeneric(const T& table, const EntryKey& key);
  static void tableStatusVersion(T& table, LogVersion tableVersion);

 private:
  static EntryVersion nextVersion(T& table, const EntryKey& key);
  static void enqueue(T& table, Nimbo::Ptr<ResolverEntry> resolverEntry);
  static void settle(T& table);
  static void answer(const Nimbo::Ptr<EntryHandle>& handle, EntryState state);
  static void clearTransient(T& table, const EntryKey& key, const EntryVersion& committed,
                             bool add);
  static void traceConfigRead(const EntryKey& key);
  static Nimbo::Ptr<const NeededEntry> neededWith(const Nimbo::Ptr<const NeededEntry>& needed,
                                                  const Dependency& dependency);
  static void commitFailed(const Nimbo::Ptr<EntryHandle>& handle, bool isTableDelete,
                           const EntryKey& key);
  static void commitTableDelete(T& table, const ResolverEntry& resolverEntry,
                                const Nimbo::Ptr<EntryHandle>& handle);
  static void commitEntryDelete(T& table, const ResolverEntry& resolverEntry,
                                const Nimbo::Ptr<EntryHandle>& handle);
  static void commitEntryWrite(T& table, const ResolverEntry& resolverEntry,
                               const Nimbo::Ptr<EntryHandle>& handle);
};

}  // namespace Asic

#define VESK_ACCESSOR_TRACE(level, ...) \
  VESK_TRACE_FROM(T::traceHandle(), level, "OrderedTable/OrderedSwTableAccessor", "", __VA_ARGS__)

namespace Asic {

template <class T>
EntryVersion OrderedSwTableAccessor<T>::nextVersion(T& table, const EntryKey& key) {
  const std::optional<EntryVersion> current = table.transientVersionForKeyGet(key);
  if (!current) {
    VESK_ACCESSOR_TRACE(8, " Key: {} not found in entry version collection", key);
    return EntryVersion::first();
  }
  const EntryVersion currEntryVersion = *current;
  VESK_ASSERT(currEntryVersion.valid());
  return currEntryVersion.next();
}

template <class T>
void OrderedSwTableAccessor<T>::enqueue(T& table, Nimbo::Ptr<ResolverEntry> resolverEntry) {
  table.groupResolver()->resolverQueueEnq(std::move(resolverEntry));
  table.groupResolver()->updateGenId();
}

// What every change ends with: the resolver and the table set look again.
template <class T>
void OrderedSwTableAccessor<T>::settle(T& table) {
  table.groupResolver()->maybeUpdateSuspend();
  if (table.swTableSet()) table.swTableSet()->maybeUpdatePendingHwWrites();
}

template <class T>
typename T::EntryHandle::PtrConst OrderedSwTableAccessor<T>::entryWriteGeneric(
    T& table, const EntryKey& key, const Entry& entry, const Dependency& dependency,
    const ResponseHandler& handler) {
  VESK_ACCESSOR_TRACE(8, "key: {}", key);
  const EntryVersion version = nextVersion(table, key);
  table.transientVersionForKeyIs(key, version);
  auto change =
      T::PendingChange::made(table, version, key, handler, entry, dependency, EntryFlags::write);
  change.wrapper->keyIs(key);
  table.transientRemoveEntryDel(key);
  table.transientAddEntryIs(change.wrapper);
  enqueue(table, std::move(change.resolverEntry));
  VESK_ACCESSOR_TRACE(2, "Done processing write for key: {} ", key);
  table.stats().entryWriteCntInc(1);
  settle(table);
  return std::move(change.handle);
}

template <class T>
typename T::EntryHandle::PtrConst OrderedSwTableAccessor<T>::entryRemoveGeneric(
    T& table, const EntryKey& key, const Dependency& dependency, const ResponseHandler& handler) {
  VESK_ACCESSOR_TRACE(8, " Key: {} ", key);
  const EntryVersion version = nextVersion(table, key);
  table.transientVersionForKeyIs(key, version);
  Entry removed{};
  removed.entryKey = key;
  auto change =
      T::PendingChange::made(table, version, key, handler, removed, dependency, EntryFlags::remove);
  table.transientAddEntryDel(key);
  table.transientRemoveEntryIs(change.wrapper);
  enqueue(table, std::move(change.resolverEntry));
  VESK_ACCESSOR_TRACE(2, " Done processing remove for key: {} ", key);
  table.stats().entryRemoveCntInc(1);
  settle(table);
  return std::move(change.handle);
}

template <class T>
void OrderedSwTableAccessor<T>::entryRemoveAllGeneric(T& table, const Dependency& dependency,
                                                      const ResponseHandler& handler) {
  VESK_ACCESSOR_TRACE(8, "");
  auto change = T::PendingChange::made(table, EntryVersion::first(), EntryKey{}, handler, Entry{},
                                       dependency, EntryFlags::removeAll);
  table.transientAddEntryDelAll();
  table.transientRemoveEntryDelAll();
  const MajorVersion pending = table.transientRemoveAllVersion();
  if (pending.valid()) {
    VESK_ACCESSOR_TRACE(8, "Found valid table remove all version: {}", pending);
  } else {
    VESK_ACCESSOR_TRACE(8, "No remove all operation currently enqueued");
  }
  table.transientRemoveAllVersionIs(pending.next());
  enqueue(table, std::move(change.resolverEntry));
  VESK_ACCESSOR_TRACE(2, "Done processing remove all ");
  settle(table);
}

template <class T>
bool OrderedSwTableAccessor<T>::hasPendingHwWrites(const T& table) {
  bool pending = !table.transientAddEntrys().empty() || !table.transientRemoveEntrys().empty() ||
                 table.transientRemoveAllVersion().valid();
  if (!pending && table.entryLog()) {
    pending = table.entryLog()->tableVersion() != table.entryLog()->cleanupMark();
  }
  VESK_ACCESSOR_TRACE(3, " pendingHwWrites for swTable: tableId: {}, unitId{} is {}",
                      table.tableId(), table.unitId(), pending);
  return pending;
}

template <class T>
bool OrderedSwTableAccessor<T>::isResolverEntryResolved(
    T& table, const Nimbo::Ptr<ResolverEntry>& resolverEntry) {
  const Nimbo::Ptr<EntryWrapper>& wrapper = resolverEntry->entryWrapper();
  const EntryKey& key = wrapper->key();
  if (table.entryLog()->tableEntryLog()->entryLogConfigSize() > kChangeLogFull - 1) {
    VESK_ACCESSOR_TRACE(1, "key: {}, isEntryDeleted: {} : no space in entryLog!", key,
                        resolverEntry->isEntryDeleted());
    return false;
  }
  if (const Dependency& dependency = resolverEntry->dependency()) {
    if (dependency->state() == DependencyEntryHandle::unresolved) {
      VESK_ACCESSOR_TRACE(3, "key: {} dependant entry not yet resolved", key);
      return false;
    }
    VESK_ACCESSOR_TRACE(3, "key: {} dependant entry is resolved", key);
  }
  if (!resolverEntry->isEntryDeleted()) table.setRsrcPtrs(wrapper, true);
  VESK_ACCESSOR_TRACE(3, "key: {}, isEntryDeleted: {}, isTableDeleted: {}, resolved: true", key,
                      resolverEntry->isEntryDeleted(), resolverEntry->isTableDeleted());
  return true;
}

template <class T>
void OrderedSwTableAccessor<T>::answer(const Nimbo::Ptr<EntryHandle>& handle, EntryState state) {
  handle->entryStateIs(state);
  if (handle->responseHandler()) {
    const ResponseHandler copy = handle->responseHandler();
    copy(Nimbo::Ptr<const OrderedSwTable::EntryHandle>(handle));
  }
}

// `needed` itself when the dependency adds nothing: every commit would copy an empty set.
template <class T>
Nimbo::Ptr<const NeededEntry> OrderedSwTableAccessor<T>::neededWith(
    const Nimbo::Ptr<const NeededEntry>& needed, const Dependency& dependency) {
  const std::optional<NeededEntry::Need> need =
      dependency ? dependency->tableVersion() : std::nullopt;
  if (needed && !need) return needed;
  auto all = Nimbo::make<NeededEntry>();
  if (needed) {
    for (const auto& [table, version] : needed->needs()) all->needIs(table, version);
  }
  if (need) all->add(*need);
  return all;
}

// A commit reads the stored entry only for the record of it: these tables keep no
// resources that would differ, so the lookup (a random read of shared memory) is left out
// and only its trace is written.
template <class T>
void OrderedSwTableAccessor<T>::traceConfigRead(const EntryKey& key) {
  VESK_ACCESSOR_TRACE(8, "key: {}", key);
}

template <class T>
void OrderedSwTableAccessor<T>::clearTransient(T& table, const EntryKey& key,
                                               const EntryVersion& committed, bool add) {
  const Nimbo::Ptr<EntryWrapper> pending =
      add ? table.transientAddEntry(key) : table.transientRemoveEntry(key);
  if (!pending || !(pending->entryHandle()->entryVersion() == committed)) return;
  if (add) {
    table.transientAddEntryDel(key);
  } else {
    table.transientRemoveEntryDel(key);
  }
  table.transientVersionForKeyDel(key);
}

template <class T>
void OrderedSwTableAccessor<T>::commitFailed(const Nimbo::Ptr<EntryHandle>& handle,
                                             bool isTableDelete, const EntryKey& key) {
  if (isTableDelete) {
    VESK_ACCESSOR_TRACE(1, "Failed dependent entry for remove all");
    VESK_ACCESSOR_TRACE(1, "Failed to commit entry remove all operation");
  } else {
    VESK_ACCESSOR_TRACE(1, "Failed dependent entry for key: {}", key);
    VESK_ACCESSOR_TRACE(1, "Failed to commit entry key: {}", key);
  }
  answer(handle, EntryState::failed);
}

template <class T>
void OrderedSwTableAccessor<T>::commitTableDelete(T& table, const ResolverEntry& resolverEntry,
                                                  const Nimbo::Ptr<EntryHandle>& handle) {
  const MajorVersion currRemoveAllVersion = table.transientRemoveAllVersion();
  VESK_ASSERT(currRemoveAllVersion.valid());
  VESK_ACCESSOR_TRACE(8, "Committing table delete for version: {}", currRemoveAllVersion);
  const auto needed =
      neededWith(table.getNeededEntrySet(resolverEntry.entryWrapper()), resolverEntry.dependency());
  delAllEntries(table, true, needed, handle);
  // One less, not a reset: with 0 it wraps to the invalid value exactly when the last
  // pending remove-all has been committed.
  table.transientRemoveAllVersionIs(MajorVersion(currRemoveAllVersion.value() - 1));
}

template <class T>
void OrderedSwTableAccessor<T>::commitEntryDelete(T& table, const ResolverEntry& resolverEntry,
                                                  const Nimbo::Ptr<EntryHandle>& handle) {
  const EntryKey& key = resolverEntry.entryWrapper()->key();
  traceConfigRead(key);
  const auto needed = neededWith(nullptr, resolverEntry.dependency());
  clearTransient(table, key, handle->entryVersion(), false);
  resolverEntry.entryWrapper()->finalizeOnSuccess(Nimbo::Ptr<T>(&table), true);
  const LogVersion logVersion = table.entryLog()->entryDel(key, needed, table.unitId());
  handle->logVersionIs(logVersion);
  if (!logVersion.valid()) {
    answer(handle, EntryState::done);
    return;
  }
  handle->entryStateIs(EntryState::inLog);
  table.entryHandleInLogEnq(handle);
}

template <class T>
void OrderedSwTableAccessor<T>::commitEntryWrite(T& table, const ResolverEntry& resolverEntry,
                                                 const Nimbo::Ptr<EntryHandle>& handle) {
  const Nimbo::Ptr<EntryWrapper>& wrapper = resolverEntry.entryWrapper();
  wrapper->finalizeOnSuccess(Nimbo::Ptr<T>(&table), false);
  clearTransient(table, wrapper->key(), handle->entryVersion(), true);
  const auto needed = neededWith(table.getNeededEntrySet(wrapper), resolverEntry.dependency());
  traceConfigRead(wrapper->key());
  const LogVersion logVersion = table.entryLog()->entryIs(wrapper->logEntry(), {}, needed,
                                                          table.unitId(), table.statsPtr(), false);
  handle->logVersionIs(logVersion);
  if (logVersion > table.entryLog()->cleanupMark()) {
    handle->entryStateIs(EntryState::inLog);
    table.entryHandleInLogEnq(handle);
  } else {
    answer(handle, EntryState::done);
  }
}

template <class T>
void OrderedSwTableAccessor<T>::commitEntry(T& table, const Nimbo::Ptr<Asic::ResolverEntry>& base) {
  const auto* resolverEntry = Nimbo::downCast<const ResolverEntry>(base.ptr());
  VESK_ASSERT(resolverEntry != nullptr);
  const bool isEntryDelete = resolverEntry->isEntryDeleted();
  const bool isTableDelete = resolverEntry->isTableDeleted();
  const Nimbo::Ptr<EntryWrapper>& wrapper = resolverEntry->entryWrapper();
  VESK_ACCESSOR_TRACE(8, "Entry: {}, isEntryDeleted: {}, isTableDeleted: {}", wrapper->entry(),
                      isEntryDelete, isTableDelete);
  // The condition is the assertion's text, kept as it stands.
  // clang-format off
  VESK_ASSERT(!( isEntryDelete && isTableDelete ));
  // clang-format on
  Nimbo::Ptr<EntryHandle> entryHandle = Nimbo::dynamicPtrCast<EntryHandle>(wrapper->entryHandle());
  VESK_ASSERT(entryHandle != NULL);
  const EntryVersion entryConfVersion = entryHandle->entryVersion();
  if (!isTableDelete) VESK_ASSERT(entryConfVersion.valid());

  const Dependency& dependency = resolverEntry->dependency();
  if (dependency && dependency->isFailed()) {
    commitFailed(entryHandle, isTableDelete, wrapper->key());
  } else if (isTableDelete) {
    commitTableDelete(table, *resolverEntry, entryHandle);
  } else if (isEntryDelete) {
    commitEntryDelete(table, *resolverEntry, entryHandle);
  } else {
    commitEntryWrite(table, *resolverEntry, entryHandle);
  }
  settle(table);
  table.stats().lastCommitTimeIs(Kest::nowUtc());
  table.stats().commitCntInc(1);
}

template <class T>
Nimbo::Ptr<const OrderedSwTable::EntryHandle> OrderedSwTableAccessor<T>::updateEntry(
    T& table, const EntryKey& key) {
  if (!table.entryLog()->entryHas(key, table.unitId())) {
    VESK_ACCESSOR_TRACE(3, " key: {} entry does not exist ", key);
    return nullptr;
  }
  Nimbo::Ptr<OrderedSwTable::EntryHandle> slot;
  Nimbo::Ptr<EntryWrapper> wrapper = entryWrapperFromConfig(table, key, false, slot);
  const typename T::LogEntry rebuilt = wrapper->logEntry();
  wrapper->setResolvedFields();
  const bool commitToLog =
      table.swTableHelper()->finalizeOnResourceUpdate(wrapper, Nimbo::Ptr<T>(&table), false);
  Nimbo::Ptr<EntryHandle> handle = Nimbo::dynamicPtrCast<EntryHandle>(wrapper->entryHandle());
  if (!wrapper->logEntry().isEq(rebuilt) && commitToLog) {
    const Nimbo::Ptr<const NeededEntry> needed = table.getNeededEntrySet(wrapper);
    const LogVersion logVersion = table.entryLog()->entryIs(
        wrapper->logEntry(), {}, needed, table.unitId(), table.statsPtr(), false);
    handle->logVersionIs(logVersion);
    handle->entryStateIs(EntryState::inLog);
    table.stats().updateCntInc(1);
    VESK_ACCESSOR_TRACE(3, " key: {}, neededEntry: {}, entryLogVersion: {} ", key, *needed,
                        logVersion);
    return handle;
  }
  VESK_ACCESSOR_TRACE(3, "key: {}, commitToLog: {}, no change in logEntry or don't commit to log",
                      key, commitToLog);
  handle->logVersionIs(table.entryLog()->entryLogVersion(key, table.unitId()));
  handle->entryStateIs(EntryState::inLog);
  return handle;
}

template <class T>
void OrderedSwTableAccessor<T>::delAllEntries(T& table, bool releaseResources,
                                              const Nimbo::Ptr<const NeededEntry>& neededEntry,
                                              const Nimbo::Ptr<EntryHandle>& entryHandle) {
  VESK_ACCESSOR_TRACE(8, " releaseResources: {}, neededEntry:{} ", releaseResources,
                      neededEntry ? fmt::format("{}", *neededEntry) : std::string("{}"));
  const auto config = table.entryLog()->tableConfigShard(table.unitId());
  if (!config || config->swTableEntriesSize() == 0) return;
  if (releaseResources) {
    config->swTableEntriesColl().forEach([&](const auto& record) {
      if (record.isDeleted) return;
      Nimbo::Ptr<OrderedSwTable::EntryHandle> slot;
      entryWrapperFromConfig(table, record.logEntry.key(), false, slot);
    });
  }
  const LogVersion logVersion = table.entryLog()->tableDel(neededEntry, table.unitId());
  if (entryHandle) {
    entryHandle->logVersionIs(logVersion);
    entryHandle->entryStateIs(EntryState::inLog);
  }
  table.stats().tableClearCntInc(1);
}

template <class T>
Nimbo::Ptr<typename T::EntryWrapper> OrderedSwTableAccessor<T>::entryWrapperFromConfig(
    T& table, const EntryKey& key, bool refreshRsrcPtrs,
    Nimbo::Ptr<OrderedSwTable::EntryHandle>& entryHandle) {
  VESK_ACCESSOR_TRACE(8, "key: {}, refreshRsrcPtrs: {}", key, refreshRsrcPtrs);
  const Entry entry = table.entryFromConfig(key);
  if (!entryHandle) entryHandle = T::entryHandleFactory(EntryVersion(0, 0), key, &table);
  auto wrapper = Nimbo::make<EntryWrapper>(entry, entryHandle);
  wrapper->keyIs(key);
  table.setRsrcPtrs(wrapper, refreshRsrcPtrs);
  wrapper->retrieveClientData();
  return wrapper;
}

template <class T>
typename T::Entry OrderedSwTableAccessor<T>::entryReadGeneric(const T& table, const EntryKey& key) {
  VESK_ACCESSOR_TRACE(8, "key: {}", key);
  if (const Nimbo::Ptr<EntryWrapper> pending = table.transientAddEntry(key))
    return pending->entry();
  if (!table.transientRemoveEntry(key)) {
    if (const auto committed = table.liveEntryFromConfig(key)) return *committed;
  }
  VESK_ACCESSOR_TRACE(1, "Failed to find entry for key: {}", key);
  return Entry{};
}

template <class T>
void OrderedSwTableAccessor<T>::tableStatusVersion(T& table, LogVersion tableVersion) {
  VESK_ACCESSOR_TRACE(8, "tableVersion: {}", tableVersion);
  if (table.entryLog()) table.entryLog()->cleanupEntryLog(tableVersion);
  if (table.groupResolver()) table.groupResolver()->updateGenId();
  while (const Nimbo::Ptr<EntryHandle> front = table.entryHandleInLogFront()) {
    if (tableVersion < front->logVersion()) break;
    table.entryHandleInLogDeq();
    VESK_ACCESSOR_TRACE(3, "Processing version: {}, key: {}", front->logVersion(), front->key());
    answer(front, EntryState::done);
  }
  if (table.entryLog() && table.swTableSet()) table.swTableSet()->maybeUpdatePendingHwWrites();
}

}  // namespace Asic

#undef VESK_ACCESSOR_TRACE
