// Shows what the shared-memory layer promises: a writer mounts a unit's configuration and
// the change log of the default-forwarding entry table, stores entries, and exits; a second
// process mounts the same collections read-only and finds every entry, unchanged, without
// rebuilding anything.
//
//   vesktap-shm-demo [entries]      (default 1000; VESK_SHM_ROOT picks the root)
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <fmt/format.h>

#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"
#include "types/TableShards.h"

namespace {

using Traits = VeskTapAgg::DefaultFwdTcamEntryTraits;
using ConfigShard = VeskTapAgg::DefaultFwdTcamEntryConfigShard;
using LogShard = VeskTapAgg::DefaultFwdTcamEntryEntryLogShard;
const Asic::UnitId kUnit(0);

// Entry i: priority i, VLAN and destination MAC matched exactly, action i % 64.
Traits::EntryKey keyOf(uint32_t i) {
  Traits::EntryKey key{};
  key.priority = i;
  key.vlan = {uint16_t(100 + i % 4000), 0x0fff};
  key.dstMac = {{0x00, 0x1c, 0x73, uint8_t(i >> 16), uint8_t(i >> 8), uint8_t(i)},
                {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};
  key.actionIndex = i % 64;
  return key;
}

template <class Shard>
Nimbo::Ptr<Shard> mount(const Nimbo::String& path, KestShard::KestShardType type) {
  KestShard::MountInfo info(type);
  info.collectionInfoIs({"swTableEntries", 65536, false});
  info.collectionInfoIs({"entryLogConfig", 1000000, false});
  return KestSharedMem::mountShard<Shard>(
      KestSharedMem::EntityManager::getEntityManager("VeskTapAgg", true), path, Shard::typeName, info);
}

int writer(uint32_t entries) {
  auto config = mount<ConfigShard>(Traits::Constants::configShardPath(kUnit), KestShard::KestShardType::writer);
  auto log = mount<LogShard>(Traits::Constants::tableEntryLogShardPath(), KestShard::KestShardType::writer);
  for (uint32_t i = 0; i < entries; ++i) {
    const Asic::LogVersion version(i + 1);
    config->swTableEntriesIs({{keyOf(i)}, {}, version, false, {}});
    log->entryLogConfigIs({version, 0, 0, kUnit, keyOf(i)});
  }
  log->entryLogConfigColl().control()->scratchpadIs(entries);  // the table version
  fmt::print("writer (pid {}): {} entries in {}, change log at version {}\n", getpid(),
             config->swTableEntriesSize(), Traits::Constants::configShardPath(kUnit),
             log->entryLogConfigColl().control()->scratchpad());
  return 0;
}

int reader(uint32_t entries) {
  auto config = mount<ConfigShard>(Traits::Constants::configShardPath(kUnit), KestShard::KestShardType::reader);
  auto log = mount<LogShard>(Traits::Constants::tableEntryLogShardPath(), KestShard::KestShardType::reader);
  uint32_t same = 0;
  for (uint32_t i = 0; i < entries; ++i) {
    const auto stored = config->swTableEntries(keyOf(i));
    if (stored.logEntry.key().isEq(keyOf(i)) && stored.logVersion == Asic::LogVersion(i + 1)) ++same;
  }
  fmt::print("reader (pid {}): {} of {} entries read back unchanged; change log holds {} records, "
             "table version {}\n",
             getpid(), same, entries, log->entryLogConfigSize(),
             log->entryLogConfigColl().control()->scratchpad());
  int shown = 0;
  for (auto it = config->swTableEntriesColl().begin();
       it != config->swTableEntriesColl().end() && shown < 3; ++it, ++shown) {
    fmt::print("  {}\n", *it);
  }
  return same == entries ? 0 : 1;
}

int runChild(int (*body)(uint32_t), uint32_t entries) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid < 0) throw Nimbo::SystemException("fork failed", errno);
  if (pid == 0) {
    int rc = 2;
    try {
      rc = body(entries);
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
  const uint32_t entries = argc > 1 ? uint32_t(std::strtoul(argv[1], nullptr, 10)) : 1000;
  if (argc > 2 || entries == 0 || entries > 65536) {
    fmt::print(stderr, "usage: {} [entries: 1..65536]\n", argv[0]);
    return 2;
  }
  std::string root;
  if (!std::getenv("VESK_SHM_ROOT")) {
    root = fmt::format("/dev/shm/vesktap-demo-{}", getpid());
    setenv("VESK_SHM_ROOT", root.c_str(), 1);
  }
  fmt::print("shared memory under {}\n", KestShard::Directory::rootPath());
  int rc = runChild(writer, entries);
  if (rc == 0) rc = runChild(reader, entries);
  if (!root.empty()) std::filesystem::remove_all(root);
  fmt::print("{}\n", rc == 0 ? "ok: every entry survived the writer's exit" : "FAILED");
  return rc;
}
