// A software table end to end: clients' changes written, resolved, committed to the entry
// log, confirmed by the hardware side and answered; the heap a pending change holds; reads
// of committed and pending keys; and walks and snapshots of a full unit.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include "BenchSupport.h"
#include "VeskTapAgg/SwTable.h"

namespace {

using Asic::LogVersion;
using VeskBench::keyOf;
using VeskBench::Traits;

VeskBench::Root root;

// One unit's table with its entry log, resolver and table set, in a namespace of its own.
struct Rig {
  explicit Rig(const std::string& name)
      : em(Nimbo::make<Cairn::EntityManager>(name, true)),
        log(VeskTapAgg::defaultFwdTcamEntryEntryLogFactory(
            Traits::tableId, em, Nimbo::make<Asic::GroupInterface>(), name)),
        set(Nimbo::make<Asic::OrderedSwTableSet>(Traits::tableId,
                                                 Nimbo::make<Asic::OrderedSwTableStatus>())) {
    log->mountShardConfig(Asic::UnitId(0), {});
    table = VeskTapAgg::defaultFwdTcamEntrySwTableFactory(
        Nimbo::make<Asic::CanonicalTableName>(Asic::CanonicalTableName::orderedTable, name,
                                              "VeskTapAgg", Traits::tableName),
        Traits::tableId, Asic::UnitId(0), set.ptr(), log, resolver);
    set->swTableIs(table);
  }
  static Traits::Entry entry(uint32_t i) { return Traits::Entry{keyOf(i)}; }
  // Confirms everything logged: the hardware side has taken the table version.
  void confirm() { table->tableStatusVersion(log->tableVersion()); }
  // Commits and confirms entries 0 to count - 1.
  void fill(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) table->entryWrite(keyOf(i), entry(i), nullptr);
    resolver->runUntilIdle();
    confirm();
  }

  Nimbo::Ptr<Cairn::EntityManager> em;
  Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntryEntryLog> log;
  Nimbo::Ptr<Asic::GroupResolver> resolver = Nimbo::make<Asic::GroupResolver>();
  Nimbo::Ptr<Asic::OrderedSwTableSet> set;
  Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntrySwTable> table;
};

// Writes `batch` keys, commits them all, confirms them all; every handler is called.
void BM_EndToEnd(benchmark::State& state) {
  Rig rig("e2e" + std::to_string(state.range(0)));
  const uint32_t batch = uint32_t(state.range(0));
  uint64_t answered = 0;
  const auto handler = [&](const auto&) { ++answered; };
  uint32_t next = 0;
  for (auto _ : state) {
    for (uint32_t i = 0; i < batch; ++i) {
      const uint32_t k = next++ % 65536;
      rig.table->entryWriteWithResponseHandler(keyOf(k), Rig::entry(k), nullptr, handler);
    }
    rig.resolver->runUntilIdle();
    rig.confirm();
  }
  if (answered != uint64_t(state.iterations()) * batch)
    state.SkipWithError("a change went unanswered");
  state.SetItemsProcessed(int64_t(answered));
}
BENCHMARK(BM_EndToEnd)->Arg(1)->Arg(10000);

// Heap held per pending change: handle, wrapper, resolver entry and map slots.
void BM_PendingChangeHeap(benchmark::State& state) {
  constexpr uint32_t kPending = 10000;
  Rig rig("heap");
  for (auto _ : state) {
    const size_t before = mallinfo2().uordblks;
    for (uint32_t i = 0; i < kPending; ++i) rig.table->entryWrite(keyOf(i), Rig::entry(i), nullptr);
    state.counters["bytesPerPendingChange"] = double(mallinfo2().uordblks - before) / kPending;
    state.PauseTiming();
    rig.resolver->runUntilIdle();
    rig.confirm();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_PendingChangeHeap)->Iterations(3);

void BM_EntryReadCommitted(benchmark::State& state) {
  Rig rig("readCommitted");
  for (uint32_t i = 0; i < 65536; ++i) rig.table->entryWrite(keyOf(i), Rig::entry(i), nullptr);
  rig.resolver->runUntilIdle();
  rig.confirm();
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(rig.table->entryRead(keyOf(i++ % 65536)));
}
BENCHMARK(BM_EntryReadCommitted);

void BM_EntryReadPending(benchmark::State& state) {
  Rig rig("readPending");
  for (uint32_t i = 0; i < 10000; ++i) rig.table->entryWrite(keyOf(i), Rig::entry(i), nullptr);
  uint32_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(rig.table->entryRead(keyOf(i++ % 10000)));
}
BENCHMARK(BM_EntryReadPending);

constexpr uint32_t kFullUnit = 65536;

// A client's walk over a unit of committed entries, nothing pending: a full unit, and one
// whose records fit in the caches.
void BM_IterateCommitted(benchmark::State& state) {
  const uint32_t entries = uint32_t(state.range(0));
  Rig rig("iterate" + std::to_string(entries));
  rig.fill(entries);
  for (auto _ : state) {
    uint32_t visited = 0;
    for (const auto& entry : rig.table->entryIteratorConst()) {
      benchmark::DoNotOptimize(&entry);
      ++visited;
    }
    if (visited != entries) state.SkipWithError("the walk missed entries");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * entries);
}
BENCHMARK(BM_IterateCommitted)->Arg(4096)->Arg(kFullUnit)->Unit(benchmark::kMillisecond);

// The scripting layer's snapshot of a full unit.
void BM_TableEntriesSnapshot(benchmark::State& state) {
  Rig rig("snapshot");
  rig.fill(kFullUnit);
  for (auto _ : state) {
    const auto snapshot = rig.table->getTableEntries_py();
    if (snapshot->tableEntriesSize() != kFullUnit)
      state.SkipWithError("the snapshot missed entries");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kFullUnit);
}
BENCHMARK(BM_TableEntriesSnapshot)->Unit(benchmark::kMillisecond);

// The snapshot's other half alone: the same entries, in the walk's order, put into the
// snapshot's map the way getTableEntries_py does (sized once, each place asked for 16
// entries ahead). The snapshot's floor is this plus the walk.
void BM_SnapshotMapFill(benchmark::State& state) {
  using Snapshot = VeskTapAgg::DefaultFwdTcamEntrySwTable::SwTableEntries_py;
  Rig rig("mapFill");
  rig.fill(kFullUnit);
  std::vector<Traits::Entry> walked;
  for (const auto& entry : rig.table->entryIteratorConst()) walked.push_back(entry);
  constexpr size_t kAhead = 16;
  for (auto _ : state) {
    auto snapshot = Nimbo::make<Snapshot>();
    snapshot->tableEntriesReserve(walked.size());
    for (size_t i = 0; i < walked.size(); ++i) {
      if (i + kAhead < walked.size()) snapshot->tableEntriesPrefetch(walked[i + kAhead].key());
      snapshot->tableEntriesIs(walked[i]);
    }
    if (snapshot->tableEntriesSize() != kFullUnit) state.SkipWithError("the map missed entries");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kFullUnit);
}
BENCHMARK(BM_SnapshotMapFill)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
