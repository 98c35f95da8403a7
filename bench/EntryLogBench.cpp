// The entry log of the reference table type: the cost of each operation a committed
// change or the hardware side's progress makes, and of remounting a full unit.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "Asic/GroupInterface.h"
#include "Asic/SwTableStats.h"
#include "BenchSupport.h"
#include "KestSharedMem/EntityManager.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/WriterMount.h"

namespace {

using Asic::LogVersion;
using Asic::UnitId;
using VeskBench::keyOf;
using VeskBench::Traits;

constexpr uint32_t kUnitEntries = 65536;
const UnitId kUnit(0);

VeskBench::Root root;

// An agent with the reference table type's entry log and unit 0 mounted, in a shared-memory
// namespace of its own.
struct Rig {
  explicit Rig(const std::string& name)
      : em(Nimbo::make<Cairn::EntityManager>(name, true)),
        log(VeskTapAgg::defaultFwdTcamEntryEntryLogFactory(
            Traits::tableId, em, Nimbo::make<Asic::GroupInterface>(), name)),
        stats(Nimbo::make<Asic::SwTableStats>()) {
    log->mountShardConfig(kUnit, {});
    clear();
  }
  static Traits::LogEntry entry(uint32_t i) {
    Traits::LogEntry e{};
    e.entryKey = keyOf(i);
    return e;
  }
  LogVersion write(uint32_t i, bool suppress = false) {
    return log->entryIs(entry(i), {}, nullptr, kUnit, stats, suppress);
  }
  void fill(uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) write(i);
    trim();
  }
  // The hardware side has taken everything: the log and the tombstones go.
  void trim() { log->cleanupEntryLog(log->tableVersion()); }
  void clear() {
    log->tableDel(nullptr, kUnit);
    trim();
  }

  Nimbo::Ptr<Cairn::EntityManager> em;
  Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntryEntryLog> log;
  Nimbo::Ptr<Asic::SwTableStats> stats;
};

// What a committed change cannot cost less than: one read of a random record of a full
// unit's configuration (the key hashed, its chain walked, the record copied and checked)
// and one append to the change log. The operations below are compared with it at the end.
void BM_FloorRandomReadPlusAppend(benchmark::State& state) {
  constexpr uint32_t kTrimEvery = 65536;
  Rig rig("floor");
  rig.fill(kUnitEntries);
  const auto config = rig.log->tableConfigShard(kUnit);
  const auto& changeLog = rig.log->tableEntryLog();
  std::vector<uint32_t> order(kUnitEntries);
  for (uint32_t i = 0; i < kUnitEntries; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  uint64_t version = uint64_t(1) << 40;  // past every version the rig logged
  uint32_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(config->swTableEntries(keyOf(order[n % kUnitEntries])));
    Traits::LogShardEntry record{};
    record.logVersion = LogVersion(++version);
    record.key = keyOf(n);
    changeLog->entryLogConfigIs(record);
    if (++n % kTrimEvery == 0) {
      state.PauseTiming();
      for (uint64_t v = version - kTrimEvery + 1; v <= version; ++v)
        changeLog->entryLogConfigDel(LogVersion(v));
      state.ResumeTiming();
    }
  }
}
BENCHMARK(BM_FloorRandomReadPlusAppend);

