#pragma once

#include <cstdint>

#include "Asic/GroupInterface.h"
#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "Cairn/EntityManager.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Asic {

// What every table type's entry log has, whatever its records: the table id, the agent's
// state database (whose name and locality also pick the shared-memory namespace), the
// group interface told of each logged change, the agent name, the table version (the
// version of the newest logged change) and the cleanup mark (the version the change log
// was last cleaned up to, i.e. what the hardware side has taken). Owned by the table
// type's interface by reference count; single-threaded: the agent's event thread.
class VESK_EXPORT EntryLogBase : public Nimbo::Node {
 public:
  EntryLogBase(SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> entityManager,
               Nimbo::Ptr<GroupInterface> groupInterface, Nimbo::String agentName);
  ~EntryLogBase() override;

  SwTableId tableId() const noexcept { return tableId_; }
  const Nimbo::Ptr<Cairn::EntityManager>& entityManager() const noexcept { return entityManager_; }
  const Nimbo::Ptr<GroupInterface>& groupInterface() const noexcept { return groupInterface_; }
  const Nimbo::String& agentName() const noexcept { return agentName_; }

  LogVersion tableVersion() const noexcept { return tableVersion_; }
  // Adds `by` to the table version and returns the new version.
  LogVersion tableVersionInc(uint64_t by) noexcept {
    tableVersion_ = tableVersion_ + by;
    return tableVersion_;
  }
  LogVersion cleanupMark() const noexcept { return cleanupMark_; }

 protected:
  void tableVersionIs(LogVersion version) noexcept { tableVersion_ = version; }
  void cleanupMarkIs(LogVersion version) noexcept { cleanupMark_ = version; }

 private:
  const SwTableId tableId_;
  const Nimbo::Ptr<Cairn::EntityManager> entityManager_;
  const Nimbo::Ptr<GroupInterface> groupInterface_;
  const Nimbo::String agentName_;
  LogVersion tableVersion_;
  LogVersion cleanupMark_;
};

}  // namespace Asic
