#include "Asic/OrderedTableInterface.h"

#include "Asic/Constants.h"

namespace Asic {

Nimbo::Ptr<GroupInterface> OrderedTableInterface::makeGroupIntf(const Nimbo::String& agentName,
                                                                const Nimbo::String& groupName,
                                                                uint16_t agentAndGroupId) {
  const Nimbo::String name = Constants::canonicalizeGroupName(agentName, groupName);
  Nimbo::Ptr<GroupInterface>& held = groupInterfaces_[name];
  if (!held) {
    held = Nimbo::make<GroupInterface>(name, entityManager_);
    agentAndGroupIds_[name] = agentAndGroupId;
  }
  return held;
}

Nimbo::Ptr<GroupInterface> OrderedTableInterface::groupInterface(
    const Nimbo::String& canonicalGroupName) const {
  auto it = groupInterfaces_.find(canonicalGroupName);
  return it == groupInterfaces_.end() ? nullptr : it->second;
}

uint16_t OrderedTableInterface::agentAndGroupId(const Nimbo::String& canonicalGroupName) const {
  auto it = agentAndGroupIds_.find(canonicalGroupName);
  return it == agentAndGroupIds_.end() ? 0 : it->second;
}

TableInterfaceBase* OrderedTableInterface::swTableIntf(const Nimbo::String& name) const {
  auto it = swTableIntfs_.find(name);
  return it == swTableIntfs_.end() ? nullptr : it->second;
}

void OrderedTableInterface::swTableIntfIs(const Nimbo::String& name, TableInterfaceBase* intf) {
  swTableIntfs_[name] = intf;
}

}  // namespace Asic
