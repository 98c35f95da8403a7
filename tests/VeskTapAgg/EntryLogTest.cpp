// What every table type's entry log must do, run on the behaviour types.

#include <cstdlib>

#include "Cairn/GenId.h"
#include "Kest/Log.h"
#include "Kest/Trace.h"
#include "VeskTapAgg/EntryLogTestSupport.h"

namespace VeskTest {
namespace {

using Asic::LogVersion;
using Asic::UnitId;

template <class Traits>
class EntryLogTest : public ::testing::Test {
 protected:
  using Agent = EntryLogAgent<Traits>;
  TempShmRoot root;
};
TYPED_TEST_SUITE(EntryLogTest, BehaviourTables);

TYPED_TEST(EntryLogTest, EveryLoggedChangeAdvancesTheVersionByOne) {
  typename TestFixture::Agent agent;
  LogEntryRecorder recorder;
  agent.groupInterface->logEntryObserverIs(&recorder);
  auto& log = agent.mounted();
  EXPECT_EQ(log.tableVersion(), LogVersion(0));

  EXPECT_EQ(agent.write(1), LogVersion(1));
  EXPECT_EQ(agent.write(2), LogVersion(2));
  EXPECT_EQ(agent.del(1), LogVersion(3));
  EXPECT_EQ(log.tableDel(nullptr, UnitId(0)), LogVersion(4));
  EXPECT_EQ(agent.del(77), LogVersion(0)) << "a key never written is not deleted";

  EXPECT_EQ(log.tableVersion(), LogVersion(4));
  EXPECT_EQ(log.tableEntryLog()->entryLogConfigColl().control()->scratchpad(), 4u);
  EXPECT_EQ(agent.changeVersions(), (std::vector<uint64_t>{1, 2, 3, 4}));
  const auto changes = agent.changes();
  EXPECT_EQ(changes[0].deleteKind, uint8_t(VeskTapAgg::DeleteKind::write));
  EXPECT_EQ(changes[2].deleteKind, uint8_t(VeskTapAgg::DeleteKind::entryDelete));
  EXPECT_EQ(changes[2].key, agent.key(1));
  EXPECT_EQ(changes[3].deleteKind, uint8_t(VeskTapAgg::DeleteKind::unitDelete));
  EXPECT_EQ(changes[3].key, typename TypeParam::EntryKey{});
  ASSERT_EQ(recorder.seen.size(), 4u);
  EXPECT_EQ(recorder.seen.back(), std::pair(TypeParam::tableId, LogVersion(4)));
  agent.groupInterface->logEntryObserverDel(&recorder);
}

TYPED_TEST(EntryLogTest, IdenticalWritesAreSuppressedOnlyWhenAsked) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted();
  const LogVersion first = agent.write(1, 5, true);
  EXPECT_EQ(agent.write(1, 5, true), first) << "the stored version answers a suppressed write";
  EXPECT_EQ(log.tableVersion(), first);
  EXPECT_EQ(agent.stats->suppressedWriteCnt(), 1u);
  EXPECT_EQ(agent.changeVersions().size(), 1u);

  EXPECT_EQ(agent.write(1, 5, false), LogVersion(2)) << "without suppression every write logs";
  EXPECT_EQ(agent.changeVersions().size(), 2u);

