#pragma once

#include <map>

#include "Asic/TableInterfaceBase.h"
#include "Kest/Entity.h"
#include "Nimbo/Export.h"

namespace Asic {

// The process-wide registry of table-type interfaces, by name: what keeps each interface
// alive for the life of the process, and what makes a second interface of one type
// detectable. Found or made through Kest::Entity's singletons; owns the interfaces by
// reference count. Single-threaded: the agent's event thread.
class VESK_EXPORT SwTableInterfacesSingleton : public Kest::Entity {
 public:
  static constexpr const char* typeName = "Asic::SwTableInterfacesSingleton";
  static constexpr uint32_t singletonFlags =
      singletonKeptForProcess | singletonInspectable | singletonEventThread;
  static const SingletonType& type();
  // The process's registry, found by its type name or made.
  static Nimbo::Ptr<SwTableInterfacesSingleton> singleton();

  SwTableInterfacesSingleton() : Kest::Entity(typeName) {}

  Nimbo::Ptr<TableInterfaceBase> swTableIntf(const Nimbo::String& name) const;
  bool swTableIntfHas(const Nimbo::String& name) const { return swTableIntfs_.contains(name); }
  void swTableIntfIs(const Nimbo::String& name, const Nimbo::Ptr<TableInterfaceBase>& intf) {
    swTableIntfs_[name] = intf;
  }
  const std::map<Nimbo::String, Nimbo::Ptr<TableInterfaceBase>>& swTableIntfs() const noexcept {
    return swTableIntfs_;
  }

 private:
  std::map<Nimbo::String, Nimbo::Ptr<TableInterfaceBase>> swTableIntfs_;
};

}  // namespace Asic
