#pragma once

#include <vector>

#include "KestShard/MountInfo.h"
#include "KestSharedMem/EntityManager.h"
#include "Nimbo/Export.h"

namespace KestSharedMem {

// A request to mount one path, filled in when its group closes.
class VESK_EXPORT MountHandle : public Nimbo::Node {
 public:
  MountHandle(Nimbo::String path, Nimbo::String typeName, KestShard::MountInfo info)
      : path_(std::move(path)), typeName_(std::move(typeName)), info_(std::move(info)) {}

  const Nimbo::String& path() const noexcept { return path_; }
  const Nimbo::String& typeName() const noexcept { return typeName_; }
  const KestShard::MountInfo& info() const noexcept { return info_; }
  const Nimbo::Ptr<Kest::Entity>& entity() const noexcept { return entity_; }
  void entityIs(Nimbo::Ptr<Kest::Entity> entity) { entity_ = std::move(entity); }

 private:
  Nimbo::String path_;
  Nimbo::String typeName_;
  KestShard::MountInfo info_;
  Nimbo::Ptr<Kest::Entity> entity_;
};

// Collects mount requests and performs them together on doClose(). Mounted entities are
// then found through the entity manager. Owned by whoever asked for it; single-threaded.
class VESK_EXPORT MountGroup : public Nimbo::Node {
 public:
  explicit MountGroup(Nimbo::Ptr<EntityManager> manager) : manager_(std::move(manager)) {}

  Nimbo::Ptr<MountHandle> mount(const Nimbo::String& path, const Nimbo::String& typeName,
                                const KestShard::MountInfo& info);
  // Performs the pending mounts in order; the first failure is thrown and the requests
  // after it stay pending.
  void doClose();
  size_t pending() const noexcept { return pending_.size(); }

 private:
  Nimbo::Ptr<EntityManager> manager_;
  std::vector<Nimbo::Ptr<MountHandle>> pending_;
};

// Mounts one path as shard type S through a group of its own and returns the shard (null
// when what is mounted there is not an S). Throws what the mount throws.
template <class S>
Nimbo::Ptr<S> mountShard(const Nimbo::Ptr<EntityManager>& manager, const Nimbo::String& path,
                         const Nimbo::String& typeName, const KestShard::MountInfo& info) {
  Nimbo::Ptr<MountGroup> group = manager->getMountGroup();
  group->mount(path, typeName, info);
  group->doClose();
  return Nimbo::dynamicPtrCast<S>(manager->getEntity(path));
}

}  // namespace KestSharedMem
