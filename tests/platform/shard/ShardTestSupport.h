#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "KestShard/Shard.h"
#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"
#include "support/TempShmRoot.h"

namespace ShardTest {

// A record whose payload is derived from its key and a generation, so that any mix of
// two writes (a torn record) is detectable by looking at the record alone.
struct Key {
  uint32_t id;
  uint32_t space;
  uint64_t tag;
  auto operator<=>(const Key&) const = default;
};

struct Record {
  Key key;
  uint64_t generation;
  uint64_t payload[7];

  static Record of(uint32_t id, uint64_t generation) {
    Record r{};
    r.key = Key{id, 7, uint64_t(id) * 0x9e3779b97f4a7c15ULL};
    r.generation = generation;
    for (int i = 0; i < 7; ++i) r.payload[i] = (uint64_t(id) << 32) ^ (generation * 31 + i);
    return r;
  }
  bool whole() const { return *this == of(key.id, generation); }
  bool operator==(const Record& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};

struct KeyOf {
  const Key& operator()(const Record& r) const { return r.key; }
};

struct LogRecord {
  uint64_t version;
  uint32_t unit;
  uint32_t kind;
  uint64_t fill[6];

  static LogRecord of(uint64_t version) {
    LogRecord r{};
    r.version = version;
    r.unit = uint32_t(version % 7);
    r.kind = uint32_t(version % 3);
    for (int i = 0; i < 6; ++i) r.fill[i] = version * 0x100000001b3ULL + i;
    return r;
  }
  bool whole() const {
    LogRecord expected = of(version);
    return std::memcmp(this, &expected, sizeof *this) == 0;
  }
};

struct VersionOf {
  const uint64_t& operator()(const LogRecord& r) const { return r.version; }
};

using Records = KestShard::KeyedCollection<Record, KeyOf>;
using Log = KestShard::VersionCollection<LogRecord, VersionOf>;

// A shard with one collection of each kind.
class TestShard : public KestShard::Shard {
 public:
  explicit TestShard(const KestShard::MountContext& c)
      : KestShard::Shard(c),
        records(mountKeyed<Record, KeyOf>(c, "records")),
        log(mountVersioned<LogRecord, VersionOf>(c, "log")) {}
  Records records;
  Log log;
};

inline constexpr const char* kTestShardType = "ShardTest::TestShard";

using TempRoot = VeskTest::TempShmRoot;

inline KestShard::MountInfo mountInfo(KestShard::KestShardType type, uint32_t recordCapacity,
                                      uint32_t logCapacity) {
  KestShard::MountInfo info(type);
  info.collectionInfoIs({"records", recordCapacity, false});
  info.collectionInfoIs({"log", logCapacity, false});
  return info;
}

// Mounts the test shard at `path` through a mount group, as the agent does.
inline Nimbo::Ptr<TestShard> mountTestShard(
    const std::string& path, uint32_t recordCapacity = 1024, uint32_t logCapacity = 1024,
    KestShard::KestShardType type = KestShard::KestShardType::writer,
    const std::string& manager = "agent") {
  return KestSharedMem::mountShard<TestShard>(
      KestSharedMem::EntityManager::getEntityManager(manager, true), path, kTestShardType,
      mountInfo(type, recordCapacity, logCapacity));
}

inline void unmount(const std::string& path, const std::string& manager = "agent") {
  KestSharedMem::EntityManager::getEntityManager(manager, true)->entityDel(path);
}

inline std::string segmentFile(const TempRoot& root, const std::string& path,
                               const std::string& collection,
                               const std::string& manager = "agent") {
  return root.path() + "/local/" + manager + "/" + path + "/" + collection;
}

}  // namespace ShardTest
