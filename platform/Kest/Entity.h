#pragma once

#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Kest {

// Something an entity manager keeps under a path: a mounted shard, a relaunch generation.
// Owned by reference count; the manager holds one reference while the entity is registered.
// Single-threaded: the agent's event thread.
class Entity : public Nimbo::Node {
 public:
  explicit Entity(Nimbo::String path) : path_(std::move(path)) {}
  const Nimbo::String& path() const noexcept { return path_; }

 private:
  Nimbo::String path_;
};

}  // namespace Kest
