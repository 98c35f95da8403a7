#include "KestSharedMem/MountGroup.h"

namespace KestSharedMem {

Nimbo::Ptr<MountHandle> MountGroup::mount(const Nimbo::String& path, const Nimbo::String& typeName,
                                          const KestShard::MountInfo& info) {
  auto handle = Nimbo::make<MountHandle>(path, typeName, info);
  pending_.push_back(handle);
  return handle;
}

void MountGroup::doClose() {
  while (!pending_.empty()) {
    Nimbo::Ptr<MountHandle> handle = pending_.front();
    handle->entityIs(manager_->mount(handle->path(), handle->typeName(), handle->info()));
    pending_.erase(pending_.begin());
  }
}

}  // namespace KestSharedMem
