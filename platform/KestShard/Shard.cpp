#include "KestShard/Shard.h"

#include <map>
#include <mutex>

#include <fmt/format.h>

#include "Nimbo/Exception.h"

namespace KestShard {

Shard::Shard(const MountContext& context)
    : Kest::Entity(context.path),
      typeName_(context.typeName),
      writable_(context.info.type() == KestShardType::writer) {}

Nimbo::Ptr<Segment> Shard::openSegment(const MountContext& context, const Nimbo::String& name,
                                       CollectionKind kind, const RecordLayout& layout) {
  const CollectionInfo* info = context.info.collectionInfo(name);
  if (!info) {
    throw Nimbo::InvalidArgumentException(fmt::format(
        "mount of {} ({}) names no capacity for its collection '{}'", path(), typeName_, name));
  }
  Geometry geometry = Geometry::of(kind, layout, info->capacity);
  Segment::Identity identity{name, typeName_};
  if (!writable_) return Segment::openReader(context.directory, name, geometry, identity);
  Nimbo::Ptr<Segment> segment =
      Segment::openWriter(context.directory, name, geometry, identity, context.existedBefore(name));
  if (info->preallocate) segment->pin();
  if (segment->created()) context.existsNow(name);
  return segment;
}

namespace {

std::map<Nimbo::String, ShardTypeRegistry::Factory>& registry() {
  static std::map<Nimbo::String, ShardTypeRegistry::Factory> types;
  return types;
}
std::mutex registryMutex;

}  // namespace

void ShardTypeRegistry::typeIs(const Nimbo::String& typeName, Factory factory) {
  std::lock_guard lock(registryMutex);
  registry()[typeName] = factory;
}

ShardTypeRegistry::Factory ShardTypeRegistry::factory(const Nimbo::String& typeName) {
  std::lock_guard lock(registryMutex);
  auto it = registry().find(typeName);
  if (it == registry().end()) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("no shard type '{}' is registered in this process", typeName));
  }
  return it->second;
}

}  // namespace KestShard
