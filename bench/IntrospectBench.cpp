// What the framework pays to inspect a table: the type record of an object, a read by
// attribute name, and a walk over pending writes through the generic iterator beside the
// same walk in C++. None of it is on a table's own paths, which never touch the records.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"
#include "Kest/TypeData.h"
#include "VeskTapAgg/SwTable.h"

namespace {

using VeskBench::keyOf;
using VeskBench::Traits;

VeskBench::Root root;

// One unit's table with `pending` writes waiting in the resolver.
struct Rig {
  explicit Rig(uint32_t pending)
      : em(Nimbo::make<Cairn::EntityManager>("introspect", true)),
        log(VeskTapAgg::defaultFwdTcamEntryEntryLogFactory(
            Traits::tableId, em, Nimbo::make<Asic::GroupInterface>(), "introspect")),
        set(Nimbo::make<Asic::OrderedSwTableSet>(Traits::tableId,
                                                 Nimbo::make<Asic::OrderedSwTableStatus>())) {
    log->mountShardConfig(Asic::UnitId(0), {});
    table = VeskTapAgg::defaultFwdTcamEntrySwTableFactory(
        Nimbo::make<Asic::CanonicalTableName>(Asic::CanonicalTableName::orderedTable, "introspect",
                                              "VeskTapAgg", Traits::tableName),
        Traits::tableId, Asic::UnitId(0), set.ptr(), log, resolver);
    for (uint32_t i = 0; i < pending; ++i) {
      table->entryWrite(keyOf(i), Traits::Entry{keyOf(i)}, nullptr);
    }
  }

  Nimbo::Ptr<Cairn::EntityManager> em;
  Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntryEntryLog> log;
  Nimbo::Ptr<Asic::GroupResolver> resolver = Nimbo::make<Asic::GroupResolver>();
  Nimbo::Ptr<Asic::OrderedSwTableSet> set;
  Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntrySwTable> table;
};

void BM_TypeDataOfAnObject(benchmark::State& state) {
  Rig rig(0);
  const Nimbo::Node& node = *rig.table;
  for (auto _ : state) benchmark::DoNotOptimize(node.typeData());
}
BENCHMARK(BM_TypeDataOfAnObject);

// Name lookup (binary search over 20 attributes) and the read hook.
void BM_ReadByName(benchmark::State& state) {
  Rig rig(0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(Kest::inspectOperation(*rig.table, "unitId", Kest::InspectOp::read));
  }
}
BENCHMARK(BM_ReadByName);

// Every pending write's key printed and its wrapper taken, per element.
void BM_WalkPendingWritesGeneric(benchmark::State& state) {
  Rig rig(uint32_t(state.range(0)));
  const Nimbo::Ptr<Nimbo::Node> table = rig.table;
  for (auto _ : state) {
    for (auto it = Kest::genericIfIterator(table, "transientAddEntry"); it.iterNonnull();
         it.iterInc()) {
      benchmark::DoNotOptimize(it.iterKey());
      benchmark::DoNotOptimize(it.iterObj());
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_WalkPendingWritesGeneric)->Arg(1000);

void BM_WalkPendingWritesDirect(benchmark::State& state) {
  Rig rig(uint32_t(state.range(0)));
  for (auto _ : state) {
    for (const auto& [key, wrapper] : rig.table->transientAddEntrys()) {
      benchmark::DoNotOptimize(fmt::format("{}", key));
      benchmark::DoNotOptimize(Nimbo::Ptr<Nimbo::Node>(wrapper));
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_WalkPendingWritesDirect)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
