#include "Asic/SwTableBase.h"

#include <fmt/format.h>

namespace Asic {

void SwTableBase::EntryHandle::entryStateIs(EntryState state) {
  if (state == entryState_) return;
  entryState_ = state;
  publisher_.announce("entryState");
}

SwTableBase::SwTableBase(Nimbo::Ptr<const CanonicalTableName> name, SwTableId tableId,
                         UnitId unitId, OrderedSwTableSet* swTableSet)
    : Kest::Entity(fmt::format("{}/{}", name->name(), unitId)),
      name_(std::move(name)),
      tableId_(tableId),
      unitId_(unitId),
      swTableSet_(swTableSet),
      stats_(Nimbo::make<SwTableStats>()) {}

void SwTableBase::statusIs(const Nimbo::Ptr<OrderedSwTableStatus>& status) {
  if (status == status_) return;
  status_ = status;
  publisher_.announce("status");
}

}  // namespace Asic
