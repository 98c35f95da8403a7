// Walking a software table's entries: what a walk visits, in which order, from where,
// across changes of the table and over damaged shared memory; run on the behaviour types,
// with the exact traces on the reference type. (The snapshot is this walk copied; what a
// script may do with it is the Python module's test.)

#include <algorithm>
#include <iterator>
#include <set>
#include <vector>

#include "Kest/Trace.h"
#include "VeskTapAgg/SwTableTestSupport.h"

namespace VeskTest {
namespace {

using Asic::UnitId;
using Flag = Asic::SwTableIteratorStateBase::State::Flag;

// Every table type's names exist as clients use them.
#define VESK_TEST_ITERATION_NAMES(Name, lower, ...)                                        \
  static_assert(std::is_same_v<decltype(VeskTapAgg::lower##SwTableIteratorStateFactory()), \
                               Nimbo::Ptr<VeskTapAgg::Name##SwTableIteratorState>>);       \
  static_assert(std::input_iterator<VeskTapAgg::Name##SwTable::EntryIteratorConst>);       \
  static_assert(                                                                           \
      std::sentinel_for<std::default_sentinel_t, VeskTapAgg::Name##SwTable::EntryIteratorConst>);
VESK_TAPAGG_TABLES(VESK_TEST_ITERATION_NAMES)
#undef VESK_TEST_ITERATION_NAMES

template <class Traits>
class SwTableIterationTest : public ::testing::Test {
 protected:
  using Rig = SwTableRig<Traits>;
  using Key = typename Traits::EntryKey;
  using Entry = typename Traits::Entry;
  using Keys = std::vector<Key>;

  template <class Iterator>
  static std::vector<Entry> entriesOf(const Iterator& walk) {
    std::vector<Entry> entries;
    for (const auto& entry : walk) entries.push_back(entry);
    return entries;
  }
  template <class Iterator>
  static Keys keysOf(const Iterator& walk) {
    Keys keys;
    for (const auto& entry : walk) keys.push_back(entry.key());
    return keys;
  }
  static Keys keys(std::initializer_list<uint32_t> ns) {
    Keys out;
    for (uint32_t n : ns) out.push_back(Rig::key(n));
    return out;
  }
  // The live committed keys of the unit, in the configuration's order.
  static Keys configOrder(Rig& rig) {
    Keys out;
    rig.agent.log().tableConfigShard(UnitId(0))->swTableEntriesColl().forEach([&](const auto& r) {
      if (!r.isDeleted) out.push_back(r.logEntry.key());
    });
    return out;
  }
  static Keys pendingOrder(Rig& rig) {
    Keys out;
    for (const auto& [key, wrapper] : rig.table->transientAddEntrys()) out.push_back(key);
    return out;
  }
  static Keys without(Keys all, const Keys& drop) {
    std::erase_if(
        all, [&](const Key& k) { return std::find(drop.begin(), drop.end(), k) != drop.end(); });
    return all;
  }
  static void commit(Rig& rig, uint32_t from, uint32_t to) {
    for (uint32_t n = from; n <= to; ++n) rig.write(n, 1);
    rig.settle();
  }

  TempShmRoot root;
};
TYPED_TEST_SUITE(SwTableIterationTest, BehaviourTables);

TYPED_TEST(SwTableIterationTest, AnEmptyTableEndsAtOnce) {
  typename TestFixture::Rig rig;
  auto walk = rig.table->entryIteratorConst();
  EXPECT_TRUE(walk.isEnd());
  EXPECT_TRUE(walk.begin() == walk.end());
  EXPECT_EQ(*walk, typename TestFixture::Entry{});
  EXPECT_EQ(walk.iterState()->state().bits(), 0) << "no phase left, nothing valid";
  EXPECT_EQ(rig.table->getTableEntries_py()->tableEntriesSize(), 0u);
}

TYPED_TEST(SwTableIterationTest, WhileARemoveAllIsPendingOnlyLaterWritesAreVisited) {
  using T = TestFixture;
  typename T::Rig rig;
  T::commit(rig, 1, 3);
  rig.write(4);
  rig.table->entryRemoveAll(nullptr);
  rig.write(5);
  rig.write(2, 7);
  EXPECT_EQ(rig.table->initIterState()->state().bits(),
            uint8_t(Flag::inAddColl) | uint8_t(Flag::removeAllPending));
  const auto pending = T::pendingOrder(rig);
  EXPECT_EQ(T::keysOf(rig.table->entryIteratorConst()), pending);
  EXPECT_EQ(pending.size(), 2u);

  rig.run();  // committed, not yet taken by the hardware side: 1, 3 and 4 are tombstones
  EXPECT_EQ(rig.agent.log().entrysInDeletion(UnitId(0)), 3u);
  auto walk = rig.table->entryIteratorConst();
  EXPECT_FALSE(walk.iterState()->state().removeAllPending());
  const auto live = T::configOrder(rig);
  EXPECT_EQ(T::keysOf(walk), live) << "tombstones are passed over";
  EXPECT_EQ(std::set(pending.begin(), pending.end()), std::set(live.begin(), live.end()));
}

TYPED_TEST(SwTableIterationTest, PendingWritesComeFirstThenTheConfigurationInItsOrder) {
  using T = TestFixture;
  typename T::Rig rig;
  T::commit(rig, 1, 8);
  rig.write(20);
  rig.write(21);
  rig.write(22);
  rig.write(3, 5);
  rig.remove(4);
  EXPECT_TRUE(rig.agent.log().entryHas(rig.key(4), UnitId(0))) << "still in the configuration";
  auto expected = T::pendingOrder(rig);
  const auto committed = T::without(T::configOrder(rig), T::keys({3, 4}));
  expected.insert(expected.end(), committed.begin(), committed.end());
  EXPECT_EQ(T::keysOf(rig.table->entryIteratorConst()), expected);
  EXPECT_EQ(expected.size(), 4u + 6u);
  const auto entries = T::entriesOf(rig.table->entryIteratorConst());
  EXPECT_NE(std::find(entries.begin(), entries.end(), rig.entry(3, 5)), entries.end())
      << "a rewritten key shows its pending value";
}

// The snapshot inserts each entry some entries after the walk yields it: every one must
// still arrive, the first and the last included, with its walk-time value.
TYPED_TEST(SwTableIterationTest, TheSnapshotHoldsExactlyWhatTheWalkVisits) {
  using T = TestFixture;
  typename T::Rig rig;
  for (uint32_t pending : {0u, 5u}) {
    T::commit(rig, 1, 40);
    for (uint32_t n = 1; n <= pending; ++n) rig.write(40 + n);
    if (pending) rig.remove(9);
    const auto walked = T::entriesOf(rig.table->entryIteratorConst());
    const auto snapshot = rig.table->getTableEntries_py();
    EXPECT_EQ(snapshot->tableEntriesSize(), walked.size()) << pending << " pending";
    for (const auto& entry : walked) {
      EXPECT_TRUE(snapshot->tableEntriesHas(entry.key()));
      EXPECT_EQ(snapshot->tableEntries(entry.key()), entry);
    }
    rig.settle();
  }
}

TYPED_TEST(SwTableIterationTest, AWalkFromAKeyResumesInTheCollectionThatHoldsIt) {
  using T = TestFixture;
  typename T::Rig rig;
  T::commit(rig, 1, 8);
  rig.write(20);
  rig.write(21);
  rig.write(22);
  rig.remove(7);
  const auto config = T::without(T::configOrder(rig), T::keys({7}));
  const auto pending = T::pendingOrder(rig);

  // Only in the configuration: that key and the records after it; no pending writes.
  const auto from = config[3];
  auto state = rig.table->initIterStateFromKey(from);
  EXPECT_EQ(state->state().bits(), uint8_t(Flag::bookmarkSet) | uint8_t(Flag::inTblCfg));
  EXPECT_EQ(state->bookmarkKey(), from);
  EXPECT_EQ(T::keysOf(rig.table->entryIteratorConst(from)),
            typename T::Keys(config.begin() + 3, config.end()));

  // In the pending writes: those from it on, then the whole configuration.
  auto expected = typename T::Keys(pending.begin() + 1, pending.end());
  expected.insert(expected.end(), config.begin(), config.end());
  EXPECT_EQ(rig.table->initIterStateFromKey(pending[1])->state().bits(),
            uint8_t(Flag::bookmarkSet) | uint8_t(Flag::inAddColl));
  EXPECT_EQ(T::keysOf(rig.table->entryIteratorConst(pending[1])), expected);

  // A key the table does not hold: nothing at all.
  EXPECT_TRUE(rig.table->entryIteratorConst(rig.key(99)).isEnd());
  EXPECT_EQ(rig.table->initIterStateFromKey(rig.key(99))->state().bits(),
            uint8_t(Flag::bookmarkSet));
  // A committed key pending removal is a position in the configuration, not an entry.
  const auto logged = T::configOrder(rig);
  const auto removed = std::find(logged.begin(), logged.end(), rig.key(7));
  EXPECT_EQ(T::keysOf(rig.table->entryIteratorConst(rig.key(7))),
            typename T::Keys(removed + 1, logged.end()));
  rig.table->entryRemoveAll(nullptr);
  EXPECT_TRUE(rig.table->entryIteratorConst(config[0]).isEnd()) << "a remove-all hides it";
}

TYPED_TEST(SwTableIterationTest, AWalkGoesOnAcrossChangesAndCommitsBetweenSteps) {
  using T = TestFixture;
  typename T::Rig rig;
  T::commit(rig, 1, 20);
  const auto config = T::configOrder(rig);
  auto walk = rig.table->entryIteratorConst();
  typename T::Keys seen;
  for (int i = 0; i < 5; ++i, ++walk) seen.push_back(walk.key());
  EXPECT_EQ(seen, typename T::Keys(config.begin(), config.begin() + 5));

  // The entry the walk resumes at goes away for good, a visited one is rewritten and a
  // new one committed: the walk resumes after the place the removed key held.
  EXPECT_EQ(walk.key(), config[5]);
  const auto bookmark = walk.iterState()->bookmarkKey();
  EXPECT_EQ(bookmark, config[6]);
  rig.table->entryRemove(bookmark, nullptr);
  rig.write(30);
  rig.table->entryWrite(config[0], rig.entry(99), nullptr);
  rig.settle();
  EXPECT_FALSE(rig.agent.log().entryHas(bookmark, UnitId(0)));
  for (; !walk.isEnd(); ++walk) seen.push_back(walk.key());

  const std::set<typename T::Key> distinct(seen.begin(), seen.end());
  EXPECT_EQ(distinct.size(), seen.size()) << "no entry twice";
  EXPECT_FALSE(distinct.contains(bookmark));
  for (auto it = config.begin() + 7; it != config.end(); ++it) {
    EXPECT_TRUE(distinct.contains(*it)) << "every entry after the removed one";
  }
}

TYPED_TEST(SwTableIterationTest, WritesCommittedWhileTheWalkIsInThemAreNotLost) {
  using T = TestFixture;
  typename T::Rig rig;
  T::commit(rig, 1, 20);
  for (uint32_t n = 30; n < 36; ++n) rig.write(n);
  const auto pending = T::pendingOrder(rig);
  auto walk = rig.table->entryIteratorConst();
  ++walk;
  EXPECT_EQ(walk.key(), pending[1]);
  rig.settle();  // the rest of the pending writes move to the configuration

  // The configuration has its own order: a key of the pending writes is no place in it,
  // so the walk takes it from its start.
  ++walk;
  EXPECT_EQ(T::keysOf(walk), T::configOrder(rig));
}

TYPED_TEST(SwTableIterationTest, ADamagedRecordEndsTheWalkAndIsReported) {
  using T = TestFixture;
  typename T::Rig rig;
  T::commit(rig, 1, 8);
  const auto config = T::configOrder(rig);
  auto stopped = rig.table->entryIteratorConst();
  ++stopped;
  ASSERT_EQ(stopped.iterState()->bookmarkKey(), config[2]);

  // Damage the third record in the configuration's order.
  uint32_t third = 0;
  for (uint32_t n = 1; n <= 8; ++n) {
    if (rig.key(n) == config[2]) third = n;
  }
  const auto record = rig.agent.entry(third, 1);
  ASSERT_TRUE(damageRecordHolding(
      rig.agent.collectionFile(TypeParam::Constants::configShardPath(UnitId(0)), "swTableEntries"),
      &record, sizeof record));
  const auto& map = rig.agent.log().tableConfigShard(UnitId(0))->swTableEntriesColl().map();

  EXPECT_NO_THROW(++stopped) << "resuming at the damaged record";
  EXPECT_TRUE(stopped.isEnd());
  EXPECT_EQ(map.corruptionsDetected(), 1u);

  typename T::Keys seen;
  EXPECT_NO_THROW(seen = T::keysOf(rig.table->entryIteratorConst()));
  EXPECT_EQ(seen, typename T::Keys(config.begin(), config.begin() + 2))
      << "the entries before the damage, and nothing after it";
  EXPECT_EQ(map.corruptionsDetected(), 2u);
}

// The reference type: exact traces and the phase assertion.
using Reference = VeskTapAgg::DefaultFwdTcamEntryTraits;

class SwTableIterationSpecialsTest : public ::testing::Test {
 protected:
  ~SwTableIterationSpecialsTest() override { Kest::traceConfigDel(); }
  TempShmRoot root;
};

TEST_F(SwTableIterationSpecialsTest, TracesEachStepWordForWord) {
  SwTableRig<Reference> rig;
  rig.write(1);
  rig.settle();
  rig.write(2);
  Kest::traceConfigIs("SwTableIter/8-9,DefaultFwdTcamEntrySwTable/8");
  Kest::TraceCapture traces;
  const auto keys = [&] {
    std::vector<Reference::EntryKey> out;
    for (const auto& entry : rig.table->entryIteratorConst()) out.push_back(entry.key());
    return out;
  }();
  ASSERT_EQ(keys, (std::vector{rig.key(2), rig.key(1)}));
  const std::string pending = fmt::format("{}", rig.entry(2));
  const std::string committed = fmt::format("{}", rig.entry(1));
  EXPECT_EQ(traces.texts("SwTableIter"),
            (std::vector<std::string>{"", "  in transientAdd collection",
                                      "  found entry: " + pending, "  done with transAdd", "",
                                      "  in cfgShard collection", "  found entry: " + committed,
                                      "  done with cfgShard", "", "  no more entries"}));
  EXPECT_EQ(traces.records().front().level, 8u);
  EXPECT_EQ(traces.records()[1].level, 9u);

  traces.clear();
  rig.table->initIterStateFromKey(rig.key(7));
  const auto records = traces.records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front().handle, "DefaultFwdTcamEntrySwTable");
  EXPECT_EQ(records.front().className, "DefaultFwdTcamEntrySwTable");
  EXPECT_EQ(records.front().text, fmt::format(" key: {}", rig.key(7)));
}

TEST_F(SwTableIterationSpecialsTest, BothPhasesAtOnceStopTheAgent) {
  SwTableRig<Reference> rig;
  auto state = rig.table->initIterState();
  state->state().inTblCfgIs(true);
  EXPECT_DEATH(state->maybeUpdateCurrentEntry(), "!iterState_->state\\(\\)\\.inTblCfg\\(\\)");
}

}  // namespace
}  // namespace VeskTest
