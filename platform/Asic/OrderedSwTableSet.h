#pragma once

#include <map>

#include "Asic/OrderedSwTable.h"
#include "Asic/OrderedSwTableStatus.h"
#include "Nimbo/Export.h"

namespace Asic {

// The software tables of one group on one unit, by table id, and the status they report
// together: whether any has changes the hardware side has not taken. Owns its tables (a
// table's pointer back to its set is plain). Shared by reference count; single-threaded.
class VESK_EXPORT OrderedSwTableSet : public Nimbo::Node {
 public:
  OrderedSwTableSet(UnitId unitId, Nimbo::Ptr<OrderedSwTableStatus> status)
      : unitId_(unitId), status_(std::move(status)) {}

  UnitId unitId() const noexcept { return unitId_; }
  const Nimbo::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }

  Nimbo::Ptr<OrderedSwTable> swTable(SwTableId tableId) const;
  void swTableIs(const Nimbo::Ptr<OrderedSwTable>& table);
  void swTableDel(SwTableId tableId);
  const std::map<SwTableId, Nimbo::Ptr<OrderedSwTable>>& swTables() const noexcept {
    return tables_;
  }

  // Asks every table hasPendingHwWrites() and sets the status from the answers.
  void maybeUpdatePendingHwWrites();

 private:
  UnitId unitId_;
  Nimbo::Ptr<OrderedSwTableStatus> status_;
  std::map<SwTableId, Nimbo::Ptr<OrderedSwTable>> tables_;
};

}  // namespace Asic