void BM_EntryIsNewKey(benchmark::State& state) {
  Rig rig("newKey");
  uint32_t i = 0;
  for (auto _ : state) {
    if (i == kUnitEntries) {
      state.PauseTiming();
      rig.clear();
      i = 0;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(rig.write(i++));
  }
}
BENCHMARK(BM_EntryIsNewKey);

void BM_EntryIsReplace(benchmark::State& state) {
  Rig rig("replace");
  rig.fill(kUnitEntries);
  uint32_t i = 0;
  for (auto _ : state) {
    if (i == kUnitEntries) {
      state.PauseTiming();
      rig.trim();
      i = 0;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(rig.write(i++));
  }
}
BENCHMARK(BM_EntryIsReplace);

void BM_EntryIsSuppressed(benchmark::State& state) {
  Rig rig("suppressed");
  rig.fill(kUnitEntries);
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(rig.write(i++ % kUnitEntries, true));
}
BENCHMARK(BM_EntryIsSuppressed);

void BM_EntryDel(benchmark::State& state) {
  Rig rig("del");
  rig.fill(kUnitEntries);
  uint32_t i = 0;
  for (auto _ : state) {
    if (i == kUnitEntries) {
      state.PauseTiming();
      rig.trim();
      rig.fill(kUnitEntries);
      i = 0;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(rig.log->entryDel(keyOf(i++), nullptr, kUnit));
  }
}
BENCHMARK(BM_EntryDel);

void BM_TableDelOfAFullUnit(benchmark::State& state) {
  Rig rig("tableDel");
  for (auto _ : state) {
    state.PauseTiming();
    rig.fill(kUnitEntries);
    state.ResumeTiming();
    rig.log->tableDel(nullptr, kUnit);
    state.PauseTiming();
    rig.trim();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kUnitEntries);
}
BENCHMARK(BM_TableDelOfAFullUnit)->Unit(benchmark::kMillisecond)->Iterations(5);

// 100,000 changes over the unit's keys, one in ten a delete, then all cleaned up at once:
// every record leaves the log and every tombstone the configuration.
void BM_CleanupEntryLog(benchmark::State& state) {
  constexpr uint32_t kChanges = 100000;
  Rig rig("cleanup");
  for (auto _ : state) {
    state.PauseTiming();
    for (uint32_t c = 0; c < kChanges; ++c) {
      if (c % 10 == 9) {
        rig.log->entryDel(keyOf((c * 7) % kUnitEntries), nullptr, kUnit);
      } else {
        rig.write(c % kUnitEntries);
      }
    }
    state.ResumeTiming();
    rig.trim();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kChanges);
}
BENCHMARK(BM_CleanupEntryLog)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_Entrys(benchmark::State& state) {
  Rig rig("entrys");
  rig.fill(kUnitEntries);
  for (auto _ : state) benchmark::DoNotOptimize(rig.log->entrys(kUnit));
}
BENCHMARK(BM_Entrys)->Unit(benchmark::kMicrosecond);

// What a restarted agent pays per unit: unmount and mount the configuration again.
void BM_RemountUnit(benchmark::State& state) {
  Rig rig("remount" + std::to_string(state.range(0)));
  rig.fill(uint32_t(state.range(0)));
  auto shm = Asic::mountEntityManager(*rig.em);
  const Nimbo::String path = Traits::Constants::configShardPath(kUnit);
  for (auto _ : state) {
    rig.log->tableConfigShardDel(kUnit);
    shm->entityDel(path);
    rig.log->mountShardConfig(kUnit, {});
  }
  if (rig.log->entrys(kUnit) != state.range(0)) state.SkipWithError("entries lost on remount");
}
BENCHMARK(BM_RemountUnit)->Arg(1024)->Arg(kUnitEntries)->Unit(benchmark::kMicrosecond);

// The console report, then each change's cost against the floor (CPU time; the median
// when repeated).
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      if (run.error_occurred) continue;
      nanoseconds_[run.run_name.function_name] =
          run.GetAdjustedCPUTime() * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
          benchmark::GetTimeUnitMultiplier(run.time_unit);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto floor = nanoseconds_.find("BM_FloorRandomReadPlusAppend");
    if (floor == nanoseconds_.end()) return;
    fmt::print("\nagainst one random read of the unit plus one append ({:.0f} ns):\n",
               floor->second);
    for (const auto& [name, label] : {std::pair{"BM_EntryIsNewKey", "entryIs, new key"},
                                      std::pair{"BM_EntryIsReplace", "entryIs, replace"},
                                      std::pair{"BM_EntryDel", "entryDel"}}) {
      const auto it = nanoseconds_.find(name);
      if (it == nanoseconds_.end()) continue;
      const double ratio = it->second / floor->second;
      fmt::print("  {:<17} {:>5.0f} ns  {:.2f}x  (target 1.5x: {})\n", label, it->second, ratio,
                 ratio <= 1.5 ? "met" : "NOT met");
    }
  }

 private:
  std::map<std::string, double> nanoseconds_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
