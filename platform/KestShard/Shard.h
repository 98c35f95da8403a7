#pragma once

#include <functional>

#include "Kest/Entity.h"
#include "KestShard/Collection.h"
#include "KestShard/Directory.h"
#include "KestShard/MountInfo.h"
#include "Nimbo/Export.h"

namespace KestShard {

// Everything a shard needs to mount its collections: its directory (one file per
// collection), the mount request, and the namespace's memory of which collection files
// existed before (so that a lost one is told from a new one).
struct MountContext {
  Nimbo::String path;      // the shard's path in its entity manager
  Nimbo::String typeName;  // the registered shard type
  const Directory& directory;
  const MountInfo& info;
  // Whether the namespace says collection `name` of this shard was created before.
  std::function<bool(const Nimbo::String& name)> existedBefore;
  // Records in the namespace that collection `name` of this shard exists.
  std::function<void(const Nimbo::String& name)> existsNow;
};

// A mounted shard: a named group of collections at one path of an entity manager. Derived
// shard types declare their collections as typed members and mount them in their
// constructor with mountKeyed / mountVersioned. Owned by the entity manager that mounted
// it (and whoever holds a reference); single-threaded.
class VESK_EXPORT Shard : public Kest::Entity {
 public:
  explicit Shard(const MountContext& context);

  const Nimbo::String& typeName() const noexcept { return typeName_; }
  bool writable() const noexcept { return writable_; }

 protected:
  template <class Record, class KeyOf, class MarkOf = NoMark>
  KeyedCollection<Record, KeyOf, MarkOf> mountKeyed(const MountContext& context,
                                                    const Nimbo::String& name) {
    return KeyedCollection<Record, KeyOf, MarkOf>(mountStore<KeyedStore>(
        context, name, CollectionKind::keyed, KeyedCollection<Record, KeyOf, MarkOf>::layout()));
  }
  template <class Record, class KeyOf>
  VersionCollection<Record, KeyOf> mountVersioned(const MountContext& context,
                                                  const Nimbo::String& name) {
    return VersionCollection<Record, KeyOf>(mountStore<VersionStore>(
        context, name, CollectionKind::versionLog, VersionCollection<Record, KeyOf>::layout()));
  }

 private:
  template <class S>
  Nimbo::Ptr<S> mountStore(const MountContext& context, const Nimbo::String& name,
                           CollectionKind kind, const RecordLayout& layout) {
    Nimbo::Ptr<Segment> segment = openSegment(context, name, kind, layout);
    return Nimbo::make<S>(std::move(segment), path() + "/" + name);
  }
  Nimbo::Ptr<Segment> openSegment(const MountContext& context, const Nimbo::String& name,
                                  CollectionKind kind, const RecordLayout& layout);

  Nimbo::String typeName_;
  bool writable_;
};

// Maps shard type names to constructors, so that a mount request naming a type can build
// it. Types register once at load time (see ShardTypeRegistration). Process-wide.
class VESK_EXPORT ShardTypeRegistry {
 public:
  using Factory = Nimbo::Ptr<Shard> (*)(const MountContext&);
  static void typeIs(const Nimbo::String& typeName, Factory factory);
  // The factory of a type; throws Nimbo::InvalidArgumentException for an unknown one.
  static Factory factory(const Nimbo::String& typeName);
};

template <class S>
struct ShardTypeRegistration {
  explicit ShardTypeRegistration(const char* typeName) {
    ShardTypeRegistry::typeIs(
        typeName, [](const MountContext& c) -> Nimbo::Ptr<Shard> { return Nimbo::make<S>(c); });
  }
};

}  // namespace KestShard
