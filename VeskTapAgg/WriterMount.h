#pragma once

#include <functional>

#include "Asic/MountNamespace.h"
#include "Cairn/EntityManager.h"
#include "KestShard/CollectionControl.h"
#include "KestShard/MountInfo.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace VeskTapAgg {

// Makes the agents watching `agentName`'s relaunch generation restart: advances the major
// id of the Asic::GenId at "hardware/quill/agent/relaunch/config/<agentName>" in `em`, if
// there is one.
VESK_EXPORT void relaunchAgents(const Cairn::EntityManager& em, const Nimbo::String& agentName);

// Mounts shard type S at `path` as its writer, with wipe recovery: when the collection that
// `collectionControl` picks out of the mounted shard was found wiped (the shared memory of
// a previous writer is lost), calls `onWiped`, restarts the agents concerned and clears the
// flag; the (empty) collection is used as it is. `setCollectionInfo` fills in the mount
// request. Returns null when what is mounted at `path` is not an S. An empty callback
// throws std::bad_function_call; mount failures propagate.
template <class S>
Nimbo::Ptr<S> checkAndwriteMountShard(
    const Nimbo::Ptr<Cairn::EntityManager>& em, const Nimbo::String& typeName,
    const Nimbo::String& path, const Nimbo::String& agentName,
    const std::function<void(KestShard::MountInfo&)>& setCollectionInfo,
    const std::function<Nimbo::Ptr<KestShard::CollectionControl>(S*)>& collectionControl,
    const std::function<void()>& onWiped) {
  Nimbo::Ptr<KestSharedMem::EntityManager> shmEm = Asic::mountEntityManager(*em);
  Nimbo::Ptr<KestSharedMem::MountGroup> group = shmEm->getMountGroup();
  KestShard::MountInfo info(KestShard::KestShardType::writer);
  setCollectionInfo(info);
  group->mount(path, typeName, info);
  group->doClose();
  Nimbo::Ptr<S> shard = Nimbo::dynamicPtrCast<S>(shmEm->getEntity(path));
  Nimbo::Ptr<KestShard::CollectionControl> control = collectionControl(shard.ptr());
  if (!control || !control->wiped()) return shard;
  onWiped();
  relaunchAgents(*em, agentName);
  control->clearWiped();
  return shard;
}

}  // namespace VeskTapAgg
