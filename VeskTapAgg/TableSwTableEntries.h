#pragma once

#include "Kest/HashMap.h"
#include "Nimbo/Assert.h"
#include "VeskTapAgg/TableSwTable.h"

namespace VeskTapAgg {

// A copy of every entry a walk of one table visited, by key, for the scripting layer:
// later changes of the table do not reach it. Made by the table's getTableEntries_py;
// shared by reference count; single-threaded.
template <TableTraits Traits>
class TableSwTable<Traits>::SwTableEntries_py : public Nimbo::Node {
 public:
  using TableEntryMap = Kest::HashMap2018<EntryKey, Entry>;

  SwTableEntries_py() : tableEntries_(Traits::tableEntriesSalt) {}

  // The entry of `key`, or a default entry when there is none.
  Entry tableEntries(const EntryKey& key) const {
    auto it = tableEntries_.find(key);
    return it == tableEntries_.end() ? Entry{} : it->second;
  }
  bool tableEntriesHas(const EntryKey& key) const { return tableEntries_.contains(key); }
  size_t tableEntriesSize() const noexcept { return tableEntries_.size(); }
  const TableEntryMap& tableEntriesColl() const noexcept { return tableEntries_; }

  // Inserts the entry under its own key, or replaces the stored one in place.
  void tableEntriesIs(const Entry& entry) {
    auto [it, inserted] = tableEntries_.insertOrReplace(entry.key(), entry);
    VESK_ASSERT_MSG(it->first == entry.key(), "fwkKey() == KeyFunktor()( _value )");
  }
  // The entry removed, or a default entry when the key was absent.
  Entry tableEntriesDel(const EntryKey& key) {
    auto it = tableEntries_.find(key);
    if (it == tableEntries_.end()) return Entry{};
    Entry removed = it->second;
    tableEntries_.erase(it);
    return removed;
  }
  void tableEntriesDelAll() { tableEntries_.clear(); }
  // Asks for the place of `key` early: an insert of it soon after does not wait on memory.
  void tableEntriesPrefetch(const EntryKey& key) const noexcept { tableEntries_.prefetch(key); }
  // Room for `count` entries, so that a snapshot of known size grows its map once.
  void tableEntriesReserve(size_t count) { tableEntries_.reserve(count); }

  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, SwTableEntriesKind>::get();
  }

 private:
  TableEntryMap tableEntries_;
};

}  // namespace VeskTapAgg
