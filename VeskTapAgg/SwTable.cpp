#include "VeskTapAgg/SwTable.h"

#include "VeskTapAgg/TableSwTable-defs.h"
#include "VeskTapAgg/TableSwTableIteration-defs.h"

namespace VeskTapAgg {

#define VESK_TAPAGG_DEFINE_SW_TABLE(Name, lower, ...)                                          \
  template class TableSwTable<Name##Traits>;                                                   \
  template class TableEntryWrapper<Name##Traits>;                                              \
  template class TableResolverEntry<Name##Traits>;                                             \
  template class TableSwTableHelperBase<Name##Traits>;                                         \
  template class TableSwTableIteratorState<Name##Traits>;                                      \
  Nimbo::Ptr<Name##SwTable> lower##SwTableFactory(                                             \
      const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,         \
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,                                \
      const Nimbo::Ptr<Name##EntryLog>& entryLog,                                              \
      const Nimbo::Ptr<Asic::GroupResolver>& groupResolver) {                                  \
    return Name##SwTable::Name##SwTableIs(name, tableId, unitId, swTableSet, entryLog,         \
                                          groupResolver);                                      \
  }                                                                                            \
  Nimbo::Ptr<Name##EntryWrapper> lower##EntryWrapperFactory(                                   \
      const Name##Entry& entry, const Nimbo::Ptr<Asic::OrderedSwTable::EntryHandle>& handle) { \
    return Name##EntryWrapper::Name##EntryWrapperIs(entry, handle);                            \
  }                                                                                            \
  Nimbo::Ptr<Name##ResolverEntry> lower##ResolverEntryFactory(                                 \
      const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency, Asic::EntryFlags flags, \
      Name##SwTable* swTable, const Nimbo::Ptr<Name##EntryWrapper>& wrapper) {                 \
    return Name##ResolverEntry::Name##ResolverEntryIs(dependency, flags, swTable, wrapper);    \
  }                                                                                            \
  Nimbo::Ptr<Name##SwTableHelperBase> lower##SwTableHelperBaseFactory() {                      \
    return Name##SwTableHelperBase::Name##SwTableHelperBaseIs();                               \
  }                                                                                            \
  Nimbo::Ptr<Name##SwTableIteratorState> lower##SwTableIteratorStateFactory() {                \
    return Nimbo::make<Name##SwTableIteratorState>(nullptr);                                   \
  }
VESK_TAPAGG_TABLES(VESK_TAPAGG_DEFINE_SW_TABLE)
#undef VESK_TAPAGG_DEFINE_SW_TABLE

}  // namespace VeskTapAgg
