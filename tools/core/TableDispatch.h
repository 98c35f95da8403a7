#pragma once

#include <array>
#include <string>
#include <string_view>

#include "Nimbo/Assert.h"
#include "VeskTapAgg/Catalogue.h"
#include "types/TableTypes.h"

namespace VeskTool {

// Runs `visit.template operator()<Traits>()` for the table type at `index` of the
// catalogue (below kTableCount; anything else is a programming error), i.e. turns a table
// chosen at run time into the compile-time traits everything is written over.
template <class Visit, class... Traits>
decltype(auto) withTableOf(VeskTapAgg::TableTypeList<Traits...>, size_t index, Visit& visit) {
  VESK_ASSERT_MSG(index < sizeof...(Traits), "table index " << index << " out of range");
  using Result = decltype(visit.template operator()<VeskTapAgg::DefaultFwdTcamEntryTraits>());
  using Call = Result (*)(Visit&);
  static constexpr Call calls[] = {
      [](Visit& v) -> Result { return v.template operator()<Traits>(); }...};
  return calls[index](visit);
}
template <class Visit>
decltype(auto) withTable(size_t index, Visit&& visit) {
  return withTableOf(VeskTapAgg::AllTableTraits{}, index, visit);
}

// Runs `visit.template operator()<Traits>(index)` for every table type, in catalogue order.
template <class Visit>
void forEachTable(Visit&& visit) {
  VeskTapAgg::forEachTableType(visit);
}

inline constexpr size_t kTableCount = VeskTapAgg::kCatalogue.size();

// The catalogue index of a table named `name`; kTableCount when there is none.
inline size_t tableIndexOf(std::string_view name) {
  for (size_t i = 0; i < kTableCount; ++i) {
    if (VeskTapAgg::kCatalogue[i].name == name) return i;
  }
  return kTableCount;
}

// The table types' names, comma-separated in catalogue order, for messages that refuse a name.
inline std::string tableNameList() {
  std::string names;
  for (const auto& row : VeskTapAgg::kCatalogue)
    names.append(names.empty() ? "" : ", ").append(row.name);
  return names;
}

}  // namespace VeskTool
