#pragma once

#include <cstdint>
#include <string_view>

#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Kest {

// Something an entity manager keeps under a path: a mounted shard, a relaunch generation,
// a process-wide registry. Owned by reference count; the manager (or the singleton
// registry) holds one reference while the entity is registered. Single-threaded: the
// agent's event thread.
class VESK_EXPORT Entity : public Nimbo::Node {
 public:
  // How a process-wide singleton is kept. The framework's registries ask for all three.
  enum SingletonFlags : uint32_t {
    singletonKeptForProcess = 1,  // the registry's reference lasts until the process ends
    singletonInspectable = 2,     // found by its type name (singletonExists)
    singletonEventThread = 4,     // made and used on the agent's event thread only
  };
  // What a singleton type is: its name, which is also the singleton's path, and how one is
  // made.
  struct SingletonType {
    std::string_view name;
    Nimbo::Ptr<Entity> (*make)();
  };

  explicit Entity(Nimbo::String path) : path_(std::move(path)) {}
  const Nimbo::String& path() const noexcept { return path_; }

  // The process's singleton of the type named `typeName`, or null before singletonIs.
  static Nimbo::Ptr<Entity> singletonExists(std::string_view typeName);
  // The process's singleton of `type`, made with `flags` if there is none yet.
  static Nimbo::Ptr<Entity> singletonIs(const SingletonType& type, uint32_t flags);
  // Releases the process's singleton named `typeName`, for an orderly shutdown: what it
  // holds goes when the last other reference does.
  static void singletonDel(std::string_view typeName);
  // The flags the singleton named `typeName` was made with; 0 when there is none.
  static uint32_t singletonFlags(std::string_view typeName);

 private:
  Nimbo::String path_;
};

}  // namespace Kest
