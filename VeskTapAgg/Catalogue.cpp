#include "VeskTapAgg/Catalogue.h"

namespace VeskTapAgg {

std::optional<Asic::SwTableId> tableIdOf(std::string_view tableName) {
  for (const CatalogueRow& row : kCatalogue) {
    if (row.name == tableName) return row.tableId;
  }
  return std::nullopt;
}

std::optional<std::string_view> tableNameOf(Asic::SwTableId tableId) {
  for (const CatalogueRow& row : kCatalogue) {
    if (row.tableId == tableId) return row.name;
  }
  return std::nullopt;
}

}  // namespace VeskTapAgg
