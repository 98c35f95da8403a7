#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "Asic/SwTableId.h"
#include "Nimbo/Export.h"
#include "types/Catalogue.h"

namespace VeskTapAgg {

// The table types this library provides, by name and id, made from the one catalogue list.
struct CatalogueRow {
  std::string_view name;
  Asic::SwTableId tableId;
};

#define VESK_TAPAGG_CATALOGUE_ROW(Name, lower, role, id, ...) \
  CatalogueRow{#Name, Asic::SwTableId(id)},
inline constexpr std::array kCatalogue{VESK_TAPAGG_TABLES(VESK_TAPAGG_CATALOGUE_ROW)};
#undef VESK_TAPAGG_CATALOGUE_ROW

VESK_EXPORT std::optional<Asic::SwTableId> tableIdOf(std::string_view tableName);
VESK_EXPORT std::optional<std::string_view> tableNameOf(Asic::SwTableId tableId);

}  // namespace VeskTapAgg
