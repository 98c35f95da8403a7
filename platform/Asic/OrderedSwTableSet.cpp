#include "Asic/OrderedSwTableSet.h"

#include <algorithm>

namespace Asic {

Nimbo::Ptr<OrderedSwTable> OrderedSwTableSet::swTable(SwTableId tableId) const {
  auto it = tables_.find(tableId);
  return it == tables_.end() ? nullptr : it->second;
}

void OrderedSwTableSet::swTableIs(const Nimbo::Ptr<OrderedSwTable>& table) {
  tables_[table->tableId()] = table;
}

void OrderedSwTableSet::swTableDel(SwTableId tableId) { tables_.erase(tableId); }

void OrderedSwTableSet::maybeUpdatePendingHwWrites() {
  const bool pending = std::any_of(tables_.begin(), tables_.end(), [](const auto& entry) {
    return entry.second->hasPendingHwWrites();
  });
  status_->pendingHwWritesIs(pending);
}

}  // namespace Asic
