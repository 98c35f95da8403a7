#pragma once

#include "Asic/SwTableIteratorStateBase.h"
#include "Kest/Trace.h"
#include "Nimbo/Assert.h"
#include "Nimbo/Exception.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// Walks trace under "SwTableIter", a handle made when the library loads, so that
// VESK_TRACE naming it is known before any walk.
inline Kest::TraceHandle& swTableIterTrace = Kest::traceHandle("SwTableIter");

// The walk over one software table's entries, written once for every table type: where a
// walk starts, and each of its steps. A step re-finds its place from the state's resume
// key (the bookmark) in the collection of its phase:
//
//   1. the pending writes (transientAddEntry), in that map's order; then, unless a
//      remove-all was pending when the walk began,
//   2. the unit's committed configuration (swTableEntries), in its order, passing over
//      records that are pending removal, already visited as pending writes, or tombstones.
//
// Holding keys, never positions, is what lets a walk go on after the table changed: both
// collections order their elements by (hash, key), so "at or after this key" is always
// meaningful. IterState is <T>SwTableIteratorState (swTable(), bookmarkKey(),
// bookmarkKeyIs(), and the flags of SwTableIteratorStateBase); SwTable is <T>SwTable.
// Traces go to the handle "SwTableIter". Holds a plain pointer to the state it steps;
// made for one step on the agent's event thread.
template <class IterState, class SwTable>
class IterStateAccessor {
 public:
  using EntryKey = typename SwTable::EntryKey;
  using Entry = typename SwTable::Entry;

  explicit IterStateAccessor(IterState* iterState) noexcept : iterState_(iterState) {}

  // A state at the start of the walk.
  static Nimbo::Ptr<IterState> initIterState(const SwTable& swTable);
  // A state whose first step visits `key`, and goes on from there in the collection that
  // holds it. A key the table does not hold gives an empty walk, not the entries after
  // it: the caller asked for that entry. Null for a null table.
  static Nimbo::Ptr<IterState> initIterStateFromKey(const SwTable* swTable, const EntryKey& key);

  // One step: the next entry, with the valid flag set; or, at the end, a default entry
  // with the valid flag clear.
  Entry maybeUpdateCurrentEntry();

 private:
  static Kest::TraceHandle& traceHandle() { return swTableIterTrace; }
  static Nimbo::Ptr<IterState> newState(const SwTable& swTable);

  const SwTable& swTable() const;
  SwTableIteratorStateBase::State& state() const noexcept { return iterState_->state(); }
  // Each returns whether it took an entry into `result`; false moves the walk on.
  bool stepInAddColl(Entry& result) const;
  bool stepInTblCfg(Entry& result) const;
  bool hiddenInConfig(const EntryKey& key) const;
  void doneWithAddColl() const;
  void doneWithTblCfg() const;
  void noMoreEntries() const;

  IterState* iterState_;
};

}  // namespace Asic

#define VESK_ITER_TRACE(level, ...) \
  VESK_TRACE_FROM(traceHandle(), level, "OrderedTable/IterStateAccessor", "", __VA_ARGS__)

