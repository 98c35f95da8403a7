// What is checked on the reference table type alone: exact trace texts (keys print
// differently per type) and where mounts go.

#include <cstdlib>

#include "Kest/Trace.h"
#include "VeskTapAgg/EntryLogTestSupport.h"

namespace VeskTest {
namespace {

using Traits = VeskTapAgg::DefaultFwdTcamEntryTraits;
using Agent = EntryLogAgent<Traits>;
using Asic::LogVersion;
using Asic::UnitId;

class DefaultFwdTcamEntryEntryLogTest : public ::testing::Test {
 protected:
  ~DefaultFwdTcamEntryEntryLogTest() override { Kest::traceConfigDel(); }
  TempShmRoot root;
};

TEST_F(DefaultFwdTcamEntryEntryLogTest, TracesEveryOperationAtItsLevel) {
  Kest::traceConfigIs("DefaultFwdTcamEntryEntryLog/2+3+8");
  Kest::TraceCapture traces;
  Agent agent;
  agent.mounted();
  const std::string base = "VeskTapAgg.VeskTapAggGroup/VeskTapAgg/DefaultFwdTcamEntry";
  EXPECT_EQ(traces.texts(), (std::vector<std::string>{
                                "", "", " Mounted entryLog: " + base + "/entryLog, tableVersion: 0",
                                " unitId:0, logVersion: 0",
                                " Mounted config for unitId: 0 at " + base + "/config/0"}));
  const auto records = traces.records();
  ASSERT_FALSE(records.empty());
  const auto& first = records.front();
  EXPECT_EQ(first.handle, "DefaultFwdTcamEntryEntryLog");
  EXPECT_EQ(first.file, "VeskTapAgg/DefaultFwdTcamEntryEntryLog");
  EXPECT_EQ(first.className, "DefaultFwdTcamEntryEntryLog");
  EXPECT_EQ(first.level, 8u);

  traces.clear();
  const auto entry = agent.entry(1);
  const std::string key = fmt::format("{}", agent.key(1));
  agent.write(1, 0, true);
  agent.write(1, 0, true);
  agent.del(2);
  agent.del(1);
  agent.log().tableDel(nullptr, UnitId(0));
  agent.log().entryHas(agent.key(1), UnitId(0));
  agent.log().entrys(UnitId(0));
  agent.log().cleanupEntryLog(LogVersion(3));
  const std::string key2 = fmt::format("{}", agent.key(2));
  EXPECT_EQ(traces.texts(), (std::vector<std::string>{
                                fmt::format(" logEntry: {} neededEntry: {{}} version: 1 unitId: 0 "
                                            "suppressIdenticalWrites: true",
                                            entry),
                                "Suppressing identical write for key: " + key,
                                " key:" + key2 + " neededEntry: {} unitId: 0",
                                " key: " + key2 + " entry does not exist. So ignoring delete",
                                " key:" + key + " neededEntry: {} unitId: 0",
                                " neededEntry:{}, unitId: 0",
                                " key: " + key + " unitId:0",
                                " unitId:0",
                                " unitId:0",
                                " version 3",
                                " deleteing all entries for unitId: 0",
                            }));
}

TEST_F(DefaultFwdTcamEntryEntryLogTest, NotLocalEmMountsInTheSharedNamespace) {
  ASSERT_EQ(inChild([this] {
              ::setenv("NOT_LOCAL_EM", "", 1);
              Agent agent;
              agent.mounted();
              agent.write(1);
              const auto path = std::filesystem::path(root.path()) / "shared" / kTestAgent;
              EXPECT_TRUE(std::filesystem::exists(
                  path / Traits::Constants::configShardPath(UnitId(0)) / "swTableEntries"));
              EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(root.path()) / "local" /
                                                   kTestAgent /
                                                   Traits::Constants::configShardPath(UnitId(0))));
            }),
            0);
  Agent local;  // without it, the same agent finds nothing of that
  EXPECT_EQ(local.log().tableVersion(), LogVersion(0));
}

}  // namespace
}  // namespace VeskTest
