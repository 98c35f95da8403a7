#pragma once

#include <cstdint>
#include <optional>

#include "Asic/GroupResolver.h"
#include "Asic/MajorVersion.h"
#include "Asic/NeededEntry.h"
#include "Asic/OrderedSwTable.h"
#include "Asic/OrderedSwTableSet.h"
#include "Kest/HashMap.h"
#include "Nimbo/RQueue.h"
#include "OrderedTable/OrderedSwTableEntryIterator.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/TableSwTableParts.h"
#include "VeskTapAgg/TypeRecords.h"

namespace VeskTapAgg {

template <TableTraits Traits>
class TableSwTableIteratorState;

// The software table of one table type on one unit: what clients asked for and the
// hardware side has not confirmed yet. Pending writes and removes wait in the transient
// maps until the group resolver commits them to the entry log; committed changes wait in
// entryHandleInLog until the hardware side reports their version (tableStatusVersion),
// when each client is answered in order. Nothing committed is held here: reads fall
// through to the unit's configuration in the entry log, which is why a restarted agent
// serves its entries at once. The algorithms live in Asic::OrderedSwTableAccessor.
// Written once over the traits; SwTable.h names it <T>SwTable. Owned by the table type's
// interface and the unit's table set by reference count; single-threaded: the agent's
// event thread.
template <TableTraits Traits>
class TableSwTable : public Asic::OrderedSwTable {
 public:
  using EntryKey = typename Traits::EntryKey;
  using Entry = typename Traits::Entry;
  using LogEntry = typename Traits::LogEntry;
  using EntryLog = TableEntryLog<Traits>;
  using EntryWrapper = TableEntryWrapper<Traits>;
  using ResolverEntry = TableResolverEntry<Traits>;
  using SwTableHelperBase = TableSwTableHelperBase<Traits>;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using WrapperMap = Kest::HashMap2018<EntryKey, Nimbo::Ptr<EntryWrapper>>;
  using VersionMap = Kest::HashMap2018<EntryKey, Asic::EntryVersion>;

  // What a client holds for one change of this table: the key, the table, and the
  // client's response handler, called once when the change is confirmed or has failed.
  class EntryHandle : public Asic::OrderedSwTable::EntryHandle {
   public:
    using PtrConst = Nimbo::Ptr<const EntryHandle>;
    EntryHandle(const Asic::EntryVersion& version, const EntryKey& key, TableSwTable* swTable)
        : Asic::OrderedSwTable::EntryHandle(version), key_(key), swTable_(swTable) {}
    static Nimbo::Ptr<EntryHandle> EntryHandleIs(const Asic::EntryVersion& version,
                                                 const EntryKey& key, TableSwTable* swTable) {
      return Nimbo::make<EntryHandle>(version, key, swTable);
    }

    const EntryKey& key() const noexcept { return key_; }
    TableSwTable* swTable() const noexcept { return swTable_; }
    void swTableIs(TableSwTable* swTable) noexcept { swTable_ = swTable; }
    const ResponseHandler& responseHandler() const noexcept { return responseHandler_; }
    void responseHandlerIs(const ResponseHandler& handler) { responseHandler_ = handler; }

    Asic::SwTableId tableId() const override;
    Nimbo::String tableName() const override;
    const Kest::TypeData* typeData() const override {
      return &TypeRecord<Traits, EntryHandleKind>::get();
    }
    // A handle may head the one allocation of its pending change (TablePendingChange.h);
    // either way its memory came from ::operator new and goes back whole.
    static void operator delete(void* memory) { ::operator delete(memory); }

   private:
    EntryKey key_;
    TableSwTable* swTable_;
    ResponseHandler responseHandler_;
  };

  TableSwTable(const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,
               Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,
               const Nimbo::Ptr<EntryLog>& entryLog,
               const Nimbo::Ptr<Asic::GroupResolver>& groupResolver);
  ~TableSwTable() override;
  // <T>SwTable::<T>SwTableIs(...), with the constructor's arguments: a new table. (Its
  // types are the class's own, so that every compiler can instantiate the nine it hides.)
#define VESK_TAPAGG_SW_TABLE_IS(Name, ...)                                                        \
  static Nimbo::Ptr<TableSwTable> Name##SwTableIs(                                                \
      const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,            \
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,                                   \
      const Nimbo::Ptr<typename NamedEntryLog<Traits>::Type>& entryLog,                           \
      const Nimbo::Ptr<Asic::GroupResolver>&                                                      \
          groupResolver) requires std::same_as<Traits, Name##Traits> {                            \
    return Nimbo::make<TableSwTable>(name, tableId, unitId, swTableSet, entryLog, groupResolver); \
  }
  VESK_TAPAGG_TABLES(VESK_TAPAGG_SW_TABLE_IS)
