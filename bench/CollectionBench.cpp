// Shared-memory collections against an in-process hash map holding the same records.
// Records have the sizes of the reference table's: a 72-byte key, an 88-byte
// configuration record and an 84-byte change-log record.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <unordered_map>
#include <vector>

#include "Kest/Hash.h"
#include "KestShard/Shard.h"
#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"

namespace {

struct Key {
  uint32_t words[18];
  bool operator==(const Key& o) const { return std::memcmp(words, o.words, sizeof words) == 0; }
};
#pragma pack(push, 4)
struct ConfigRecord {
  Key key;
  uint32_t rsrcKeys;
  uint64_t logVersion;
  bool isDeleted;
  uint8_t pad[3];
};
struct LogRecord {
  uint64_t logVersion;
  uint8_t deleteKind;
  uint8_t pad;
  uint16_t unitId;
  Key key;
};
#pragma pack(pop)
static_assert(sizeof(Key) == 72 && sizeof(ConfigRecord) == 88 && sizeof(LogRecord) == 84);

struct KeyOf {
  const Key& operator()(const ConfigRecord& r) const { return r.key; }
};
struct VersionOf {
  const uint64_t& operator()(const LogRecord& r) const { return r.logVersion; }
};
struct KeyHash {
  size_t operator()(const Key& k) const { return Kest::hash32(&k, sizeof k, 0x5bd1e995); }
};

class BenchShard : public KestShard::Shard {
 public:
  explicit BenchShard(const KestShard::MountContext& c)
      : KestShard::Shard(c),
        config(mountKeyed<ConfigRecord, KeyOf>(c, "swTableEntries")),
        log(mountVersioned<LogRecord, VersionOf>(c, "entryLogConfig")) {}
  KestShard::KeyedCollection<ConfigRecord, KeyOf> config;
  KestShard::VersionCollection<LogRecord, VersionOf> log;
};
KestShard::ShardTypeRegistration<BenchShard> registration("Bench::Shard");

constexpr uint32_t kConfigCapacity = 65536;
constexpr uint32_t kLogCapacity = 1000000;

Key keyOf(uint32_t i) {
  Key k{};
  for (uint32_t w = 0; w < 18; ++w) k.words[w] = i * 2654435761u + w;
  return k;
}
ConfigRecord recordOf(uint32_t i, uint64_t version) {
  ConfigRecord r{};
  r.key = keyOf(i);
  r.logVersion = version;
  return r;
}

// One shared-memory root per benchmark run, removed at exit.
struct Root {
  std::string path = "/dev/shm/vesk-bench-" + std::to_string(::getpid());
  Root() { ::setenv("VESK_SHM_ROOT", path.c_str(), 1); }
  ~Root() { std::filesystem::remove_all(path); }
};
Root root;

Nimbo::Ptr<BenchShard> mount(const std::string& path, bool preallocate = false) {
  auto em = KestSharedMem::EntityManager::getEntityManager("bench", true);
  em->entityDel(path);
  std::filesystem::remove_all(root.path + "/local/bench/" + path);
  KestShard::MountInfo info(KestShard::KestShardType::writer);
  info.collectionInfoIs({"swTableEntries", kConfigCapacity, false});
  info.collectionInfoIs({"entryLogConfig", kLogCapacity, preallocate});
  auto group = em->getMountGroup();
  group->mount(path, "Bench::Shard", info);
  group->doClose();
  return Nimbo::dynamicPtrCast<BenchShard>(em->getEntity(path));
}

// A full configuration (65,536 records) and a shuffled order to visit it in.
struct Filled {
  Nimbo::Ptr<BenchShard> shard = mount("config");
  std::unordered_map<Key, ConfigRecord, KeyHash> map;
  std::vector<uint32_t> order;
  Filled() {
    map.reserve(kConfigCapacity);
    for (uint32_t i = 0; i < kConfigCapacity; ++i) {
      shard->config.insertOrReplace(recordOf(i, 1));
      map[keyOf(i)] = recordOf(i, 1);
      order.push_back(i);
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(1));
  }
};
Filled& filled() {
  static Filled f;
  return f;
}

void BM_ConfigReplace_Shm(benchmark::State& state) {
  auto& f = filled();
  uint64_t n = 0;
  for (auto _ : state) {
    uint32_t i = f.order[n++ % kConfigCapacity];
    f.shard->config.insertOrReplace(recordOf(i, n));
  }
}
void BM_ConfigReplace_HashMap(benchmark::State& state) {
  auto& f = filled();
  uint64_t n = 0;
  for (auto _ : state) {
    uint32_t i = f.order[n++ % kConfigCapacity];
    f.map.insert_or_assign(keyOf(i), recordOf(i, n));
  }
}

void BM_ConfigLookupHit_Shm(benchmark::State& state) {
  auto& f = filled();
  uint64_t n = 0;
  for (auto _ : state) {
    auto r = f.shard->config.find(keyOf(f.order[n++ % kConfigCapacity]));
    benchmark::DoNotOptimize(r);
  }
}
void BM_ConfigLookupHit_HashMap(benchmark::State& state) {
  auto& f = filled();
  uint64_t n = 0;
  for (auto _ : state) {
    auto it = f.map.find(keyOf(f.order[n++ % kConfigCapacity]));
    ConfigRecord r = it->second;
    benchmark::DoNotOptimize(r);
  }
}

void BM_ConfigLookupMiss_Shm(benchmark::State& state) {
  auto& f = filled();
  uint32_t n = kConfigCapacity;
  for (auto _ : state) {
    auto r = f.shard->config.find(keyOf(n++));
    benchmark::DoNotOptimize(r);
  }
}
void BM_ConfigLookupMiss_HashMap(benchmark::State& state) {
  auto& f = filled();
  uint32_t n = kConfigCapacity;
  for (auto _ : state) {
    auto it = f.map.find(keyOf(n++));
    benchmark::DoNotOptimize(it);
  }
}

// Insert then delete a fresh key: the steady state of a table whose entries come and go.
void BM_ConfigInsertDelete_Shm(benchmark::State& state) {
  auto& f = filled();
  f.shard->config.erase(keyOf(0));
  f.map.erase(keyOf(0));
  uint32_t n = 0;
  for (auto _ : state) {
    uint32_t i = kConfigCapacity + (n++ % 1024);
    f.shard->config.insertOrReplace(recordOf(i, n));
    f.shard->config.erase(keyOf(i));
  }
  f.shard->config.insertOrReplace(recordOf(0, 1));
  state.SetItemsProcessed(state.iterations() * 2);
}
void BM_ConfigInsertDelete_HashMap(benchmark::State& state) {
  auto& f = filled();
  uint32_t n = 0;
  for (auto _ : state) {
    uint32_t i = kConfigCapacity + (n++ % 1024);
    f.map.insert_or_assign(keyOf(i), recordOf(i, n));
    f.map.erase(keyOf(i));
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

// The change log: append at the newest version, delete the oldest, keeping ~64k records.
void BM_LogAppendTrim_Shm(benchmark::State& state) {
  auto shard = mount("log", state.range(0) != 0);
  uint64_t v = 1;
  for (; v <= 65536; ++v) shard->log.insertOrReplace(LogRecord{v, 0, 0, 0, keyOf(uint32_t(v))});
  for (auto _ : state) {
    shard->log.insertOrReplace(LogRecord{v, 0, 0, 0, keyOf(uint32_t(v))});
    shard->log.erase(v - 65536);
    ++v;
  }
  state.SetItemsProcessed(state.iterations() * 2);
  state.counters["bytesPerLiveRecord"] =
      double(shard->log.store().allocatedBytes()) / shard->log.count();
}
void BM_LogAppendTrim_HashMap(benchmark::State& state) {
  std::unordered_map<uint64_t, LogRecord> log;
  uint64_t v = 1;
  for (; v <= 65536; ++v) log[v] = LogRecord{v, 0, 0, 0, keyOf(uint32_t(v))};
  for (auto _ : state) {
    log[v] = LogRecord{v, 0, 0, 0, keyOf(uint32_t(v))};
    log.erase(v - 65536);
    ++v;
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

void BM_LogAppend_Shm(benchmark::State& state) {
  auto shard = mount("append");
  uint64_t v = 1;
  for (auto _ : state) {
    if (v > kLogCapacity) {
      state.PauseTiming();
      shard = mount("append");
      v = 1;
      state.ResumeTiming();
    }
    shard->log.insertOrReplace(LogRecord{v, 0, 0, 0, keyOf(uint32_t(v))});
    ++v;
  }
}
void BM_LogAppend_HashMap(benchmark::State& state) {
  std::unordered_map<uint64_t, LogRecord> log;
  uint64_t v = 1;
  for (auto _ : state) {
    if (v > kLogCapacity) {
      state.PauseTiming();
      log.clear();
      v = 1;
      state.ResumeTiming();
    }
    log[v] = LogRecord{v, 0, 0, 0, keyOf(uint32_t(v))};
    ++v;
  }
}

// Resident shared memory of an empty configuration and an empty change log at full
// capacity, and of a full configuration.
void BM_MemoryFootprint(benchmark::State& state) {
  auto empty = mount("empty");
  for (auto _ : state) benchmark::DoNotOptimize(empty->config.count());
  state.counters["emptyConfigAndLogBytes"] =
      double(empty->config.store().allocatedBytes() + empty->log.store().allocatedBytes());
  state.counters["fullConfigBytesPerRecord"] =
      double(filled().shard->config.store().allocatedBytes()) / kConfigCapacity;
}

BENCHMARK(BM_ConfigReplace_Shm);
BENCHMARK(BM_ConfigReplace_HashMap);
BENCHMARK(BM_ConfigLookupHit_Shm);
BENCHMARK(BM_ConfigLookupHit_HashMap);
BENCHMARK(BM_ConfigLookupMiss_Shm);
BENCHMARK(BM_ConfigLookupMiss_HashMap);
BENCHMARK(BM_ConfigInsertDelete_Shm);
BENCHMARK(BM_ConfigInsertDelete_HashMap);
BENCHMARK(BM_LogAppend_Shm);
BENCHMARK(BM_LogAppend_HashMap);
BENCHMARK(BM_LogAppendTrim_Shm)->ArgName("preallocated")->Arg(0)->Arg(1);
BENCHMARK(BM_LogAppendTrim_HashMap);
BENCHMARK(BM_MemoryFootprint)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
