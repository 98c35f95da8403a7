#pragma once

#include "Nimbo/Export.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/TableSwTable.h"
#include "VeskTapAgg/TableSwTableEntries.h"
#include "VeskTapAgg/TableSwTableIteratorState.h"

namespace VeskTapAgg {

// For every table type: <T>SwTable, <T>EntryWrapper, <T>ResolverEntry and
// <T>SwTableHelperBase, with their factories <t>SwTableFactory (and the static
// <T>SwTableIs), <t>EntryWrapperFactory, <t>ResolverEntryFactory and
// <t>SwTableHelperBaseFactory.
#define VESK_TAPAGG_DECLARE_SW_TABLE(Name, lower, ...)                                          \
  extern template class VESK_EXPORT TableSwTable<Name##Traits>;                                 \
  extern template class VESK_EXPORT TableEntryWrapper<Name##Traits>;                            \
  using Name##SwTable = TableSwTable<Name##Traits>;                                             \
  using Name##EntryWrapper = TableEntryWrapper<Name##Traits>;                                   \
  using Name##ResolverEntry = TableResolverEntry<Name##Traits>;                                 \
  using Name##SwTableHelperBase = TableSwTableHelperBase<Name##Traits>;                         \
  VESK_EXPORT Nimbo::Ptr<Name##SwTable> lower##SwTableFactory(                                  \
      const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,          \
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,                                 \
      const Nimbo::Ptr<Name##EntryLog>& entryLog,                                               \
      const Nimbo::Ptr<Asic::GroupResolver>& groupResolver);                                    \
  inline Nimbo::Ptr<Name##SwTable> Name##SwTableIs(                                             \
      const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,          \
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,                                 \
      const Nimbo::Ptr<Name##EntryLog>& entryLog,                                               \
      const Nimbo::Ptr<Asic::GroupResolver>& groupResolver) {                                   \
    return lower##SwTableFactory(name, tableId, unitId, swTableSet, entryLog, groupResolver);   \
  }                                                                                             \
  inline Nimbo::Ptr<Name##EntryWrapper> lower##EntryWrapperFactory(                             \
      const Name##Entry& entry, const Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle>& handle) {  \
    return Nimbo::make<Name##EntryWrapper>(entry, handle);                                      \
  }                                                                                             \
  inline Nimbo::Ptr<Name##ResolverEntry> lower##ResolverEntryFactory(                           \
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags,  \
      Name##SwTable* swTable, const Nimbo::Ptr<Name##EntryWrapper>& wrapper) {                  \
    return Nimbo::make<Name##ResolverEntry>(dependency, flags, swTable, wrapper);               \
  }                                                                                             \
  inline Nimbo::Ptr<Name##SwTableHelperBase> lower##SwTableHelperBaseFactory() {                \
    return Nimbo::make<Name##SwTableHelperBase>();                                              \
  }
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_SW_TABLE)
#undef VESK_TAPAGG_DECLARE_SW_TABLE

// For every table type: <T>SwTableIteratorState, and <t>SwTableIteratorStateFactory, which
// makes an empty state.
#define VESK_TAPAGG_DECLARE_SW_TABLE_ITERATION(Name, lower, ...)                       \
  extern template class VESK_EXPORT TableSwTableIteratorState<Name##Traits>;           \
  using Name##SwTableIteratorState = TableSwTableIteratorState<Name##Traits>;          \
  inline Nimbo::Ptr<Name##SwTableIteratorState> lower##SwTableIteratorStateFactory(    \
      const Name##SwTable* swTable = nullptr) {                                        \
    return Nimbo::make<Name##SwTableIteratorState>(swTable);                           \
  }
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_SW_TABLE_ITERATION)
#undef VESK_TAPAGG_DECLARE_SW_TABLE_ITERATION

}  // namespace VeskTapAgg
