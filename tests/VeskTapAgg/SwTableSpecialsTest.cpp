// Software-table cases checked on one table type: the change log's space limit, exact
// traces, the assertions, and a client helper that rewrites entries.

#include "Kest/Trace.h"
#include "Kest/TypeData.h"
#include "VeskTapAgg/SwTableTestSupport.h"

namespace VeskTest {
namespace {

using Asic::EntryState;
using Asic::LogVersion;
using Reference = VeskTapAgg::DefaultFwdTcamEntryTraits;

class SwTableSpecialsTest : public ::testing::Test {
 protected:
  ~SwTableSpecialsTest() override { Kest::traceConfigDel(); }
  TempShmRoot root;
};

TEST_F(SwTableSpecialsTest, AFullChangeLogHoldsChangesBackUntilTheHardwareCatchesUp) {
  SwTableRig<Reference> rig;
  auto& log = rig.agent.log();
  Reference::LogShardEntry change{};
  for (uint64_t v = 1; v <= 999999; ++v) {
    change.logVersion = LogVersion(v);
    log.tableEntryLog()->entryLogConfigIs(change);
  }
  log.tableVersionInc(999999);
  auto last = rig.write(1);
  EXPECT_EQ(rig.run(), 1u) << "999,999 records leave room for one more";
  EXPECT_EQ(last->logVersion(), LogVersion(1000000));

  Kest::traceConfigIs("DefaultFwdTcamEntrySwTable/1");
  Kest::TraceCapture traces;
  auto held = rig.write(2);
  EXPECT_EQ(rig.run(), 0u);
  EXPECT_EQ(held->entryState(), EntryState::created);
  EXPECT_EQ(traces.textsContaining("no space in entryLog!").size(), 1u);
  EXPECT_TRUE(rig.table->entryHas(rig.key(2))) << "held back, not lost";

  rig.hw(1000);
  EXPECT_EQ(rig.run(), 1u);
  EXPECT_EQ(held->logVersion(), LogVersion(1000001));
}

TEST_F(SwTableSpecialsTest, TracesTheWritePipelineWordForWord) {
  Kest::traceConfigIs("DefaultFwdTcamEntrySwTable/2+8");
  SwTableRig<Reference> rig;
  Kest::TraceCapture traces;
  rig.table->entryWrite(rig.key(1), rig.entry(1), nullptr);
  const std::string key = fmt::format("{}", rig.key(1));
  EXPECT_EQ(traces.texts("DefaultFwdTcamEntrySwTable"),
            (std::vector<std::string>{" key: " + key, " key: " + key, "key: " + key,
                                      " Key: " + key + " not found in entry version collection",
                                      "Done processing write for key: " + key + " ",
                                      // the table set asks hasPendingHwWrites
                                      ""}));
  const auto records = traces.records();
  EXPECT_EQ(records.front().file, "VeskTapAgg/DefaultFwdTcamEntrySwTable");
  EXPECT_EQ(records[4].file, "OrderedTable/OrderedSwTableAccessor");
  EXPECT_EQ(records[4].className, "");
  EXPECT_EQ(records[4].level, 2u);
}

// A read of a committed key looks it up once, and still traces as the steps of the read:
// whether the log has it, then the entry from the configuration.
TEST_F(SwTableSpecialsTest, AReadOfACommittedKeyTracesEachStepOfTheRead) {
  SwTableRig<Reference> rig;
  rig.write(1);
  rig.run();
  Kest::traceConfigIs("DefaultFwdTcamEntrySwTable/1+8,DefaultFwdTcamEntryEntryLog/8");
  Kest::TraceCapture traces;
  const auto stepsOfReading = [&](uint32_t k) {
    traces.clear();
    rig.table->entryRead(rig.key(k));
    const std::string key = fmt::format("{}", rig.key(k));
    std::vector<std::string> steps;
    for (const auto& r : traces.records()) {
      std::string text = r.text;
      text.replace(text.find(key), key.size(), "K");
      steps.push_back(r.function + ":" + text);
    }
    return steps;
  };
  EXPECT_EQ(stepsOfReading(1),
            (std::vector<std::string>{"entryRead: key: K", "entryReadGeneric:key: K",
                                      "entryHas: key: K unitId:0", "entryFromConfig:key: K",
                                      "entry: key: K unitId:0"}));
  EXPECT_EQ(stepsOfReading(2),
            (std::vector<std::string>{"entryRead: key: K", "entryReadGeneric:key: K",
                                      "entryHas: key: K unitId:0",
                                      "entryReadGeneric:Failed to find entry for key: K"}));
}

// A helper whose failure hook says yes and remembers what it was called with.
struct FailureRecordingHelper : VeskTapAgg::DefaultFwdTcamEntrySwTableHelperBase {
  bool finalizeOnFailure(
      const Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntryEntryWrapper>& entry, bool isDelete,
      const Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamEntrySwTable>& swTable) override {
    calls.push_back(fmt::format("{} {} {}", entry->key(), isDelete, swTable->unitId()));
    return true;
  }
  std::vector<std::string> calls;
};

// The entry wrapper traces through the handle named after it, and its failure hook, which
// nothing in the table calls, is reached by name through its type record.
TEST_F(SwTableSpecialsTest, TheEntryWrapperTracesUnderItsOwnNameAndIsCallableByName) {
  Kest::traceConfigIs("DefaultFwdTcamEntryEntryWrapper/3+8");
  SwTableRig<Reference> rig;
  auto helper = Nimbo::make<FailureRecordingHelper>();
  rig.table->swTableHelperIs(helper);
  rig.write(1);
  const Nimbo::Ptr<Nimbo::Node> wrapper = rig.table->transientAddEntry(rig.key(1));
  const std::string key = fmt::format("{}", rig.key(1));
  Kest::TraceCapture traces;
  rig.run();
  EXPECT_EQ(traces.texts("DefaultFwdTcamEntryEntryWrapper"),
            (std::vector<std::string>{" key: " + key + " isDeleted: false"}));
  ASSERT_FALSE(traces.records().empty());
  EXPECT_EQ(traces.records().front().file, "VeskTapAgg/DefaultFwdTcamEntryInfraTypes");
  EXPECT_EQ(traces.records().front().className, "DefaultFwdTcamEntryEntryWrapper");
  EXPECT_TRUE(traces.texts("DefaultFwdTcamEntrySwTable").empty()) << "nothing under the table's";

  traces.clear();
  const Kest::Value args[] = {Nimbo::Ptr<Nimbo::Node>(rig.table), true};
  EXPECT_EQ(Kest::inspectOperation(*wrapper, "finalizeOnFailure", Kest::InspectOp::call, args),
            Kest::Value(true));
  EXPECT_EQ(helper->calls, (std::vector<std::string>{key + " true 0"}));
  EXPECT_EQ(traces.texts("DefaultFwdTcamEntryEntryWrapper"),
            (std::vector<std::string>{" key: " + key + " isDeleted: true", " retVal: true"}));
  try {
    Kest::inspectOperation(*wrapper, "finalizeOnFailure", Kest::InspectOp::call, {args, 1});
    ADD_FAILURE() << "one argument is one too few";
  } catch (const Kest::InspectException& e) {
    EXPECT_NE(std::string(e.what()).find("takes 2 argument(s) (swTable, isDelete), got 1"),
              std::string::npos)
        << e.what();
  }
}

TEST_F(SwTableSpecialsTest, AnInvalidStoredVersionStopsTheAgent) {
  SwTableRig<Reference> rig;
  rig.table->transientVersionForKeyIs(rig.key(1), Asic::EntryVersion::invalid());
  EXPECT_DEATH(rig.write(1), "currEntryVersion.valid\\(\\)");
}

// A helper that gives every entry whose resources changed a new VLAN.
struct RetaggingHelper : VeskTapAgg::DefaultFwdTcamActionSwTableHelperBase {
  bool finalizeOnResourceUpdate(
      const Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamActionEntryWrapper>& entry,
      const Nimbo::Ptr<VeskTapAgg::DefaultFwdTcamActionSwTable>&, bool) override {
    auto changed = entry->entry();
    changed.action.vlanId = 4000;
    entry->entryIs(changed);
    return commit;
  }
  bool commit = true;
};

TEST_F(SwTableSpecialsTest, UpdateWritesWhatTheHelperChanged) {
  SwTableRig<VeskTapAgg::DefaultFwdTcamActionTraits> rig;
  rig.write(1, 7);
  rig.settle();
  EXPECT_FALSE(rig.table->updateEntry(rig.key(2))) << "no such entry";
  EXPECT_EQ(rig.table->updateEntry(rig.key(1))->logVersion(), LogVersion(1)) << "default: as is";
  auto helper = Nimbo::make<RetaggingHelper>();
  rig.table->swTableHelperIs(helper);
  helper->commit = false;
  EXPECT_EQ(rig.table->updateEntry(rig.key(1))->logVersion(), LogVersion(1)) << "not committed";
  EXPECT_EQ(rig.table->stats().updateCnt(), 0u);
  helper->commit = true;
  auto h = rig.table->updateEntry(rig.key(1));
  EXPECT_EQ(h->logVersion(), LogVersion(2));
  EXPECT_EQ(h->entryState(), EntryState::inLog);
  EXPECT_EQ(rig.table->stats().updateCnt(), 1u);
  EXPECT_EQ(rig.table->entryRead(rig.key(1)).action.vlanId, 4000);
  EXPECT_EQ(rig.table->entryHandleInLogSize(), 0u) << "an update's handle is not queued";
}

}  // namespace
}  // namespace VeskTest
