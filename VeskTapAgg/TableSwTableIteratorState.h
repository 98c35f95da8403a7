#pragma once

#include "Asic/SwTableIteratorStateBase.h"
#include "VeskTapAgg/TypeRecords.h"
#include "types/TableTraits.h"

namespace VeskTapAgg {

template <TableTraits Traits>
class TableSwTable;

// Where a walk over one table's entries stands: the flags of the base and the key of the
// entry the next step resumes at (meaningful while the bookmark flag is set). The steps
// are Asic::IterStateAccessor's. Made by the table's initIterState and
// initIterStateFromKey (or empty by <t>SwTableIteratorStateFactory); shared by reference
// count between an entry iterator and its copies; the table pointer is plain. Written once
// over the traits; SwTable.h names it <T>SwTableIteratorState. Single-threaded.
template <TableTraits Traits>
class TableSwTableIteratorState : public Asic::SwTableIteratorStateBase {
 public:
  using EntryKey = typename Traits::EntryKey;
  using Entry = typename Traits::Entry;
  using SwTable = TableSwTable<Traits>;

  explicit TableSwTableIteratorState(const SwTable* swTable) noexcept
      : Asic::SwTableIteratorStateBase(swTable) {}

  const SwTable* swTable() const noexcept {
    return static_cast<const SwTable*>(Asic::SwTableIteratorStateBase::swTable());
  }
  void swTableIs(const SwTable* swTable) noexcept {
    Asic::SwTableIteratorStateBase::swTableIs(swTable);
  }
  const EntryKey& bookmarkKey() const noexcept { return bookmarkKey_; }
  void bookmarkKeyIs(const EntryKey& key) noexcept { bookmarkKey_ = key; }

  // One step of the walk: the next entry, or a default one with the valid flag clear.
  Entry maybeUpdateCurrentEntry();

  const Kest::TypeData* typeData() const override {
    return &TypeRecord<Traits, SwTableIteratorStateKind>::get();
  }

 private:
  EntryKey bookmarkKey_{};
};

}  // namespace VeskTapAgg
