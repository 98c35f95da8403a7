#include "Asic/SwTableInterfacesSingleton.h"

namespace Asic {

const Kest::Entity::SingletonType& SwTableInterfacesSingleton::type() {
  static const SingletonType made{typeName, []() -> Nimbo::Ptr<Kest::Entity> {
                                    return Nimbo::make<SwTableInterfacesSingleton>();
                                  }};
  return made;
}

Nimbo::Ptr<SwTableInterfacesSingleton> SwTableInterfacesSingleton::singleton() {
  Nimbo::Ptr<Kest::Entity> found = Kest::Entity::singletonExists(typeName);
  if (!found) found = Kest::Entity::singletonIs(type(), singletonFlags);
  return Nimbo::dynamicPtrCast<SwTableInterfacesSingleton>(found);
}

Nimbo::Ptr<TableInterfaceBase> SwTableInterfacesSingleton::swTableIntf(
    const Nimbo::String& name) const {
  auto it = swTableIntfs_.find(name);
  return it == swTableIntfs_.end() ? nullptr : it->second;
}

}  // namespace Asic
