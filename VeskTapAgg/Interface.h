#pragma once

#include "Nimbo/Export.h"
#include "VeskTapAgg/TableInterface.h"

namespace VeskTapAgg {

// <T>Interface for every table type; its static getIntf is how the framework makes the
// type. There is no factory for it: getIntf takes that role.
#define VESK_TAPAGG_DECLARE_INTERFACE(Name, lower, ...)           \
  extern template class VESK_EXPORT TableInterface<Name##Traits>; \
  using Name##Interface = TableInterface<Name##Traits>;
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_INTERFACE)
#undef VESK_TAPAGG_DECLARE_INTERFACE

}  // namespace VeskTapAgg
