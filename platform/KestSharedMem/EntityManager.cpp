#include "KestSharedMem/EntityManager.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include <fmt/format.h>

#include "KestShard/Env.h"
#include "KestShard/Shard.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"

namespace KestSharedMem {
namespace {

constexpr const char* kNamespaceDir = ".namespace";

using Key = std::tuple<Nimbo::String, Nimbo::String, bool>;
std::map<Key, Nimbo::Ptr<EntityManager>>& managers() {
  static std::map<Key, Nimbo::Ptr<EntityManager>> all;
  return all;
}

}  // namespace

EntityManager::EntityManager(Nimbo::String name, bool local, KestShard::Directory directory)
    : name_(std::move(name)), local_(local), directory_(std::move(directory)) {}

Nimbo::Ptr<EntityManager> EntityManager::getEntityManager(const Nimbo::String& name, bool local) {
  KestShard::Directory::components(name);  // validates
  Key key{KestShard::Directory::rootPath(), name, local};
  auto it = managers().find(key);
  if (it != managers().end()) return it->second;
  KestShard::Directory dir =
      KestShard::Directory::root().sub((local ? "local/" : "shared/") + name, true);
  Nimbo::Ptr<EntityManager> manager(new EntityManager(name, local, std::move(dir)));
  managers().emplace(key, manager);
  return manager;
}

Nimbo::Ptr<MountGroup> EntityManager::getMountGroup() { return Nimbo::make<MountGroup>(this); }

Nimbo::Ptr<Kest::Entity> EntityManager::getEntity(const Nimbo::String& path) const {
  auto it = entities_.find(path);
  return it == entities_.end() ? nullptr : it->second;
}

void EntityManager::entityDel(const Nimbo::String& path) { entities_.erase(path); }

bool EntityManager::existedBefore(const Nimbo::String& path,
                                  const Nimbo::String& collection) const {
  KestShard::Directory dir;
  try {
    dir = subdirectory(fmt::format("{}/{}", kNamespaceDir, path), false);
  } catch (const Nimbo::SystemException& e) {
    if (e.error() == ENOENT) return false;
    throw;
  }
  KestShard::Env& env = KestShard::Env::current();
  int fd = env.openAt(dir.fd(), collection.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0) return false;
  env.close(fd);
  return true;
}

void EntityManager::existsNow(const Nimbo::String& path, const Nimbo::String& collection) const {
  const KestShard::Directory dir = subdirectory(fmt::format("{}/{}", kNamespaceDir, path), true);
  KestShard::Env& env = KestShard::Env::current();
  int fd =
      env.openAt(dir.fd(), collection.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    throw Nimbo::SystemException(fmt::format("cannot record {}/{} in the namespace of {}: {}", path,
                                             collection, directory_.path(), std::strerror(errno)),
                                 errno);
  }
  env.close(fd);
}

Nimbo::Ptr<Kest::Entity> EntityManager::mount(const Nimbo::String& path,
                                              const Nimbo::String& typeName,
                                              const KestShard::MountInfo& info) {
  if (auto existing = getEntity(path)) {
    auto* shard = dynamic_cast<KestShard::Shard*>(existing.ptr());
    if (shard && shard->typeName() == typeName) return existing;
    throw Nimbo::InvalidArgumentException(
        fmt::format("{} is already mounted with another type than '{}'", path, typeName));
  }
  if (path.rfind(kNamespaceDir, 0) == 0) {
    throw Nimbo::InvalidArgumentException(fmt::format("'{}' is a reserved path", path));
  }
  KestShard::ShardTypeRegistry::Factory factory = KestShard::ShardTypeRegistry::factory(typeName);
  const bool writer = info.type() == KestShard::KestShardType::writer;
  const KestShard::Directory dir = subdirectory(path, writer);
  KestShard::MountContext context{
      path,
      typeName,
      dir,
      info,
      [this, &path](const Nimbo::String& c) { return existedBefore(path, c); },
      [this, &path](const Nimbo::String& c) { existsNow(path, c); }};
  Nimbo::Ptr<KestShard::Shard> shard = factory(context);
  entities_[path] = shard;
  return shard;
}

KestShard::Directory EntityManager::subdirectory(const Nimbo::String& path, bool create) const {
  const size_t slash = path.rfind('/');
  if (slash == Nimbo::String::npos) return directory_.sub(path, create);
  return keptDirectory(path.substr(0, slash), create).sub(path.substr(slash + 1), create);
}

const KestShard::Directory& EntityManager::keptDirectory(const Nimbo::String& path,
                                                         bool create) const {
  auto it = kept_.find(path);
  if (it != kept_.end()) {
    if (it->second.stillThere()) return it->second;
    kept_.erase(it);
  }
  return kept_.emplace(path, subdirectory(path, create)).first->second;
}

void EntityManager::collectEntities(const Nimbo::String& path, uint32_t depth,
                                    std::vector<Nimbo::String>& out) const {
  if (depth == 0) return;
  const auto children =
      path.empty() ? directory_.subdirectories() : subdirectory(path, false).subdirectories();
  for (const Nimbo::String& child : children) {
    Nimbo::String childPath = path.empty() ? child : path + "/" + child;
    if (childPath == kNamespaceDir) continue;
    if (!subdirectory(childPath, false).files().empty()) out.push_back(childPath);
    collectEntities(childPath, depth - 1, out);
  }
}

std::vector<Nimbo::String> EntityManager::findEntities(const Nimbo::String& path,
                                                       uint32_t depth) const {
  std::vector<Nimbo::String> found;
  try {
    collectEntities(path, depth, found);
  } catch (const Nimbo::SystemException& e) {
    if (e.error() != ENOENT) throw;
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace KestSharedMem
