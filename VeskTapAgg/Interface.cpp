#include "VeskTapAgg/Interface.h"

#include "VeskTapAgg/TableInterface-defs.h"

namespace VeskTapAgg {

#define VESK_TAPAGG_DEFINE_INTERFACE(Name, ...) template class TableInterface<Name##Traits>;
VESK_TAPAGG_TABLES(VESK_TAPAGG_DEFINE_INTERFACE)
#undef VESK_TAPAGG_DEFINE_INTERFACE

}  // namespace VeskTapAgg
