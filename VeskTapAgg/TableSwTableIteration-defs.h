#pragma once

#include <array>

// The bodies of a table's iteration operations and of its iterator state, included by the
// one file that instantiates them for every table type (SwTable.cpp).

#include "OrderedTable/IterStateAccessor.h"
#include "VeskTapAgg/TableSwTable.h"
#include "VeskTapAgg/TableSwTableEntries.h"
#include "VeskTapAgg/TableSwTableIteratorState.h"

namespace VeskTapAgg {

template <TableTraits Traits>
typename Traits::Entry TableSwTableIteratorState<Traits>::maybeUpdateCurrentEntry() {
  return Asic::IterStateAccessor<TableSwTableIteratorState, SwTable>(this)
      .maybeUpdateCurrentEntry();
}

template <TableTraits Traits>
Nimbo::Ptr<TableSwTableIteratorState<Traits>> TableSwTable<Traits>::initIterState() const {
  return Asic::IterStateAccessor<IteratorState, TableSwTable>::initIterState(*this);
}

template <TableTraits Traits>
Nimbo::Ptr<TableSwTableIteratorState<Traits>> TableSwTable<Traits>::initIterStateFromKey(
    const EntryKey& key) const {
  VESK_TRACE_FROM(traceHandle(), 8, sourceName().c_str(), className().c_str(), " key: {}", key);
  return Asic::IterStateAccessor<IteratorState, TableSwTable>::initIterStateFromKey(this, key);
}

template <TableTraits Traits>
typename TableSwTable<Traits>::EntryIteratorConst TableSwTable<Traits>::entryIteratorConst() const {
  return EntryIteratorConst(this, initIterState());
}

template <TableTraits Traits>
typename TableSwTable<Traits>::EntryIteratorConst TableSwTable<Traits>::entryIteratorConst(
    const EntryKey& key) const {
  return EntryIteratorConst(this, initIterStateFromKey(key));
}

template <TableTraits Traits>
Nimbo::Ptr<typename TableSwTable<Traits>::SwTableEntries_py>
TableSwTable<Traits>::getTableEntries_py() const {
  auto snapshot = Nimbo::make<SwTableEntries_py>();
  // Grown once, to at most what the walk can visit, instead of doubling along the way.
  size_t most = transientAddEntry_.size();
  if (!transientRemoveAllVersion_.valid() && entryLog_->tableConfigShardHas(unitId())) {
    most += entryLog_->entrys(unitId());
  }
  snapshot->tableEntriesReserve(most);
  // Each entry lands at a random place of a map larger than the caches: its place is asked
  // for as the walk yields it, and the entry inserted kAhead entries later, so that the
  // misses overlap. The same entries go in, in the walk's order.
  constexpr size_t kAhead = 16;
  std::array<Entry, kAhead> inFlight;
  size_t walked = 0;
  for (const Entry& entry : entryIteratorConst()) {
    snapshot->tableEntriesPrefetch(entry.key());
    Entry& slot = inFlight[walked++ % kAhead];
    if (walked > kAhead) snapshot->tableEntriesIs(slot);
    slot = entry;
  }
  for (size_t n = walked > kAhead ? walked - kAhead : 0; n < walked; ++n)
    snapshot->tableEntriesIs(inFlight[n % kAhead]);
  return snapshot;
}

}  // namespace VeskTapAgg