  EXPECT_EQ(agent.del(1), LogVersion(3));
  EXPECT_EQ(agent.write(1, 5, true), LogVersion(4)) << "a tombstone is never equal";
  EXPECT_EQ(agent.stats->suppressedWriteCnt(), 1u);
  EXPECT_EQ(agent.stats->suppressCheckDiffCnt(), 0u);
}

// An entry table's entry is its key: only an action table's entry can change.
template <class Traits>
class ActionEntryLogTest : public EntryLogTest<Traits> {};
TYPED_TEST_SUITE(ActionEntryLogTest, ::testing::Types<VeskTapAgg::DefaultFwdTcamActionTraits>);

TYPED_TEST(ActionEntryLogTest, AChangedEntryIsWrittenAndCounted) {
  typename TestFixture::Agent agent;
  agent.mounted();
  agent.write(1, 5, true);
  EXPECT_EQ(agent.write(1, 6, true), LogVersion(2));
  EXPECT_EQ(agent.stats->suppressCheckDiffCnt(), 1u);
  EXPECT_EQ(agent.stats->suppressedWriteCnt(), 0u);
  EXPECT_EQ(agent.log().entry(agent.key(1), UnitId(0)), agent.entry(1, 6));
}

TYPED_TEST(EntryLogTest, ReadersTellLiveEntriesFromTombstones) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted();
  const UnitId unit(0);
  agent.write(1, 3);
  agent.write(2);
  agent.write(3);
  agent.del(2);
  EXPECT_TRUE(log.entryHas(agent.key(1), unit));
  EXPECT_EQ(log.entry(agent.key(1), unit), agent.entry(1, 3));
  EXPECT_EQ(log.entryLogVersion(agent.key(1), unit), LogVersion(1));
  EXPECT_FALSE(log.entryHas(agent.key(2), unit));
  EXPECT_EQ(log.entry(agent.key(2), unit), typename TypeParam::LogEntry{});
  EXPECT_EQ(log.entryLogVersion(agent.key(2), unit), LogVersion(4))
      << "a tombstone keeps its version";
  EXPECT_EQ(log.entryLogVersion(agent.key(9), unit), LogVersion(0));
  EXPECT_EQ(log.entryRsrcKeys(agent.key(1), unit), typename TypeParam::ResourceKeys{});
  EXPECT_EQ(log.entrysInDeletion(unit), 1u);
  EXPECT_EQ(log.entrys(unit), 2u);

  EXPECT_EQ(agent.del(2), LogVersion(5)) << "deleting a tombstone logs again";
  EXPECT_EQ(log.entryLogVersion(agent.key(2), unit), LogVersion(5));
  EXPECT_EQ(log.entrysInDeletion(unit), 1u);
}

TYPED_TEST(EntryLogTest, UnitsAreKeptApart) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted(UnitId(0));
  log.mountShardConfig(UnitId(3), {});
  agent.write(1, 0, false, UnitId(0));
  agent.write(1, 0, false, UnitId(3));
  agent.write(2, 0, false, UnitId(3));
  log.tableDel(nullptr, UnitId(3));
  EXPECT_EQ(log.entrys(UnitId(0)), 1u);
  EXPECT_EQ(log.entrys(UnitId(3)), 0u);
  EXPECT_EQ(log.entrysInDeletion(UnitId(3)), 2u);
  EXPECT_EQ(agent.changes().back().unitId, UnitId(3));
}

TYPED_TEST(EntryLogTest, UnitDeleteRetiresExactlyItsOwnTombstones) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted();
  const UnitId unit(0);
  agent.write(1);  // 1
  agent.write(2);  // 2
  agent.write(3);  // 3
  agent.del(3);    // 4
  EXPECT_EQ(log.tableDel(nullptr, unit), LogVersion(5));
  EXPECT_EQ(log.entryLogVersion(agent.key(1), unit), LogVersion(5));
  EXPECT_EQ(log.entryLogVersion(agent.key(3), unit), LogVersion(4))
      << "an older tombstone keeps its version";
  agent.write(3, 1);  // 6
  agent.write(4);     // 7
  agent.del(4);       // 8

  log.cleanupEntryLog(LogVersion(5));
  EXPECT_EQ(log.entryLogVersion(agent.key(1), unit), LogVersion(0));
  EXPECT_EQ(log.entryLogVersion(agent.key(2), unit), LogVersion(0));
  EXPECT_TRUE(log.entryHas(agent.key(3), unit)) << "rewritten after the delete";
  EXPECT_EQ(log.entryLogVersion(agent.key(4), unit), LogVersion(8)) << "a newer tombstone stays";
  EXPECT_EQ(log.tableConfigShard(unit)->swTableEntriesSize(), 2u) << "the retired ones are gone";
  EXPECT_EQ(agent.changeVersions(), (std::vector<uint64_t>{6, 7, 8}));
}

