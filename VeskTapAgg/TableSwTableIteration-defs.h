#pragma once

#include <vector>

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
  // The walk first, into a list, then the map: each entry lands at a random place of a map
  // larger than the caches, and interleaved with the walk's own misses into the shared
  // records the two evict each other. Filling the map from the list asks for each place
  // kAhead entries before the insert, so that the misses overlap. The same entries go in,
  // in the walk's order.
  std::vector<Entry> walked;
  walked.reserve(most);
  for (const Entry& entry : entryIteratorConst()) walked.push_back(entry);
  constexpr size_t kAhead = 16;
  for (size_t i = 0; i < walked.size(); ++i) {
    if (i + kAhead < walked.size()) snapshot->tableEntriesPrefetch(walked[i + kAhead].key());
    snapshot->tableEntriesIs(walked[i]);
  }
  return snapshot;
}

}  // namespace VeskTapAgg