namespace Asic {

template <class IterState, class SwTable>
Nimbo::Ptr<IterState> IterStateAccessor<IterState, SwTable>::newState(const SwTable& swTable) {
  auto iterState = Nimbo::make<IterState>(&swTable);
  iterState->state().removeAllPendingIs(swTable.transientRemoveAllVersion().valid());
  return iterState;
}

template <class IterState, class SwTable>
Nimbo::Ptr<IterState> IterStateAccessor<IterState, SwTable>::initIterState(const SwTable& swTable) {
  Nimbo::Ptr<IterState> iterState = newState(swTable);
  iterState->state().inAddCollIs(true);
  return iterState;
}

template <class IterState, class SwTable>
Nimbo::Ptr<IterState> IterStateAccessor<IterState, SwTable>::initIterStateFromKey(
    const SwTable* swTable, const EntryKey& key) {
  if (!swTable) return nullptr;
  Nimbo::Ptr<IterState> iterState = newState(*swTable);
  auto& flags = iterState->state();
  iterState->bookmarkKeyIs(key);
  flags.bookmarkSetIs(true);
  const auto& entryLog = swTable->entryLog();
  const Asic::UnitId unitId = swTable->unitId();
  if (swTable->transientAddEntrys().contains(key)) {
    flags.inAddCollIs(true);
  } else if (!flags.removeAllPending() && entryLog->tableConfigShardHas(unitId) &&
             entryLog->entryHas(key, unitId)) {
    flags.inTblCfgIs(true);
  }
  return iterState;
}

template <class IterState, class SwTable>
const SwTable& IterStateAccessor<IterState, SwTable>::swTable() const {
  VESK_ASSERT(iterState_->swTable() != nullptr);
  return *iterState_->swTable();
}

template <class IterState, class SwTable>
typename SwTable::Entry IterStateAccessor<IterState, SwTable>::maybeUpdateCurrentEntry() {
  VESK_ITER_TRACE(8, "");
  Entry result{};
  if (state().inAddColl()) {
    VESK_ASSERT(!iterState_->state().inTblCfg());
    if (stepInAddColl(result)) return result;
  }
  if (state().inTblCfg()) {
    VESK_ASSERT(!iterState_->state().inAddColl());
    if (stepInTblCfg(result)) return result;
  }
  noMoreEntries();
  return result;
}

template <class IterState, class SwTable>
bool IterStateAccessor<IterState, SwTable>::stepInAddColl(Entry& result) const {
  VESK_ITER_TRACE(9, "  in transientAdd collection");
  const auto& pending = swTable().transientAddEntrys();
  auto it = state().bookmarkSet() ? pending.findOrNext(iterState_->bookmarkKey()) : pending.begin();
  if (it == pending.end()) {
    doneWithAddColl();
    return false;
  }
  state().validIs(true);
  result = it->second->entry();
  VESK_ITER_TRACE(9, "  found entry: {}", result);
  if (++it != pending.end()) {
    iterState_->bookmarkKeyIs(it->first);
    state().bookmarkSetIs(true);
  } else {
    doneWithAddColl();
  }
  return true;
}

// The bookmark is dropped with the phase: the configuration is walked from its start,
// whatever key the pending writes were resumed at.
template <class IterState, class SwTable>
void IterStateAccessor<IterState, SwTable>::doneWithAddColl() const {
  VESK_ITER_TRACE(9, "  done with transAdd");
  state().bookmarkSetIs(false);
  state().inAddCollIs(false);
  if (!state().removeAllPending()) state().inTblCfgIs(true);
}

// Pending removes hide their records; pending writes were visited in phase 1. The maps
// are usually empty, and an empty map answers without hashing the key.
template <class IterState, class SwTable>
bool IterStateAccessor<IterState, SwTable>::hiddenInConfig(const EntryKey& key) const {
  const auto& removes = swTable().transientRemoveEntrys();
  const auto& adds = swTable().transientAddEntrys();
  return (!removes.empty() && removes.contains(key)) || (!adds.empty() && adds.contains(key));
}

template <class IterState, class SwTable>
bool IterStateAccessor<IterState, SwTable>::stepInTblCfg(Entry& result) const {
  VESK_ITER_TRACE(9, "  in cfgShard collection");
  const auto& shards = swTable().entryLog()->tableConfigShards();
  const auto shard = shards.find(swTable().unitId());
  if (shard == shards.end()) return false;
  const auto& records = shard->second->swTableEntriesColl();
  bool taken = false;
  try {
    auto it = state().bookmarkSet() ? records.at(iterState_->bookmarkKey()) : records.begin();
    while (it.valid() && (it->isDeleted || hiddenInConfig(it->logEntry.key()))) ++it;
    if (!it.valid()) return false;
    state().validIs(true);
    result = entryOf(it->logEntry);
    taken = true;
    VESK_ITER_TRACE(9, "  found entry: {}", result);
    if ((++it).valid()) {
      iterState_->bookmarkKeyIs(it->logEntry.key());
      state().bookmarkSetIs(true);
      return true;
    }
  } catch (const Nimbo::CorruptionDetectedException& e) {
    records.map().doCorruptionDetected(e.what());
    // Damage ends the walk; an entry read whole before it is still the step's result.
    if (!taken) return false;
  }
  doneWithTblCfg();
  return true;
}

template <class IterState, class SwTable>
void IterStateAccessor<IterState, SwTable>::doneWithTblCfg() const {
  VESK_ITER_TRACE(9, "  done with cfgShard");
  state().bookmarkSetIs(false);
  state().inTblCfgIs(false);
}

template <class IterState, class SwTable>
void IterStateAccessor<IterState, SwTable>::noMoreEntries() const {
  VESK_ITER_TRACE(9, "  no more entries");
  state().validIs(false);
  state().inAddCollIs(false);
  state().inTblCfgIs(false);
}

}  // namespace Asic

#undef VESK_ITER_TRACE
