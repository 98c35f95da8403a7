#include "Kest/Entity.h"

#include <map>
#include <utility>

namespace Kest {
namespace {

struct Singleton {
  Nimbo::Ptr<Entity> entity;
  uint32_t flags;
};

// Never destroyed: singletons kept for the process must outlive every static destructor
// that might still reach them.
std::map<Nimbo::String, Singleton, std::less<>>& singletons() {
  static auto* all = new std::map<Nimbo::String, Singleton, std::less<>>();
  return *all;
}

}  // namespace

Nimbo::Ptr<Entity> Entity::singletonExists(std::string_view typeName) {
  auto it = singletons().find(typeName);
  return it == singletons().end() ? nullptr : it->second.entity;
}

Nimbo::Ptr<Entity> Entity::singletonIs(const SingletonType& type, uint32_t flags) {
  if (Nimbo::Ptr<Entity> existing = singletonExists(type.name)) return existing;
  Nimbo::Ptr<Entity> made = type.make();
  singletons().emplace(Nimbo::String(type.name), Singleton{made, flags});
  return made;
}

void Entity::singletonDel(std::string_view typeName) {
  auto it = singletons().find(typeName);
  if (it == singletons().end()) return;
  Nimbo::Ptr<Entity> released = std::move(it->second.entity);
  singletons().erase(it);
}

uint32_t Entity::singletonFlags(std::string_view typeName) {
  auto it = singletons().find(typeName);
  return it == singletons().end() ? 0 : it->second.flags;
}

}  // namespace Kest
