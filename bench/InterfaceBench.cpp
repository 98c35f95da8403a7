// What a restarted agent pays to serve its tables again: every table type's interface and
// the tables of its units, in a fresh process, over units full of committed entries.

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "Asic/MountNamespace.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/SwTableStats.h"
#include "BenchSupport.h"
#include "VeskTapAgg/EntryLog.h"
#include "VeskTapAgg/Interface.h"

namespace {

constexpr const char* kAgent = "restoreBench";
constexpr const char* kGroup = "VeskTapAgg.VeskTapAggGroup";
constexpr uint16_t kUnits = 4;

VeskBench::Root root;

template <class Traits>
typename Traits::LogEntry logEntryOf(uint32_t n) {
  typename Traits::LogEntry e{};
  std::memcpy(static_cast<void*>(&e.entryKey), &n, sizeof n);
  return e;
}

// Runs `body` in a child process; false when it did not exit with 0.
template <class Body>
bool inChild(Body&& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body() ? 0 : 1);
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Fills four units of every table type with `entries` committed entries each; the hardware
// side takes all of them and the agent cleans its log up, then goes away.
bool fill(uint32_t entries) {
  return inChild([&] {
    auto em = Nimbo::make<Cairn::EntityManager>(kAgent, true);
    auto versions = Asic::TableVersionShard::mountWriter(Asic::mountEntityManager(*em), kGroup);
    auto stats = Nimbo::make<Asic::SwTableStats>();
    auto group = Nimbo::make<Asic::GroupInterface>();
    VeskTapAgg::forEachTableType([&]<class Traits>(size_t) {
      auto log = Nimbo::make<typename VeskTapAgg::NamedEntryLog<Traits>::Type>(Traits::tableId, em,
                                                                               group, "VeskTapAgg");
      for (uint16_t unit = 0; unit < kUnits; ++unit) {
        log->mountShardConfig(Asic::UnitId(unit), {});
        for (uint32_t n = 0; n < entries; ++n) {
          log->entryIs(logEntryOf<Traits>(n), {}, nullptr, Asic::UnitId(unit), stats, false);
        }
      }
      log->cleanupEntryLog(log->tableVersion());
      versions->tableVersionIs(Traits::tableId, log->tableVersion());
    });
    return true;
  });
}

// The restart: a fresh process makes all forty tables; the time it took comes back
// through a pipe. False if a table came back with fewer entries.
bool restoreAll(uint32_t entries, std::chrono::nanoseconds& took) {
  int fds[2];
  if (pipe(fds) != 0) return false;
  const bool ok = inChild([&] {
    const auto start = std::chrono::steady_clock::now();
    auto orderedTableIntf =
        Nimbo::make<Asic::OrderedTableInterface>(Nimbo::make<Cairn::EntityManager>(kAgent, true));
    bool whole = true;
    VeskTapAgg::forEachTableType([&]<class Traits>(size_t) {
      auto intf = VeskTapAgg::TableInterface<Traits>::getIntf(orderedTableIntf);
      for (uint16_t unit = 0; unit < kUnits; ++unit) {
        whole &= intf->makeSwTable(Asic::UnitId(unit), nullptr, false)->entrys() == entries;
      }
    });
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
    return whole && write(fds[1], &ns, sizeof ns) == sizeof ns;
  });
  int64_t ns = 0;
  const bool got = read(fds[0], &ns, sizeof ns) == sizeof ns;
  close(fds[0]);
  close(fds[1]);
  took = std::chrono::nanoseconds(ns);
  return ok && got;
}

// getIntf and makeSwTable of ten table types on four units each, `entries` per unit.
void BM_RestoreAllTables(benchmark::State& state) {
  const auto entries = uint32_t(state.range(0));
  std::filesystem::remove_all(root.path);
  if (!fill(entries)) return state.SkipWithError("filling the units failed");
  for (auto _ : state) {
    std::chrono::nanoseconds took{};
    if (!restoreAll(entries, took)) return state.SkipWithError("a table lost entries");
    state.SetIterationTime(std::chrono::duration<double>(took).count());
  }
  state.counters["tables"] = 10 * kUnits;
}
// Sizes a factor of four apart, so that the time can be drawn against them; filling the
// units is most of the run (about 3.5 million entries in all).
BENCHMARK(BM_RestoreAllTables)
    ->RangeMultiplier(4)
    ->Range(256, 65536)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

}  // namespace

BENCHMARK_MAIN();
