// What every table type's interface must do: register the type once, make each unit's
// table restored or cleared at what the hardware side has taken, and reconcile units left
// in shared memory. Run on the behaviour types; restarts are real processes.

#include <sys/wait.h>

#include "Kest/Trace.h"
#include "KestShard/Atomics.h"
#include "VeskTapAgg/InterfaceTestSupport.h"

namespace VeskTest {
namespace {

using Asic::LogVersion;
using Asic::UnitId;

template <class Traits>
class InterfaceTest : public ::testing::Test {
 protected:
  using Agent = InterfaceAgent<Traits>;
  using Rig = SwTableRig<Traits>;
  // An agent's interfaces live as long as its process; each test is an agent of its own.
  void TearDown() override {
    Kest::Entity::singletonDel(Asic::SwTableInterfacesSingleton::typeName);
  }
  TempShmRoot root;
};
TYPED_TEST_SUITE(InterfaceTest, BehaviourTables);

TYPED_TEST(InterfaceTest, GetIntfRegistersTheTypeOnceInBothRegistries) {
  typename TestFixture::Agent agent;
  auto intf = agent.intf();
  const Nimbo::String name = "VeskTapAgg::" + Nimbo::String(TypeParam::tableName) + "Interface";
  EXPECT_EQ(agent.intf().ptr(), intf.ptr()) << "a second call finds the first";
  EXPECT_EQ(agent.orderedTableIntf->swTableIntf(name), intf.ptr());
  EXPECT_EQ(Asic::SwTableInterfacesSingleton::singleton()->swTableIntf(name).ptr(), intf.ptr());
  ASSERT_TRUE(intf->entryLog());
  EXPECT_EQ(intf->entryLog()->agentName(), "VeskTapAgg");
  EXPECT_EQ(agent.group()->swTableSet(TypeParam::tableId).ptr(), intf->swTableSet().ptr());
  EXPECT_EQ(intf->swTableSet()->status().ptr(), intf->swTableStatus().ptr());
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites());
}

TYPED_TEST(InterfaceTest, AUnitsTableIsMadeOnceAndLaterCallsOnlyUpdateIt) {
  typename TestFixture::Agent agent;
  auto intf = agent.intf();
  auto table = intf->makeSwTable(UnitId(2), nullptr, false);
  EXPECT_EQ(intf->swTableSet()->swTable(UnitId(2)).ptr(), table.ptr());
  EXPECT_EQ(table->status().ptr(), intf->swTableStatus().ptr());
  EXPECT_EQ(table->groupResolver().ptr(), agent.group()->groupResolver().ptr());
  agent.writeAndCommit(2, 0, 5);

  auto helper = Nimbo::make<typename TestFixture::Agent::SwTable::SwTableHelperBase>();
  EXPECT_EQ(intf->makeSwTable(UnitId(2), nullptr, false).ptr(), table.ptr());
  EXPECT_EQ(table->entrys(), 5u) << "nothing changes";
  EXPECT_EQ(intf->makeSwTable(UnitId(2), helper, false).ptr(), table.ptr());
  EXPECT_EQ(table->swTableHelper().ptr(), helper.ptr());
  EXPECT_EQ(intf->makeSwTable(UnitId(2), nullptr, true).ptr(), table.ptr());
  EXPECT_EQ(table->entrys(), 0u) << "clear wipes the unit's entries";
}

TYPED_TEST(InterfaceTest, ARestartServesEveryCommittedEntryOfEveryUnit) {
  agentWritesAndIsKilled<TypeParam>({0, 1}, 40);
  hardwareTakes<TypeParam>(60);

  typename TestFixture::Agent agent;
  auto intf = agent.intf();
  EXPECT_EQ(intf->entryLog()->tableVersion(), LogVersion(80));
  EXPECT_EQ(intf->entryLog()->cleanupMark(), LogVersion(60)) << "cleaned up to what was taken";
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites()) << "versions 61 to 80 are not taken";
  for (uint16_t unit : {0, 1}) {
    auto table = agent.table(unit);
    ASSERT_EQ(table->entrys(), 40u);
    for (uint32_t n = 0; n < 40; ++n) {
      EXPECT_EQ(table->entryRead(TestFixture::Rig::key(n)), TestFixture::Rig::entry(n));
    }
    EXPECT_TRUE(table->hasPendingHwWrites());
  }
  agent.table(0)->tableStatusVersion(LogVersion(80));
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites()) << "the hardware side caught up";
}

TYPED_TEST(InterfaceTest, ARestartWithClearEmptiesTheUnit) {
  agentWritesAndIsKilled<TypeParam>({0}, 10);
  typename TestFixture::Agent agent;
  auto table = agent.table(0, true);
  EXPECT_EQ(table->entrys(), 0u);
  EXPECT_EQ(agent.intf()->entryLog()->tableVersion(), LogVersion(11)) << "one logged unit delete";
  EXPECT_FALSE(table->entryHas(TestFixture::Rig::key(3)));
}

