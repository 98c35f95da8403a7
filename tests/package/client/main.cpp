// Prints the table types of the installed library by name and id, asking the library to
// map each one both ways, and formats a record through the types library. Exits non-zero
// when the library disagrees with the catalogue its headers carry. Every API header is
// included so that it, and everything it includes, must compile from the installed tree,
// which holds only those.
#include <fmt/format.h>

#include "Kest/ModuleInspectData.h"
#include "VeskTapAgg/Catalogue.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/Interface.h"
#include "VeskTapAgg/SwTable.h"
#include "types/TableShards.h"
#include "types/TableTypes.h"

int main() {
  int wrong = 0;
  for (const VeskTapAgg::CatalogueRow& row : VeskTapAgg::kCatalogue) {
    const auto id = VeskTapAgg::tableIdOf(row.name);
    const auto name = VeskTapAgg::tableNameOf(row.tableId);
    if (!id || *id != row.tableId || !name || *name != row.name) ++wrong;
    fmt::print("{} {}\n", row.name, row.tableId);
  }
  VeskTapAgg::DefaultFwdTcamEntryEntryKey key{};
  key.priority = 7;
  fmt::print("key: {}\n", key);
  fmt::print("table types: {}, mismatches: {}\n", VeskTapAgg::kCatalogue.size(), wrong);
  return wrong == 0 ? 0 : 1;
}
