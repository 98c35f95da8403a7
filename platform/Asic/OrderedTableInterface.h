#pragma once

#include <cstdint>
#include <map>

#include "Asic/GroupInterface.h"
#include "Asic/TableInterfaceBase.h"
#include "Cairn/EntityManager.h"
#include "Nimbo/Export.h"

namespace Asic {

// The agent's side of the ordered-table framework: its state database, the group
// interfaces by canonical group name ("<agent>.<group>"), and the table types' interfaces
// by name. Made by the agent, which owns it by reference count; table interfaces it lists
// are not owned (the process-wide registry owns them). Single-threaded: the agent's event
// thread.
class VESK_EXPORT OrderedTableInterface : public Nimbo::Node {
 public:
  explicit OrderedTableInterface(Nimbo::Ptr<Cairn::EntityManager> entityManager)
      : entityManager_(std::move(entityManager)) {}

  const Nimbo::Ptr<Cairn::EntityManager>& entityManager() const noexcept { return entityManager_; }

  // The group interface of `groupName` in `agentName`, made on first call; later calls
  // return the same one. `agentAndGroupId` is the upper half of the group's table ids.
  Nimbo::Ptr<GroupInterface> makeGroupIntf(const Nimbo::String& agentName,
                                           const Nimbo::String& groupName,
                                           uint16_t agentAndGroupId);
  Nimbo::Ptr<GroupInterface> groupInterface(const Nimbo::String& canonicalGroupName) const;
  bool groupInterfaceHas(const Nimbo::String& canonicalGroupName) const {
    return groupInterfaces_.contains(canonicalGroupName);
  }
  const std::map<Nimbo::String, Nimbo::Ptr<GroupInterface>>& groupInterfaces() const noexcept {
    return groupInterfaces_;
  }
  // The group ids groups were made with, by canonical name.
  uint16_t agentAndGroupId(const Nimbo::String& canonicalGroupName) const;

  // Table interfaces by name ("VeskTapAgg::DefaultFwdTcamEntryInterface"); not owned.
  TableInterfaceBase* swTableIntf(const Nimbo::String& name) const;
  bool swTableIntfHas(const Nimbo::String& name) const { return swTableIntfs_.contains(name); }
  void swTableIntfIs(const Nimbo::String& name, TableInterfaceBase* intf);
  void swTableIntfDel(const Nimbo::String& name) { swTableIntfs_.erase(name); }
  const std::map<Nimbo::String, TableInterfaceBase*>& swTableIntfs() const noexcept {
    return swTableIntfs_;
  }

 private:
  Nimbo::Ptr<Cairn::EntityManager> entityManager_;
  std::map<Nimbo::String, Nimbo::Ptr<GroupInterface>> groupInterfaces_;
  std::map<Nimbo::String, uint16_t> agentAndGroupIds_;
  std::map<Nimbo::String, TableInterfaceBase*> swTableIntfs_;
};

}  // namespace Asic
