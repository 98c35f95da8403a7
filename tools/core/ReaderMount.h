#pragma once

#include <cerrno>

#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"

namespace VeskTool {

// Mounts a shard the agent writes, read-only, with its one collection of `capacity`
// records; null while the agent has not made it. Nothing is created or changed.
template <class S>
Nimbo::Ptr<S> mountAgentShard(const Nimbo::Ptr<KestSharedMem::EntityManager>& em,
                              const Nimbo::String& path, const char* collection,
                              uint32_t capacity) {
  KestShard::MountInfo info(KestShard::KestShardType::reader);
  info.collectionInfoIs({collection, capacity, false});
  try {
    return KestSharedMem::mountShard<S>(em, path, S::typeName, info);
  } catch (const Nimbo::SystemException& e) {
    if (e.error() == ENOENT) return nullptr;
    throw;
  }
}

}  // namespace VeskTool
