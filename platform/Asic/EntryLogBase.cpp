#include "Asic/EntryLogBase.h"

namespace Asic {

EntryLogBase::EntryLogBase(SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> entityManager,
                           Nimbo::Ptr<GroupInterface> groupInterface, Nimbo::String agentName)
    : tableId_(tableId),
      entityManager_(std::move(entityManager)),
      groupInterface_(std::move(groupInterface)),
      agentName_(std::move(agentName)) {}

EntryLogBase::~EntryLogBase() = default;

}  // namespace Asic
