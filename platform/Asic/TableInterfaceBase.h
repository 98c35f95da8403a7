#pragma once

#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace Asic {

class OrderedTableInterface;

// What the framework holds of each table type: the one object through which it makes the
// type's tables and reconciles units that have configuration but no table. Keeps the
// ordered-table interface it was made for. Owned by the process-wide registry
// (SwTableInterfacesSingleton) by reference count; single-threaded: the agent's event thread.
class VESK_EXPORT TableInterfaceBase : public Nimbo::Node {
 public:
  explicit TableInterfaceBase(Nimbo::Ptr<OrderedTableInterface> orderedTableIntf);
  ~TableInterfaceBase() override;

  const Nimbo::Ptr<OrderedTableInterface>& orderedTableIntf() const noexcept {
    return orderedTableIntf_;
  }
  // Makes tables for the units that have configuration in shared memory and none here.
  virtual void reconcile() = 0;

 private:
  Nimbo::Ptr<OrderedTableInterface> orderedTableIntf_;
};

}  // namespace Asic
