#pragma once

#include "Asic/Publisher.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// What a unit's table set tells the rest of the agent: whether any of its tables has
// changes the hardware side has not taken yet. Announces "pendingHwWrites" when that
// flips. Shared by reference count; single-threaded.
class OrderedSwTableStatus : public Nimbo::Node {
 public:
  bool pendingHwWrites() const noexcept { return pendingHwWrites_; }
  void pendingHwWritesIs(bool pending) {
    if (pending == pendingHwWrites_) return;
    pendingHwWrites_ = pending;
    publisher_.announce("pendingHwWrites");
  }
  Publisher& publisher() noexcept { return publisher_; }

 private:
  bool pendingHwWrites_ = false;
  Publisher publisher_;
};

}  // namespace Asic