TYPED_TEST(InterfaceTest, PendingHardwareWritesOnlyWhenTheRecordedVersionIsBehind) {
  agentWritesAndIsKilled<TypeParam>({0}, 7);
  hardwareTakes<TypeParam>(7);
  typename TestFixture::Agent agent;
  EXPECT_FALSE(agent.intf()->swTableStatus()->pendingHwWrites());
  EXPECT_FALSE(agent.table(0)->hasPendingHwWrites());
}

TYPED_TEST(InterfaceTest, WithNoRecordedVersionTheLogIsKeptWhole) {
  agentWritesAndIsKilled<TypeParam>({0}, 3);
  typename TestFixture::Agent agent;
  auto intf = agent.intf();
  EXPECT_FALSE(intf->swTableStatus()->pendingHwWrites()) << "nothing recorded, nothing known";
  EXPECT_EQ(intf->entryLog()->cleanupMark(), LogVersion(0));
  auto table = agent.table(0);
  EXPECT_EQ(table->entrys(), 3u);
  EXPECT_TRUE(intf->swTableStatus()->pendingHwWrites()) << "the unit's table reports the log";
}

TYPED_TEST(InterfaceTest, ReconcileClearsUnitsThatHaveConfigurationButNoTable) {
  agentWritesAndIsKilled<TypeParam>({0, 1}, 4);
  typename TestFixture::Agent agent;
  auto intf = agent.intf();
  auto kept = agent.table(0);
  intf->reconcile();
  ASSERT_TRUE(intf->swTableSet()->swTableHas(UnitId(1)));
  EXPECT_EQ(intf->swTableSet()->swTable(UnitId(0)).ptr(), kept.ptr()) << "left alone";
  EXPECT_EQ(kept->entrys(), 4u);
  auto cleared = intf->makeSwTable(UnitId(1), nullptr, false);
  EXPECT_EQ(cleared->entrys(), 0u);
  EXPECT_EQ(intf->swTableSet()->swTables().size(), 2u);
}

TYPED_TEST(InterfaceTest, SettersKeepWhatEqualArgumentsWouldBuildAndDelHandsItBack) {
  typename TestFixture::Agent agent;
  auto intf = agent.intf();
  auto log = intf->entryLog();
  EXPECT_EQ(intf->entryLogIs(TypeParam::tableId, agent.em, agent.group(), "VeskTapAgg").ptr(),
            log.ptr());
  auto status = intf->swTableStatus();
  EXPECT_EQ(intf->swTableStatusIs(TypeParam::tableId).ptr(), status.ptr());
  auto set = intf->swTableSet();
  EXPECT_EQ(intf->swTableSetIs(TypeParam::tableId, status).ptr(), set.ptr());
  auto otherStatus = intf->swTableStatusIs(Asic::SwTableId(3));
  EXPECT_NE(otherStatus.ptr(), status.ptr()) << "another table id builds another status";
  EXPECT_NE(intf->swTableSetIs(TypeParam::tableId, otherStatus).ptr(), set.ptr());

  auto newSet = intf->swTableSet();
  EXPECT_EQ(intf->swTableSetDel().ptr(), newSet.ptr());
  EXPECT_FALSE(intf->swTableSet());
  EXPECT_EQ(intf->entryLogDel().ptr(), log.ptr());
  EXPECT_EQ(intf->entryLogDel().ptr(), nullptr) << "the second Del finds nothing";
  EXPECT_EQ(intf->swTableStatusDel().ptr(), otherStatus.ptr());
  EXPECT_FALSE(intf->swTableStatus());
}

// The hardware side stopped (not dead) in the middle of recording a version: the agent's
// read of the map finds no stable answer, reports it to the map and starts as if nothing
// had been recorded, rather than failing to start.
TEST(InterfaceStart, AHardwareSideStoppedInsideItsWriteReadsAsNoVersion) {
  using Traits = VeskTapAgg::DefaultFwdTcamEntryTraits;
  TempShmRoot root;
  agentWritesAndIsKilled<Traits>({0}, 6);
  const pid_t hardware = fork();
  if (hardware == 0) {
    auto em = Nimbo::make<Cairn::EntityManager>(kTestAgent, true);
    auto map = Asic::TableVersionShard::mountWriter(Asic::mountEntityManager(*em), kGroup);
    KestShard::publishHook = []() noexcept {
      static int stores = 0;
      if (++stores == 2) raise(SIGSTOP);  // inside the change that records the first version
    };
    map->tableVersionIs(Traits::tableId, Asic::LogVersion(6));
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(hardware, &status, WUNTRACED), hardware);
  ASSERT_TRUE(WIFSTOPPED(status));

  InterfaceAgent<Traits> agent;
  auto intf = agent.intf();
  auto table = intf->makeSwTable(UnitId(0), nullptr, false);
  EXPECT_EQ(table->entrys(), 6u);
  EXPECT_EQ(intf->entryLog()->cleanupMark(), LogVersion(0)) << "no version was read";
  ASSERT_TRUE(agent.group()->tableVersionMap());
  EXPECT_GE(agent.group()->tableVersionMap()->tableVersions().map().corruptionsDetected(), 1u);
  kill(hardware, SIGKILL);
  waitpid(hardware, &status, 0);
  Kest::Entity::singletonDel(Asic::SwTableInterfacesSingleton::typeName);
}

}  // namespace
}  // namespace VeskTest
