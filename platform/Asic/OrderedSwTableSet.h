#pragma once

#include <map>

#include "Asic/OrderedSwTable.h"
#include "Asic/OrderedSwTableStatus.h"
#include "Nimbo/Export.h"

namespace Asic {

// The software tables of one table type, one per unit, and the status they report
// together: whether any has changes the hardware side has not taken. A table becomes
// visible to the rest of the agent when it enters its set. Owns its tables (a table's
// pointer back to its set is plain). Held by the group interface and the table type's
// interface by reference count; single-threaded: the agent's event thread.
class VESK_EXPORT OrderedSwTableSet : public Nimbo::Node {
 public:
  OrderedSwTableSet(SwTableId tableId, Nimbo::Ptr<OrderedSwTableStatus> status)
      : tableId_(tableId), status_(std::move(status)) {}

  SwTableId tableId() const noexcept { return tableId_; }
  const Nimbo::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }

  Nimbo::Ptr<OrderedSwTable> swTable(UnitId unitId) const;
  bool swTableHas(UnitId unitId) const { return tables_.contains(unitId); }
  // Enters `table` under its unit, replacing the unit's table; announces "swTable".
  void swTableIs(const Nimbo::Ptr<OrderedSwTable>& table);
  void swTableDel(UnitId unitId);
  const std::map<UnitId, Nimbo::Ptr<OrderedSwTable>>& swTables() const noexcept { return tables_; }
  Publisher& publisher() noexcept { return publisher_; }

  // Asks every table hasPendingHwWrites() and sets the status from the answers.
  void maybeUpdatePendingHwWrites();

 private:
  SwTableId tableId_;
  Nimbo::Ptr<OrderedSwTableStatus> status_;
  std::map<UnitId, Nimbo::Ptr<OrderedSwTable>> tables_;
  Publisher publisher_;
};

}  // namespace Asic
