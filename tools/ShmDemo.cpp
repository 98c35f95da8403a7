// Shows what the shared-memory layer promises: a writer mounts a collection and stores
// records, goes away, and a second process mounts the same collection and reads every
// record back, unchanged, without rebuilding anything.
//
//   vesktap-shm-demo [records]      (default 1000; VESK_SHM_ROOT picks the root)
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <fmt/format.h>

#include "KestShard/Shard.h"
#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"

namespace {

// A TCAM-style entry: priority and a value/mask match on destination MAC and VLAN, with
// the index of the action it selects.
struct EntryKey {
  uint32_t priority;
  uint16_t vlan;
  uint16_t vlanMask;
  uint8_t mac[6];
  uint8_t macMask[6];
};
struct Entry {
  EntryKey key;
  uint32_t actionIndex;
  uint64_t version;
};
struct KeyOf {
  const EntryKey& operator()(const Entry& e) const { return e.key; }
};

class DemoShard : public KestShard::Shard {
 public:
  explicit DemoShard(const KestShard::MountContext& c)
      : KestShard::Shard(c), entries(mountKeyed<Entry, KeyOf>(c, "swTableEntries")) {}
  KestShard::KeyedCollection<Entry, KeyOf> entries;
};
KestShard::ShardTypeRegistration<DemoShard> registration("Demo::EntryShard");

constexpr const char* kPath = "demo/unit0";

Entry entryOf(uint32_t i) {
  Entry e{};
  e.key.priority = i;
  e.key.vlan = uint16_t(100 + i % 4000);
  e.key.vlanMask = 0x0fff;
  for (int b = 0; b < 6; ++b) {
    e.key.mac[b] = uint8_t(i >> (b * 3));
    e.key.macMask[b] = 0xff;
  }
  e.actionIndex = i % 64;
  e.version = i + 1;
  return e;
}

Nimbo::Ptr<DemoShard> mount(KestShard::KestShardType type) {
  auto em = KestSharedMem::EntityManager::getEntityManager("demo", true);
  KestShard::MountInfo info(type);
  info.collectionInfoIs({"swTableEntries", 65536, false});
  auto group = em->getMountGroup();
  group->mount(kPath, "Demo::EntryShard", info);
  group->doClose();
  return Nimbo::dynamicPtrCast<DemoShard>(em->getEntity(kPath));
}

int writer(uint32_t records) {
  auto shard = mount(KestShard::KestShardType::writer);
  for (uint32_t i = 0; i < records; ++i) shard->entries.insertOrReplace(entryOf(i));
  shard->entries.control()->scratchpadIs(records);
  fmt::print("writer  (pid {}): stored {} entries, scratchpad {}, wiped {}\n", getpid(),
             shard->entries.count(), shard->entries.control()->scratchpad(),
             shard->entries.control()->wiped());
  return 0;
}

int reader(uint32_t records) {
  auto shard = mount(KestShard::KestShardType::reader);
  uint32_t same = 0;
  for (uint32_t i = 0; i < records; ++i) {
    const Entry written = entryOf(i);
    auto e = shard->entries.find(written.key);
    if (e && std::memcmp(&*e, &written, sizeof(Entry)) == 0) ++same;
  }
  fmt::print("reader  (pid {}): found {} entries, {} of {} identical to what was written\n",
             getpid(), shard->entries.count(), same, records);
  int shown = 0;
  for (auto it = shard->entries.begin(); it != shard->entries.end() && shown < 3; ++it, ++shown) {
    fmt::print("  priority {:5} vlan {:4}/{:#05x} mac {:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x} -> "
               "action {}\n",
               it->key.priority, it->key.vlan, it->key.vlanMask, it->key.mac[0], it->key.mac[1],
               it->key.mac[2], it->key.mac[3], it->key.mac[4], it->key.mac[5], it->actionIndex);
  }
  return same == records ? 0 : 1;
}

int runChild(int (*body)(uint32_t), uint32_t records) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid < 0) throw Nimbo::SystemException("fork failed", errno);
  if (pid == 0) {
    int rc = 2;
    try {
      rc = body(records);
    } catch (const std::exception& e) {
      fmt::print(stderr, "error: {}\n", e.what());
    }
    std::fflush(stdout);
    _exit(rc);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t records = argc > 1 ? uint32_t(std::strtoul(argv[1], nullptr, 10)) : 1000;
  if (records == 0 || records > 65536) {
    fmt::print(stderr, "usage: {} [records: 1..65536]\n", argv[0]);
    return 2;
  }
  std::string root;
  if (!std::getenv("VESK_SHM_ROOT")) {
    root = fmt::format("/dev/shm/vesktap-demo-{}", getpid());
    setenv("VESK_SHM_ROOT", root.c_str(), 1);
  }
  fmt::print("shared memory under {}\n", KestShard::Directory::rootPath());
  int rc = runChild(writer, records);
  if (rc == 0) rc = runChild(reader, records);
  if (!root.empty()) std::filesystem::remove_all(root);
  fmt::print("{}\n", rc == 0 ? "ok: every entry survived the writer's exit" : "FAILED");
  return rc;
}
