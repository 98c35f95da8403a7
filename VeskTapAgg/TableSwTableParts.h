#pragma once

#include <concepts>

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryFlags.h"
#include "Asic/OrderedSwTable.h"
#include "Asic/ResolverEntry.h"
#include "Kest/Trace.h"
#include "Nimbo/Ptr.h"
#include "VeskTapAgg/TypeRecords.h"
#include "types/TableTraits.h"

namespace VeskTapAgg {

template <TableTraits Traits>
class TableSwTable;

template <TableTraits Traits>
class TablePendingChange;

// How the wrapper and the resolver entry end when their count drops: on their own,
// deleted; inside a pending change (TablePendingChange.h), in place, letting go last of
// the part they hold, which may free the memory they stand in.
template <class Part, class Held>
void pendingChangePartGone(Part* part, bool inPendingChange, Held& held) {
  if (!inPendingChange) {
    delete part;
    return;
  }
  const auto last = std::move(held);
  part->~Part();
}

// The entry of one change, with the handle its client holds. Made by the write and remove
// pipeline (inside its TablePendingChange) and by restore; owned by the table's pending
// maps and the resolver entry by reference count; single-threaded.
template <TableTraits Traits>
class TableEntryWrapper : public Nimbo::Node {
 public:
  using Entry = typename Traits::Entry;
  using EntryKey = typename Traits::EntryKey;
  using LogEntry = typename Traits::LogEntry;
  using SwTable = TableSwTable<Traits>;

  TableEntryWrapper(const Entry& entry, Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle> handle)
      : entry_(entry), entryHandle_(std::move(handle)) {}
  // <T>EntryWrapper::<T>EntryWrapperIs(entry, handle): a new wrapper.
#define VESK_TAPAGG_ENTRY_WRAPPER_IS(Name, ...)                                     \
  static Nimbo::Ptr<TableEntryWrapper> Name##EntryWrapperIs(                        \
      const Entry& entry, const Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle>&      \
                              handle) requires std::same_as<Traits, Name##Traits> { \
    return Nimbo::make<TableEntryWrapper>(entry, handle);                           \
  }
  VESK_TAPAGG_TABLES(VESK_TAPAGG_ENTRY_WRAPPER_IS)
#undef VESK_TAPAGG_ENTRY_WRAPPER_IS

  const Entry& entry() const noexcept { return entry_; }
  void entryIs(const Entry& entry) noexcept { entry_ = entry; }
  const EntryKey& key() const noexcept { return entry_.key(); }
  void keyIs(const EntryKey& key) noexcept { entry_.entryKey = key; }
  LogEntry logEntry() const noexcept { return logEntryOf(entry_); }
  const Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle>& entryHandle() const noexcept {
    return entryHandle_;
  }
  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, EntryWrapperKind>::get();
  }

  // Hand the committed entry to the table's hook object.
  void finalizeOnSuccess(const Nimbo::Ptr<SwTable>& swTable, bool isDelete);
  bool finalizeOnFailure(const Nimbo::Ptr<SwTable>& swTable, bool isDelete);
  // Tables whose entries carry client data or fields filled in at resolution fill them
  // here; these tables have none.
  void retrieveClientData() {}
  void setResolvedFields() {}

 protected:
  void lastUserGone() override { pendingChangePartGone(this, inPendingChange_, entryHandle_); }

 private:
  friend class TablePendingChange<Traits>;
  using Names = GeneratedNames<Traits, EntryWrapperKind>;  // its trace handle
  using Unit = GeneratedNames<Traits, InfraTypesKind>;     // the unit it is generated in

  bool inPendingChange_ = false;  // first, so that it fills the counter's padding
  Entry entry_;
  Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle> entryHandle_;
};

// The client's hooks into a table's commits. A client derives from it and installs its
// object with swTableHelperIs; the defaults do nothing, refuse nothing and commit every
// changed entry. Shared by reference count; single-threaded.
template <TableTraits Traits>
class TableSwTableHelperBase : public Nimbo::Node {
 public:
  using EntryWrapper = TableEntryWrapper<Traits>;
  using SwTable = TableSwTable<Traits>;

