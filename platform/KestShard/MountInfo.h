#pragma once

#include <cstdint>
#include <vector>

#include "Nimbo/String.h"

namespace KestShard {

// Who mounts: the one writer (read-write, exclusive, repairs on mount) or a reader
// (read-only mapping, any number of processes).
enum class KestShardType { writer, reader };

// How one collection of a shard is to be mounted.
struct CollectionInfo {
  Nimbo::String name;
  uint32_t capacity = 0;
  // Reserve the collection's memory for its full capacity at mount and keep it, instead
  // of growing and shrinking with the records: the fastest write path, the largest footprint.
  bool preallocate = false;
};

// The request a shard is mounted with: its access and the collections it holds.
class MountInfo {
 public:
  explicit MountInfo(KestShardType type) : type_(type) {}

  KestShardType type() const noexcept { return type_; }
  void collectionInfoIs(CollectionInfo info) {
    for (auto& c : collections_) {
      if (c.name == info.name) {
        c = std::move(info);
        return;
      }
    }
    collections_.push_back(std::move(info));
  }
  const CollectionInfo* collectionInfo(const Nimbo::String& name) const noexcept {
    for (const auto& c : collections_) {
      if (c.name == name) return &c;
    }
    return nullptr;
  }
  const std::vector<CollectionInfo>& collectionInfos() const noexcept { return collections_; }

 private:
  KestShardType type_;
  std::vector<CollectionInfo> collections_;
};

}  // namespace KestShard
