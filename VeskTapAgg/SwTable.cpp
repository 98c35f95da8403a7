#include "VeskTapAgg/SwTable.h"

#include "VeskTapAgg/TableSwTable-defs.h"
#include "VeskTapAgg/TableSwTableIteration-defs.h"

namespace VeskTapAgg {

#define VESK_TAPAGG_DEFINE_SW_TABLE(Name, lower, ...)                                        \
  template class TableSwTable<Name##Traits>;                                                 \
  template class TableEntryWrapper<Name##Traits>;                                            \
  Nimbo::Ptr<Name##SwTable> lower##SwTableFactory(                                           \
      const Nimbo::Ptr<const Asic::CanonicalTableName>& name, Asic::SwTableId tableId,       \
      Asic::UnitId unitId, Asic::OrderedSwTableSet* swTableSet,                              \
      const Nimbo::Ptr<Name##EntryLog>& entryLog,                                            \
      const Nimbo::Ptr<Asic::GroupResolver>& groupResolver) {                                \
    return Nimbo::make<Name##SwTable>(name, tableId, unitId, swTableSet, entryLog,           \
                                      groupResolver);                                        \
  }
VESK_TAPAGG_TABLES(VESK_TAPAGG_DEFINE_SW_TABLE)
#undef VESK_TAPAGG_DEFINE_SW_TABLE

#define VESK_TAPAGG_DEFINE_SW_TABLE_ITERATION(Name, ...) \
  template class TableSwTableIteratorState<Name##Traits>;
VESK_TAPAGG_TABLES(VESK_TAPAGG_DEFINE_SW_TABLE_ITERATION)
#undef VESK_TAPAGG_DEFINE_SW_TABLE_ITERATION

}  // namespace VeskTapAgg
