// Shared-memory collections against an in-process hash map holding the same records.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <unordered_map>
#include <vector>

#include "BenchSupport.h"
#include "KestSharedMem/EntityManager.h"
#include "KestSharedMem/MountGroup.h"
#include "types/TableShards.h"

namespace {

using VeskBench::Key;
using VeskBench::keyOf;
using VeskBench::Traits;
using ConfigRecord = Traits::ConfigShardEntry;
using LogRecord = Traits::LogShardEntry;
using ConfigShard = VeskTapAgg::DefaultFwdTcamEntryConfigShard;
using LogShard = VeskTapAgg::DefaultFwdTcamEntryEntryLogShard;

struct KeyHash {
  size_t operator()(const Key& k) const { return k.hash(0x5bd1e995); }
};

constexpr uint32_t kConfigCapacity = 65536;
constexpr uint32_t kLogCapacity = 1000000;

ConfigRecord recordOf(uint32_t i, uint64_t version) {
  return ConfigRecord{{keyOf(i)}, {}, Asic::LogVersion(version), false, {}};
}
LogRecord logRecordOf(uint64_t version) {
  return LogRecord{Asic::LogVersion(version), 0, 0, Asic::UnitId(0), keyOf(uint32_t(version))};
}

VeskBench::Root root;

// Mounts a fresh shard of the given type at `path`.
template <class Shard>
Nimbo::Ptr<Shard> mount(const std::string& path, bool preallocate = false) {
  auto em = KestSharedMem::EntityManager::getEntityManager("bench", true);
  em->entityDel(path);
  std::filesystem::remove_all(root.path + "/local/bench/" + path);
  KestShard::MountInfo info(KestShard::KestShardType::writer);
  info.collectionInfoIs({"swTableEntries", kConfigCapacity, preallocate});
  info.collectionInfoIs({"entryLogConfig", kLogCapacity, preallocate});
  return KestSharedMem::mountShard<Shard>(em, path, Shard::typeName, info);
}

// A full configuration (65,536 records) and a shuffled order to visit it in.
struct Filled {
  Nimbo::Ptr<ConfigShard> shard = mount<ConfigShard>("config");
  std::unordered_map<Key, ConfigRecord, KeyHash> map;
  std::vector<uint32_t> order;
  Filled() {
    map.reserve(kConfigCapacity);
    for (uint32_t i = 0; i < kConfigCapacity; ++i) {
      shard->swTableEntriesIs(recordOf(i, 1));
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
    f.shard->swTableEntriesIs(recordOf(i, n));
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
    auto r = f.shard->swTableEntries(keyOf(f.order[n++ % kConfigCapacity]));
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
    auto r = f.shard->swTableEntries(keyOf(n++));
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

// A walk of the whole configuration in the collection's own order, each record copied
// out and its checksum checked: what a table's walk costs at least, per record.
void BM_ConfigWalk_Shm(benchmark::State& state) {
  auto& f = filled();
  for (auto _ : state) {
    uint32_t visited = 0;
    f.shard->swTableEntriesColl().forEach([&](const ConfigRecord& r) {
      benchmark::DoNotOptimize(&r);
      ++visited;
    });
    if (visited != kConfigCapacity) state.SkipWithError("the walk missed records");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kConfigCapacity);
}
void BM_ConfigWalk_HashMap(benchmark::State& state) {
  auto& f = filled();
  for (auto _ : state) {
    for (const auto& [key, record] : f.map) {
      ConfigRecord r = record;
      benchmark::DoNotOptimize(r);
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kConfigCapacity);
}

// Insert then delete a fresh key: the steady state of a table whose entries come and go.
void BM_ConfigInsertDelete_Shm(benchmark::State& state) {
  auto& f = filled();
  f.shard->swTableEntriesDel(keyOf(0));
  f.map.erase(keyOf(0));
  uint32_t n = 0;
  for (auto _ : state) {
    uint32_t i = kConfigCapacity + (n++ % 1024);
    f.shard->swTableEntriesIs(recordOf(i, n));
    f.shard->swTableEntriesDel(keyOf(i));
  }
  f.shard->swTableEntriesIs(recordOf(0, 1));
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
  auto shard = mount<LogShard>("log", state.range(0) != 0);
  uint64_t v = 1;
  for (; v <= 65536; ++v) shard->entryLogConfigIs(logRecordOf(v));
  for (auto _ : state) {
    shard->entryLogConfigIs(logRecordOf(v));
    shard->entryLogConfigDel(Asic::LogVersion(v - 65536));
    ++v;
  }
  state.SetItemsProcessed(state.iterations() * 2);
  state.counters["bytesPerLiveRecord"] =
      double(shard->entryLogConfigColl().store().allocatedBytes()) / shard->entryLogConfigSize();
}
void BM_LogAppendTrim_HashMap(benchmark::State& state) {
  std::unordered_map<uint64_t, LogRecord> log;
  uint64_t v = 1;
  for (; v <= 65536; ++v) log[v] = logRecordOf(v);
  for (auto _ : state) {
    log[v] = logRecordOf(v);
    log.erase(v - 65536);
    ++v;
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

void BM_LogAppend_Shm(benchmark::State& state) {
  auto shard = mount<LogShard>("append");
  uint64_t v = 1;
  for (auto _ : state) {
    if (v > kLogCapacity) {
      state.PauseTiming();
      shard = mount<LogShard>("append");
      v = 1;
      state.ResumeTiming();
    }
    shard->entryLogConfigIs(logRecordOf(v));
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
    log[v] = logRecordOf(v);
    ++v;
  }
}

// Resident shared memory of an empty configuration and an empty change log at full
// capacity, and of a full configuration.
void BM_MemoryFootprint(benchmark::State& state) {
  auto emptyConfig = mount<ConfigShard>("emptyConfig");
  auto emptyLog = mount<LogShard>("emptyLog");
  for (auto _ : state) benchmark::DoNotOptimize(emptyConfig->swTableEntriesSize());
  state.counters["emptyConfigAndLogBytes"] =
      double(emptyConfig->swTableEntriesColl().store().allocatedBytes() +
             emptyLog->entryLogConfigColl().store().allocatedBytes());
  state.counters["fullConfigBytesPerRecord"] =
      double(filled().shard->swTableEntriesColl().store().allocatedBytes()) / kConfigCapacity;
}

BENCHMARK(BM_ConfigReplace_Shm);
BENCHMARK(BM_ConfigReplace_HashMap);
BENCHMARK(BM_ConfigLookupHit_Shm);
BENCHMARK(BM_ConfigLookupHit_HashMap);
BENCHMARK(BM_ConfigLookupMiss_Shm);
BENCHMARK(BM_ConfigLookupMiss_HashMap);
BENCHMARK(BM_ConfigWalk_Shm)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConfigWalk_HashMap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConfigInsertDelete_Shm);
BENCHMARK(BM_ConfigInsertDelete_HashMap);
BENCHMARK(BM_LogAppend_Shm);
BENCHMARK(BM_LogAppend_HashMap);
BENCHMARK(BM_LogAppendTrim_Shm)->ArgName("preallocated")->Arg(0)->Arg(1);
BENCHMARK(BM_LogAppendTrim_HashMap);
BENCHMARK(BM_MemoryFootprint)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
