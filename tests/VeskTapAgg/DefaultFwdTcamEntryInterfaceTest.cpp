// What is special to one table type's interface: its traces word for word, its assertions
// and a damaged table-version map. The reference table type stands for all ten.

#include "Kest/RingLog.h"
#include "Kest/Trace.h"
#include "VeskTapAgg/InterfaceTestSupport.h"

namespace VeskTest {
namespace {

using Reference = VeskTapAgg::DefaultFwdTcamEntryTraits;
using Asic::LogVersion;
using Asic::UnitId;

class DefaultFwdTcamEntryInterfaceTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Kest::traceConfigDel();
    Kest::Entity::singletonDel(Asic::SwTableInterfacesSingleton::typeName);
  }
  TempShmRoot root;
  InterfaceAgent<Reference> agent;
};

TEST_F(DefaultFwdTcamEntryInterfaceTest, TracesRegistrationAndRestoreWordForWord) {
  agentWritesAndIsKilled<Reference>({0, 1}, 4);
  hardwareTakes<Reference>(6);
  Kest::traceConfigIs("DefaultFwdTcamEntryInterface/2-3");
  Kest::TraceCapture traces;
  auto intf = agent.intf();
  intf->makeSwTable(UnitId(0), nullptr, false);
  intf->makeSwTable(UnitId(0), Nimbo::make<VeskTapAgg::DefaultFwdTcamEntrySwTableHelperBase>(),
                    true);
  intf->reconcile();
  EXPECT_EQ(traces.texts("DefaultFwdTcamEntryInterface"),
            (std::vector<std::string>{
                " Creating entry log for 1c:08:0402",
                " Cleaned entry log until table version: 6",
                " Turning ON pendingHwWrites",
                " Entry log created for table id: 1c:08:0402 at version: 8",
                " Restored 4 entries for table: DefaultFwdTcamEntry, unitId: 0",
                "swTable with unitId: 0 exists",
                "Update software table helper",
                " Clearing entries for table id: 1c:08:0402",
                " No. of config entities found: 2, in shard path: "
                "VeskTapAgg.VeskTapAggGroup/VeskTapAgg/DefaultFwdTcamEntry/config",
                " Found inactive unit id: 1 ",
                " Clearing entries for table: DefaultFwdTcamEntry, unitId: 1",
            }));
  EXPECT_EQ(traces.records().front().file, "VeskTapAgg/DefaultFwdTcamEntryInterface");

  std::vector<std::string> ring;
  for (const auto& record : intf->ringLog()) ring.push_back(Kest::RingLog::text(record));
  ASSERT_EQ(ring.size(), 2u);
  EXPECT_NE(ring[0].find("restored 4 entries, unitId: 0"), std::string::npos) << ring[0];
  EXPECT_NE(ring[1].find("unitId: 1"), std::string::npos) << ring[1];
}

TEST_F(DefaultFwdTcamEntryInterfaceTest, ASecondInterfaceOfOneTypeStopsTheAgent) {
  agent.intf();
  EXPECT_DEATH(Nimbo::make<VeskTapAgg::DefaultFwdTcamEntryInterface>(agent.orderedTableIntf),
               "swTableIntfHas\\( \"VeskTapAgg::DefaultFwdTcamEntryInterface\" \\).*"
               "Interface already created");
}

TEST_F(DefaultFwdTcamEntryInterfaceTest, OnDeleteLeavesTheFrameworkButNotTheProcessRegistry) {
  auto intf = agent.intf();
  intf->onDelete();
  EXPECT_FALSE(agent.orderedTableIntf->swTableIntfHas("VeskTapAgg::DefaultFwdTcamEntryInterface"));
  EXPECT_EQ(agent.intf().ptr(), intf.ptr()) << "the process registry still holds it";
}

TEST_F(DefaultFwdTcamEntryInterfaceTest, ADamagedTableVersionIsReportedAndReadAsNone) {
  agentWritesAndIsKilled<Reference>({0}, 5);
  hardwareTakes<Reference>(5);
  const Asic::TableVersionShard::Record record{Reference::tableId.value(), 0, 5};
  ASSERT_TRUE(damageRecordHolding(std::filesystem::path(root.path()) / "local" / kTestAgent /
                                      kGroup / "tableVersion" / "tableVersion",
                                  &record, 12));
  auto intf = agent.intf();
  EXPECT_EQ(intf->entryLog()->cleanupMark(), LogVersion(0)) << "no version: nothing cleaned";
  EXPECT_EQ(agent.group()->tableVersionMap()->tableVersions().map().corruptionsDetected(), 1u);
  auto table = agent.table(0);
  EXPECT_EQ(table->entrys(), 5u) << "mounted as at version 0, nothing lost";
}

}  // namespace
}  // namespace VeskTest
