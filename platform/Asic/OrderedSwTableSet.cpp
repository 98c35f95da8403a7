#include "Asic/OrderedSwTableSet.h"

#include <algorithm>

#include <fmt/format.h>

namespace Asic {

Nimbo::Ptr<OrderedSwTable> OrderedSwTableSet::swTable(UnitId unitId) const {
  auto it = tables_.find(unitId);
  return it == tables_.end() ? nullptr : it->second;
}

void OrderedSwTableSet::swTableIs(const Nimbo::Ptr<OrderedSwTable>& table) {
  Nimbo::Ptr<OrderedSwTable>& held = tables_[table->unitId()];
  if (held == table) return;
  held = table;
  publisher_.announce("swTable", [&] { return fmt::format("{}", table->unitId()); });
}

void OrderedSwTableSet::swTableDel(UnitId unitId) {
  if (tables_.erase(unitId)) {
    publisher_.announce("swTable", [&] { return fmt::format("{}", unitId); });
  }
}

void OrderedSwTableSet::maybeUpdatePendingHwWrites() {
  const bool pending = std::any_of(tables_.begin(), tables_.end(), [](const auto& entry) {
    return entry.second->hasPendingHwWrites();
  });
  status_->pendingHwWritesIs(pending);
}

}  // namespace Asic