#undef VESK_TAPAGG_SW_TABLE_IS

  // The handle, wrapper and resolver entry of one client change, made in one allocation.
  using PendingChange = TablePendingChange<Traits>;
  static Nimbo::Ptr<EntryHandle> entryHandleFactory(const Asic::EntryVersion& version,
                                                    const EntryKey& key, TableSwTable* swTable) {
    return EntryHandle::EntryHandleIs(version, key, swTable);
  }
  // "<T>SwTable", its trace handle's name, and "VeskTapAgg/<T>SwTable", its source.
  static const Nimbo::String& className() { return Names::className(); }
  static const Nimbo::String& sourceName() { return Names::sourceName(); }
  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, SwTableKind>::get();
  }

  // Clients' changes; each returns at once with a handle in state created.
  typename EntryHandle::PtrConst entryWrite(
      const EntryKey& key, const Entry& entry,
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency);
  typename EntryHandle::PtrConst entryWriteWithResponseHandler(
      const EntryKey& key, const Entry& entry,
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& responseHandler);
  typename EntryHandle::PtrConst entryRemove(
      const EntryKey& key, const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency);
  typename EntryHandle::PtrConst entryRemoveWithResponseHandler(
      const EntryKey& key, const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& responseHandler);
  void entryRemoveAll(const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency);
  void entryRemoveAllWithResponseHandler(
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
      const ResponseHandler& responseHandler);

  // Reads: pending changes first, then the committed configuration.
  Entry entryRead(const EntryKey& key) const;
  Entry entry(const EntryKey& key) const;
  bool entryHas(const EntryKey& key) const;
  uint32_t entrys() const;
  bool hasPendingHwWrites() const override;

  // Resolution and commit, asked by the group resolver through the resolver entry.
  bool isResolverEntryResolved(const Nimbo::Ptr<ResolverEntry>& resolverEntry);
  void commitEntry(const Nimbo::Ptr<Asic::ResolverEntry>& resolverEntry);
  // Asks the caches for what committing a change of `key` reads: well ahead, its pending
  // entries and its index word in the unit's configuration; soon, its record there.
  void commitPrefetch(const EntryKey& key, bool soon) const noexcept {
    if (!soon) {
      transientAddEntry_.prefetch(key);
      transientRemoveEntry_.prefetch(key);
      transientVersionForKey_.prefetch(key);
    }
    entryLog_->prefetch(key, unitId(), soon);
  }
  // Writes the committed entry of `key` again when its resources changed it; null when the
  // log has no such entry.
  Nimbo::Ptr<const Asic::OrderedSwTable::EntryHandle> updateEntry(const EntryKey& key);
  Nimbo::Ptr<const Asic::NeededEntry> getNeededEntrySet(
      const Nimbo::Ptr<const EntryWrapper>& wrapper) const;
  void setRsrcPtrs(const Nimbo::Ptr<EntryWrapper>& wrapper, bool refresh);

  // Restart and restore.
  void handleInitialized();
  void restoreEntries() {}
  void clearTable(bool releaseResources);
  Entry entryFromConfig(const EntryKey& key) const;
  // entryFromConfig of a key the configuration holds live, else nothing: one lookup where
  // asking entryHas first takes two.
  std::optional<Entry> liveEntryFromConfig(const EntryKey& key) const;
  void tableStatusVersion(Asic::LogVersion tableVersion) override;

  // Iteration: pending writes first, then the committed entries nothing pending hides
  // (Asic::IterStateAccessor). SwTableEntries_py is in TableSwTableEntries.h.
  using IteratorState = TableSwTableIteratorState<Traits>;
  using EntryIteratorConst =
      Asic::OrderedSwTableEntryIterator<const TableSwTable, Entry, EntryKey, IteratorState>;
  class SwTableEntries_py;
  Nimbo::Ptr<IteratorState> initIterState() const;
  Nimbo::Ptr<IteratorState> initIterStateFromKey(const EntryKey& key) const;
  EntryIteratorConst entryIteratorConst() const;
  EntryIteratorConst entryIteratorConst(const EntryKey& key) const;
  Nimbo::Ptr<SwTableEntries_py> getTableEntries_py() const;

  // Attributes. Mutators announce what they change through the publisher.
  const Nimbo::Ptr<EntryLog>& entryLog() const noexcept { return entryLog_; }
  const Nimbo::Ptr<Asic::GroupResolver>& groupResolver() const noexcept { return groupResolver_; }
  const Nimbo::Ptr<SwTableHelperBase>& swTableHelper() const noexcept { return swTableHelper_; }
  void swTableHelperIs(const Nimbo::Ptr<SwTableHelperBase>& helper);

  Nimbo::Ptr<EntryWrapper> transientAddEntry(const EntryKey& key) const;
  void transientAddEntryIs(const Nimbo::Ptr<EntryWrapper>& wrapper);
  void transientAddEntryDel(const EntryKey& key);
  void transientAddEntryDelAll();
  const WrapperMap& transientAddEntrys() const noexcept { return transientAddEntry_; }

  Nimbo::Ptr<EntryWrapper> transientRemoveEntry(const EntryKey& key) const;
  void transientRemoveEntryIs(const Nimbo::Ptr<EntryWrapper>& wrapper);
  void transientRemoveEntryDel(const EntryKey& key);
  void transientRemoveEntryDelAll();
  const WrapperMap& transientRemoveEntrys() const noexcept { return transientRemoveEntry_; }

  Asic::EntryVersion transientVersionForKey(const EntryKey& key) const;
  std::optional<Asic::EntryVersion> transientVersionForKeyGet(const EntryKey& key) const;
  void transientVersionForKeyIs(const EntryKey& key, const Asic::EntryVersion& version);
  void transientVersionForKeyDel(const EntryKey& key);
  void transientVersionForKeyDelAll();
  const VersionMap& transientVersionForKeys() const noexcept { return transientVersionForKey_; }

  Asic::MajorVersion transientRemoveAllVersion() const noexcept {
    return transientRemoveAllVersion_;
  }
  void transientRemoveAllVersionIs(Asic::MajorVersion version);

  uint32_t entryHandleInLogEnq(const Nimbo::Ptr<EntryHandle>& handle);
  Nimbo::Ptr<EntryHandle> entryHandleInLogDeq();
  Nimbo::Ptr<EntryHandle> entryHandleInLogFront() const { return entryHandleInLog_.front(); }
  Nimbo::Ptr<EntryHandle> entryHandleInLogBack() const { return entryHandleInLog_.back(); }
  Nimbo::Ptr<EntryHandle> entryHandleInLog(uint32_t index) const {
    return entryHandleInLog_.at(index);
  }
  bool entryHandleInLogHas(uint32_t index) const { return entryHandleInLog_.has(index); }
  size_t entryHandleInLogSize() const noexcept { return entryHandleInLog_.size(); }
  void entryHandleInLogDelAll();
  const Nimbo::RQueue<Nimbo::Ptr<EntryHandle>>& entryHandleInLogs() const noexcept {
    return entryHandleInLog_;
  }

  // The handle this table and its algorithms trace through.
  static Kest::TraceHandle& traceHandle() { return Names::traceHandle(); }

 private:
  using Names = GeneratedNames<Traits, SwTableKind>;
  static Nimbo::Ptr<EntryWrapper> wrapperIn(const WrapperMap& map, const EntryKey& key);
  void wrapperIs(WrapperMap& map, const char* attribute, const Nimbo::Ptr<EntryWrapper>& wrapper);
  void wrapperDel(WrapperMap& map, const char* attribute, const EntryKey& key);
  void wrappersDelAll(WrapperMap& map, const char* attribute);

  Nimbo::Ptr<SwTableHelperBase> swTableHelper_;
  WrapperMap transientAddEntry_;
  WrapperMap transientRemoveEntry_;
  VersionMap transientVersionForKey_;
  Asic::MajorVersion transientRemoveAllVersion_;
  Nimbo::Ptr<EntryLog> entryLog_;
  Nimbo::Ptr<Asic::GroupResolver> groupResolver_;
  Nimbo::RQueue<Nimbo::Ptr<EntryHandle>> entryHandleInLog_;
};

}  // namespace VeskTapAgg
