#pragma once

#include <map>
#include <vector>

#include "Kest/Entity.h"
#include "KestShard/Directory.h"
#include "KestShard/MountInfo.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace KestSharedMem {

class MountGroup;

// One namespace of shared-memory shards: a directory under the root, local to this agent
// ("local/<name>") or shared with the rest of the system ("shared/<name>"), plus the record
// of which collection files were ever created in it (".namespace/<path>/<collection>"),
// which is how a lost segment is told from one never made. Holds the shards mounted
// through it by path. Process-wide registry keyed by root, name and locality;
// single-threaded.
class VESK_EXPORT EntityManager : public Nimbo::Node {
 public:
  static Nimbo::Ptr<EntityManager> getEntityManager(const Nimbo::String& name, bool local);

  const Nimbo::String& name() const noexcept { return name_; }
  bool local() const noexcept { return local_; }
  const KestShard::Directory& directory() const noexcept { return directory_; }

  Nimbo::Ptr<MountGroup> getMountGroup();
  // The entity mounted at `path` in this process, or null.
  Nimbo::Ptr<Kest::Entity> getEntity(const Nimbo::String& path) const;
  // Paths below `path`, at most `depth` levels down, that hold collection files.
  std::vector<Nimbo::String> findEntities(const Nimbo::String& path, uint32_t depth) const;
  // Unmounts the entity at `path` (its collections close when the last reference goes).
  void entityDel(const Nimbo::String& path);

  // Mounts `path` now; what MountGroup::doClose() does for each pending mount. Returns the
  // entity already mounted there when its type matches.
  Nimbo::Ptr<Kest::Entity> mount(const Nimbo::String& path, const Nimbo::String& typeName,
                                 const KestShard::MountInfo& info);

 private:
  EntityManager(Nimbo::String name, bool local, KestShard::Directory directory);
  bool existedBefore(const Nimbo::String& path, const Nimbo::String& collection) const;
  void existsNow(const Nimbo::String& path, const Nimbo::String& collection) const;
  void collectEntities(const Nimbo::String& path, uint32_t depth,
                       std::vector<Nimbo::String>& out) const;
  // The directory at `path` below the namespace's, opened and checked relative to its
  // parent. The parents are kept once checked (keptDirectory), so that the many mounts
  // and namespace records below one directory walk its path once; the leaves, one per
  // unit and table, are not, so that the descriptors kept do not grow with the units.
  KestShard::Directory subdirectory(const Nimbo::String& path, bool create) const;
  // A parent directory, kept; one removed since (or no longer safe) is opened again, so
  // nothing is ever written into a directory that has been removed.
  const KestShard::Directory& keptDirectory(const Nimbo::String& path, bool create) const;

  Nimbo::String name_;
  bool local_;
  KestShard::Directory directory_;
  std::map<Nimbo::String, Nimbo::Ptr<Kest::Entity>> entities_;
  mutable std::map<Nimbo::String, KestShard::Directory> kept_;
};

}  // namespace KestSharedMem
