#pragma once

#include "Nimbo/Export.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/TableSwTable.h"
#include "VeskTapAgg/TableSwTableEntries.h"
#include "VeskTapAgg/TableSwTableIteratorState.h"

namespace VeskTapAgg {

// For every table type: <T>SwTable, <T>EntryWrapper, <T>ResolverEntry,
// <T>SwTableHelperBase and <T>SwTableIteratorState, each with its static <T><Class>Is
// (declared in the class) and its exported factory <t><Class>Factory, which takes the same
// arguments; the iterator state's factory makes an empty state.
#define VESK_TAPAGG_DECLARE_SW_TABLE(Name, lower, ...)                                         \
  extern template class VESK_EXPORT TableSwTable<Name##Traits>;                                \
  extern template class VESK_EXPORT TableEntryWrapper<Name##Traits>;                           \
  extern template class VESK_EXPORT TableResolverEntry<Name##Traits>;                          \
  extern template class VESK_EXPORT TableSwTableHelperBase<Name##Traits>;                      \
  extern template class VESK_EXPORT TableSwTableIteratorState<Name##Traits>;                   \
  using Name##SwTable = TableSwTable<Name##Traits>;                                            \
  using Name##EntryWrapper = TableEntryWrapper<Name##Traits>;                                  \
  using Name##ResolverEntry = TableResolverEntry<Name##Traits>;                                \
  using Name##SwTableHelperBase = TableSwTableHelperBase<Name##Traits>;                        \
  using Name##SwTableIteratorState = TableSwTableIteratorState<Name##Traits>;                  \
  VESK_EXPORT Nimbo::Ptr<Name##SwTable> lower##SwTableFactory(                                 \
      const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,         \
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,                                \
      const Nimbo::Ptr<Name##EntryLog>& entryLog,                                              \
      const Nimbo::Ptr<Asic::GroupResolver>& groupResolver);                                   \
  VESK_EXPORT Nimbo::Ptr<Name##EntryWrapper> lower##EntryWrapperFactory(                       \
      const Name##Entry& entry, const Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle>& handle);  \
  VESK_EXPORT Nimbo::Ptr<Name##ResolverEntry> lower##ResolverEntryFactory(                     \
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags, \
      Name##SwTable* swTable, const Nimbo::Ptr<Name##EntryWrapper>& wrapper);                  \
  VESK_EXPORT Nimbo::Ptr<Name##SwTableHelperBase> lower##SwTableHelperBaseFactory();           \
  VESK_EXPORT Nimbo::Ptr<Name##SwTableIteratorState> lower##SwTableIteratorStateFactory();
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_SW_TABLE)
#undef VESK_TAPAGG_DECLARE_SW_TABLE

}  // namespace VeskTapAgg