TYPED_TEST(EntryLogTest, CleanupWalksFromItsMark) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted();
  for (uint32_t n = 1; n <= 6; ++n) agent.write(n);
  log.cleanupEntryLog(LogVersion(2));
  EXPECT_EQ(log.cleanupMark(), LogVersion(2));
  EXPECT_EQ(agent.changeVersions(), (std::vector<uint64_t>{3, 4, 5, 6}));
  log.cleanupEntryLog(LogVersion(4));
  EXPECT_EQ(agent.changeVersions(), (std::vector<uint64_t>{5, 6}));
  log.cleanupEntryLog(LogVersion(1));
  EXPECT_EQ(agent.changeVersions(), (std::vector<uint64_t>{5, 6})) << "below the mark: nothing";
  EXPECT_EQ(log.cleanupMark(), LogVersion(1)) << "but the mark follows";
  log.cleanupEntryLog(LogVersion(1000));
  EXPECT_TRUE(agent.changeVersions().empty());
  EXPECT_EQ(log.cleanupMark(), LogVersion(1000));
  EXPECT_EQ(log.tableVersion(), LogVersion(6));
}

TYPED_TEST(EntryLogTest, CleanupToleratesAUnitNotMounted) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted(UnitId(0));
  log.mountShardConfig(UnitId(1), {});
  agent.write(1, 0, false, UnitId(1));
  agent.del(1, UnitId(1));
  Kest::traceHandle(log.className()).levelMaskIs(1u << 3);
  Kest::TraceCapture traces;
  log.tableConfigShardDel(UnitId(1));
  log.cleanupEntryLog(LogVersion(2));
  EXPECT_TRUE(traces.hasText(" configShard not found for unitId: 1"));
  EXPECT_TRUE(agent.changeVersions().empty());
}

TYPED_TEST(EntryLogTest, MountPurgesTombstonesUpToTheGivenVersion) {
  const UnitId unit(2);
  {
    typename TestFixture::Agent agent;
    agent.mounted(unit);
    for (uint32_t n = 1; n <= 3; ++n) agent.write(n, 0, false, unit);  // 1..3
    agent.del(1, unit);                                                // 4
    agent.del(2, unit);                                                // 5
  }
  typename TestFixture::Agent keepAll;
  keepAll.mounted(unit, LogVersion(0));
  EXPECT_EQ(keepAll.log().entrysInDeletion(unit), 2u);

  typename TestFixture::Agent agent;
  auto& log = agent.mounted(unit, LogVersion(4));
  EXPECT_EQ(log.entryLogVersion(agent.key(1), unit), LogVersion(0)) << "at the version: dropped";
  EXPECT_EQ(log.entryLogVersion(agent.key(2), unit), LogVersion(5)) << "above it: kept";
  EXPECT_TRUE(log.entryHas(agent.key(3), unit));
  EXPECT_EQ(log.tableConfigShard(unit)->swTableEntriesSize(), 2u);
}

TYPED_TEST(EntryLogTest, ARestartedAgentFindsEverythingAgain) {
  using Agent = typename TestFixture::Agent;
  const int status = inChild([] {
    Agent agent;
    agent.mounted(UnitId(1));
    for (uint32_t n = 1; n <= 40; ++n) agent.write(n, uint16_t(n), false, UnitId(1));
    for (uint32_t n = 1; n <= 10; ++n) agent.del(n, UnitId(1));
    agent.log().cleanupEntryLog(LogVersion(20));
  });
  ASSERT_EQ(status, 0);

  Agent agent;
  auto& log = agent.log();
  EXPECT_EQ(log.tableVersion(), LogVersion(50));
  EXPECT_EQ(agent.changeVersions().front(), 21u);
  EXPECT_EQ(agent.changeVersions().size(), 30u);
  agent.mounted(UnitId(1));
  EXPECT_EQ(log.entrys(UnitId(1)), 30u);
  EXPECT_EQ(log.entrysInDeletion(UnitId(1)), 10u) << "their deletes are not taken yet";
  EXPECT_EQ(log.entry(agent.key(33), UnitId(1)), agent.entry(33, 33));
  EXPECT_EQ(agent.write(41, 0, false, UnitId(1)), LogVersion(51));
}

