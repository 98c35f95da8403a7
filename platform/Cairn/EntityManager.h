#pragma once

#include <map>

#include "Kest/Entity.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace Cairn {

// The agent's state database: entities by path, in the process. Its name and locality
// also select the shared-memory namespace that mounts use. Owned by the agent (by
// reference count); single-threaded.
class VESK_EXPORT EntityManager : public Nimbo::Node {
 public:
  EntityManager(Nimbo::String name, bool local) : name_(std::move(name)), local_(local) {}

  const Nimbo::String& name() const noexcept { return name_; }
  bool local() const noexcept { return local_; }

  Nimbo::Ptr<Kest::Entity> getEntity(const Nimbo::String& path) const {
    auto it = entities_.find(path);
    return it == entities_.end() ? nullptr : it->second;
  }
  // Registers `entity` under its own path, replacing what was there.
  void entityIs(const Nimbo::Ptr<Kest::Entity>& entity) { entities_[entity->path()] = entity; }
  void entityDel(const Nimbo::String& path) { entities_.erase(path); }
  size_t entities() const noexcept { return entities_.size(); }

 private:
  Nimbo::String name_;
  bool local_;
  std::map<Nimbo::String, Nimbo::Ptr<Kest::Entity>> entities_;
};

}  // namespace Cairn
