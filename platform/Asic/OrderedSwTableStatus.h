#pragma once

#include "Asic/Publisher.h"
#include "Asic/SwTableId.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// What the tables of one table type tell the rest of the agent together: whether any of
// them has changes the hardware side has not taken yet. Announces "pendingHwWrites" when
// that flips. Shared by the type's interface, table set and tables by reference count;
// single-threaded.
class OrderedSwTableStatus : public Nimbo::Node {
 public:
  explicit OrderedSwTableStatus(SwTableId tableId = SwTableId()) : tableId_(tableId) {}

  SwTableId tableId() const noexcept { return tableId_; }
  bool pendingHwWrites() const noexcept { return pendingHwWrites_; }
  void pendingHwWritesIs(bool pending) {
    if (pending == pendingHwWrites_) return;
    pendingHwWrites_ = pending;
    publisher_.announce("pendingHwWrites");
  }
  Publisher& publisher() noexcept { return publisher_; }

 private:
  SwTableId tableId_;
  bool pendingHwWrites_ = false;
  Publisher publisher_;
};

}  // namespace Asic