TYPED_TEST(EntryLogTest, AWipedCollectionIsLoggedAndRelaunchesTheAgent) {
  using Agent = typename TestFixture::Agent;
  ASSERT_EQ(inChild([] { Agent().mounted(UnitId(0)); }), 0);
  Agent agent;
  std::filesystem::remove(
      agent.collectionFile(TypeParam::Constants::tableEntryLogShardPath(), "entryLogConfig"));
  std::filesystem::remove(
      agent.collectionFile(TypeParam::Constants::configShardPath(UnitId(0)), "swTableEntries"));
  auto genId =
      Nimbo::make<Asic::GenId>(Nimbo::String("hardware/quill/agent/relaunch/config/") + kTestAgent);
  agent.em->entityIs(genId);
  Kest::LogCapture messages;

  auto& log = agent.log();
  const std::string item =
      std::string("Hardware abstraction error: unable to load item: entryLog::") +
      TypeParam::tableName;
  EXPECT_EQ(messages.texts(), std::vector<std::string>{item});
  EXPECT_EQ(messages.records().at(0).name, "HW_ABSTRACTION_ERROR");
  EXPECT_EQ(genId->majorId(), 1);
  EXPECT_FALSE(log.tableEntryLog()->entryLogConfigColl().control()->wiped());

  agent.mounted(UnitId(0));
  EXPECT_EQ(messages.texts().size(), 2u);
  EXPECT_EQ(messages.texts().back(),
            std::string("Hardware abstraction error: unable to load item: entryCfg::") +
                TypeParam::tableName);
  EXPECT_EQ(genId->majorId(), 2);

  Agent again;  // a second mount of a collection already recovered says nothing
  ASSERT_EQ(inChild([&] {
              Kest::LogCapture quiet;
              again.mounted(UnitId(0));
              EXPECT_TRUE(quiet.texts().empty());
            }),
            0);
}

TYPED_TEST(EntryLogTest, DamagedRecordsAreReportedAndReadAsAbsent) {
  using Agent = typename TestFixture::Agent;
  ASSERT_EQ(inChild([] {
              Agent agent;
              agent.mounted();
              agent.write(1, 4);
              agent.write(2, 4);
            }),
            0);
  Agent agent;
  const auto damaged = agent.entry(1, 4);
  ASSERT_TRUE(damageRecordHolding(
      agent.collectionFile(TypeParam::Constants::configShardPath(UnitId(0)), "swTableEntries"),
      &damaged, sizeof damaged));
  Kest::LogCapture messages;
  auto& log = agent.mounted();
  const auto& map = log.tableConfigShard(UnitId(0))->swTableEntriesColl().map();
  EXPECT_FALSE(log.entryHas(agent.key(1), UnitId(0)));
  EXPECT_EQ(map.corruptionsDetected(), 1u);
  EXPECT_TRUE(log.entryHas(agent.key(2), UnitId(0)));
  EXPECT_EQ(log.tableDel(nullptr, UnitId(0)), LogVersion(3));
  EXPECT_EQ(map.corruptionsDetected(), 2u) << "the walk reports the damaged record";
  EXPECT_FALSE(log.entryHas(agent.key(2), UnitId(0))) << "and goes past it";

  EXPECT_EQ(agent.del(1), LogVersion(4)) << "a damaged record is still deleted";
  EXPECT_EQ(log.entryLogVersion(agent.key(1), UnitId(0)), LogVersion(4));
  EXPECT_FALSE(messages.texts().empty());
}

TYPED_TEST(EntryLogTest, AFullConfigurationRefusesANewKeyAndKeepsWhatItHas) {
  typename TestFixture::Agent agent;
  auto& log = agent.mounted();
  const uint32_t capacity = 65536;
  for (uint32_t n = 0; n < capacity; ++n) agent.write(n);
  try {
    agent.write(capacity);
    ADD_FAILURE() << "a key past the capacity was taken";
  } catch (const Nimbo::CapacityExceededException& e) {
    EXPECT_NE(std::string(e.what()).find("capacity of 65536 records"), std::string::npos)
        << e.what();
  }
  EXPECT_EQ(log.tableVersion(), LogVersion(capacity)) << "the refused write took no version";
  EXPECT_EQ(agent.write(capacity - 1, 9), LogVersion(capacity + 1)) << "replacing still works";
  EXPECT_EQ(log.entrys(UnitId(0)), capacity);
  EXPECT_TRUE(log.entryHas(agent.key(0), UnitId(0)));
}

TYPED_TEST(EntryLogTest, WritingToAUnitNotMountedStopsTheAgent) {
  typename TestFixture::Agent agent;
  agent.log();
  EXPECT_DEATH(agent.write(1, 0, false, UnitId(4)),
               "tableConfigShardHas\\( unitId \\).*Config shard for unitId:4 is not created yet!");
}

}  // namespace
}  // namespace VeskTest