  // <T>SwTableHelperBase::<T>SwTableHelperBaseIs(): a default hook object.
#define VESK_TAPAGG_SW_TABLE_HELPER_BASE_IS(Name, ...)                          \
  static Nimbo::Ptr<TableSwTableHelperBase>                                     \
      Name##SwTableHelperBaseIs() requires std::same_as<Traits, Name##Traits> { \
    return Nimbo::make<TableSwTableHelperBase>();                               \
  }
  VESK_TAPAGG_TABLES(VESK_TAPAGG_SW_TABLE_HELPER_BASE_IS)
#undef VESK_TAPAGG_SW_TABLE_HELPER_BASE_IS

  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, SwTableHelperBaseKind>::get();
  }
  virtual void finalizeOnSuccess(const Nimbo::Ptr<EntryWrapper>& /*entry*/, bool /*isDelete*/,
                                 const Nimbo::Ptr<SwTable>& /*swTable*/) {}
  virtual bool finalizeOnFailure(const Nimbo::Ptr<EntryWrapper>& /*entry*/, bool /*isDelete*/,
                                 const Nimbo::Ptr<SwTable>& /*swTable*/) {
    return false;
  }
  // Whether an entry whose resources changed is to be written to the log again.
  virtual bool finalizeOnResourceUpdate(const Nimbo::Ptr<EntryWrapper>& /*entry*/,
                                        const Nimbo::Ptr<SwTable>& /*swTable*/,
                                        bool /*someResourceHasFailed*/) {
    return true;
  }
};

// One change of a table in its group resolver's queue: asks the table whether it is
// resolved and has the table commit it. The table pointer is plain: the table outlives
// its queued changes. Made by the pipeline inside its TablePendingChange; single-threaded.
template <TableTraits Traits>
class TableResolverEntry : public Asic::ResolverEntry {
 public:
  using EntryWrapper = TableEntryWrapper<Traits>;
  using SwTable = TableSwTable<Traits>;

  TableResolverEntry(Nimbo::Ptr<const Asic::DependencyEntryHandle> dependency,
                     Asic::EntryFlags flags, SwTable* swTable, Nimbo::Ptr<EntryWrapper> wrapper)
      : Asic::ResolverEntry(std::move(dependency), flags),
        swTable_(swTable),
        entryWrapper_(std::move(wrapper)) {}
  // <T>ResolverEntry::<T>ResolverEntryIs(dependency, flags, swTable, wrapper): a new entry.
#define VESK_TAPAGG_RESOLVER_ENTRY_IS(Name, ...)                                               \
  static Nimbo::Ptr<TableResolverEntry> Name##ResolverEntryIs(                                 \
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags, \
      SwTable* swTable,                                                                        \
      const Nimbo::Ptr<EntryWrapper>& wrapper) requires std::same_as<Traits, Name##Traits> {   \
    return Nimbo::make<TableResolverEntry>(dependency, flags, swTable, wrapper);               \
  }
  VESK_TAPAGG_TABLES(VESK_TAPAGG_RESOLVER_ENTRY_IS)
#undef VESK_TAPAGG_RESOLVER_ENTRY_IS

  SwTable* swTable() const noexcept { return swTable_; }
  const Nimbo::Ptr<EntryWrapper>& entryWrapper() const noexcept { return entryWrapper_; }
  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, ResolverEntryKind>::get();
  }

  bool isResolved() override {
    return swTable_->isResolverEntryResolved(Nimbo::Ptr<TableResolverEntry>(this));
  }
  void commitEntry(const Nimbo::Ptr<Asic::ResolverEntry>& self) override {
    swTable_->commitEntry(self);
  }
  void prefetch(bool soon) const noexcept override {
    if (!isTableDeleted()) swTable_->commitPrefetch(entryWrapper_->key(), soon);
  }

 protected:
  void lastUserGone() override { pendingChangePartGone(this, inPendingChange_, entryWrapper_); }

 private:
  friend class TablePendingChange<Traits>;
  bool inPendingChange_ = false;  // first, so that it fills the base's padding
  SwTable* swTable_;
  Nimbo::Ptr<EntryWrapper> entryWrapper_;
};

}  // namespace VeskTapAgg
