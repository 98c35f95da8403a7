#pragma once

#include <array>
#include <string_view>

#include "VeskTapAgg/Catalogue.h"
#include "types/TableTypes.h"

namespace VeskTool {

// Runs `visit.template operator()<Traits>()` for the table type at `index` of the
// catalogue (0 to 9), i.e. turns a table chosen at run time into the compile-time traits
// everything is written over.
template <class Visit>
decltype(auto) withTable(size_t index, Visit&& visit) {
  size_t at = 0;
#define VESK_TOOL_DISPATCH(Name, ...) \
  if (at++ == index) return visit.template operator()<VeskTapAgg::Name##Traits>();
  VESK_TAPAGG_TABLES(VESK_TOOL_DISPATCH)
#undef VESK_TOOL_DISPATCH
  return visit.template operator()<VeskTapAgg::DefaultFwdTcamEntryTraits>();  // not reached
}

// Runs `visit.template operator()<Traits>(index)` for every table type, in catalogue order.
template <class Visit>
void forEachTable(Visit&& visit) {
  size_t index = 0;
#define VESK_TOOL_EACH(Name, ...) visit.template operator()<VeskTapAgg::Name##Traits>(index++);
  VESK_TAPAGG_TABLES(VESK_TOOL_EACH)
#undef VESK_TOOL_EACH
}

inline constexpr size_t kTableCount = VeskTapAgg::kCatalogue.size();

// The catalogue index of a table named `name`; kTableCount when there is none.
inline size_t tableIndexOf(std::string_view name) {
  for (size_t i = 0; i < kTableCount; ++i) {
    if (VeskTapAgg::kCatalogue[i].name == name) return i;
  }
  return kTableCount;
}

}  // namespace VeskTool
