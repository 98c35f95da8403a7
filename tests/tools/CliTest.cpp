// The vesktap commands as a user runs them: real processes on a real shared-memory root,
// what they print and what they leave behind.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tests/tools/CliSupport.h"
#include "tools/core/Records.h"
#include "tools/core/TableDispatch.h"
#include "tools/core/Workload.h"

namespace VeskTool {
namespace {

using VeskTest::run;
using VeskTest::Vesktap;
using Json = nlohmann::json;

// Every case on its own shared-memory root, inherited by the programs it starts.
class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/dev/shm/vesk-cli-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    root_ = dir;
    setenv("VESK_SHM_ROOT", root_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("VESK_SHM_ROOT");
    std::filesystem::remove_all(root_);
  }

  std::string workloadFile(const std::vector<Change>& changes) {
    const std::string path = root_ + "/workload.txt";
    std::ofstream file(path);
    file << "# written by the test\n";
    for (const Change& c : changes) file << formatChange(c) << "\n";
    return path;
  }

  Json showJson(std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"show", "--json"};
    args.insert(args.end(), extra.begin(), extra.end());
    const auto shown = run(args);
    EXPECT_EQ(shown.code, 0) << shown.err;
    return Json::parse(shown.out);
  }

  static const Json& tableIn(const Json& shown, std::string_view name) {
    for (const Json& t : shown["tables"]) {
      if (t["table"] == name) return t;
    }
    ADD_FAILURE() << "no table " << name;
    static const Json none;
    return none;
  }

  std::string root_;
};

// What `show` lists for a table after `changes`: per unit, formatted key -> formatted entry.
template <class Traits>
std::map<uint16_t, std::map<std::string, std::string>> expectedEntries(const std::vector<Change>& changes,
                                                                      size_t table) {
  ExpectedState state(kTableCount);
  for (const Change& c : changes) state.apply(c);
  std::map<uint16_t, std::map<std::string, std::string>> units;
  for (const auto& [slot, variant] : state.entries(table)) {
    const auto entry = logEntryOf<Traits>(uint32_t(slot), variant);
    units[uint16_t(slot >> 32)][fmt::format("{}", entry.key())] = fmt::format("{}", entry);
  }
  return units;
}

std::map<uint16_t, std::map<std::string, std::string>> shownEntries(const Json& table) {
  std::map<uint16_t, std::map<std::string, std::string>> units;
  for (const Json& u : table["units"]) {
    auto& entries = units[u["unit"].get<uint16_t>()];
    for (const Json& e : u["entries"]) entries[e["key"]] = e["entry"];
  }
  return units;
}

size_t lines(const std::string& text) { return size_t(std::count(text.begin(), text.end(), '\n')); }

TEST_F(CliTest, DemoKillsAndRestoresTheAgentAndEverythingAgrees) {
  const auto demo = run({"demo", "--units", "2", "--keys", "300", "--changes", "6000"});
  EXPECT_EQ(demo.code, 0) << demo.out << demo.err;
  EXPECT_NE(demo.out.find("demo: agent killed with SIGKILL after"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("demo: agent restarted: restored"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("configuration:             "), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find(", 0 differ from the workload"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find(", 0 differ from the configuration"), std::string::npos) << demo.out;
  EXPECT_NE(demo.out.find("demo: everything agrees"), std::string::npos) << demo.out;
}

TEST_F(CliTest, ShowReadsBackWhatTheAgentWroteAndThatTheHardwareAgrees) {
  // Two table types on two units: writes, rewrites, removes, and a remove-all of unit 1
  // of the first type followed by writes that must survive it.
  const size_t first = 0, second = 7;
  std::vector<Change> changes;
  for (uint32_t k = 0; k < 40; ++k) {
    for (uint16_t unit : {0, 1}) {
      changes.push_back({ChangeKind::write, uint8_t(first), unit, k, uint16_t(k)});
      changes.push_back({ChangeKind::write, uint8_t(second), unit, k, uint16_t(k + 1)});
    }
  }
  for (uint32_t k = 0; k < 40; k += 3) changes.push_back({ChangeKind::remove, uint8_t(second), 0, k, 0});
  for (uint32_t k = 0; k < 40; k += 5) changes.push_back({ChangeKind::write, uint8_t(second), 1, k, 999});
  changes.push_back({ChangeKind::removeAll, uint8_t(first), 1, 0, 0});
  for (uint32_t k = 100; k < 104; ++k) changes.push_back({ChangeKind::write, uint8_t(first), 1, k, 7});

  const auto agent = run({"agent", "--units", "0", "1", "--workload", workloadFile(changes), "--no-wait",
                          "--progress-ms", "0"});
  ASSERT_EQ(agent.code, 0) << agent.out << agent.err;

  Json shown = showJson({"--entries"});
  forEachTable([&]<class Traits>(size_t t) {
    const Json& table = tableIn(shown, Traits::tableName);
    if (t != first && t != second) {
      for (const auto& [unit, entries] : shownEntries(table)) EXPECT_TRUE(entries.empty()) << Traits::tableName;
      return;
    }
    EXPECT_EQ(shownEntries(table), expectedEntries<Traits>(changes, t)) << Traits::tableName;
    // Nothing has reached a hardware side yet.
    EXPECT_TRUE(table["hardwareTaken"].is_null());
    EXPECT_EQ(table["changeLog"]["newestVersion"], table["changeLog"]["tableVersion"]);
    for (const Json& u : table["units"]) EXPECT_EQ(u["notInHardware"], u["liveEntries"]);
  });

  // A hardware side takes every change and its TCAMs hold exactly the configuration.
  const auto hw = run({"hw", "--exit-when-idle", "300"});
  ASSERT_EQ(hw.code, 0) << hw.err;
  shown = showJson();
  for (size_t t : {first, second}) {
    const Json& table = tableIn(shown, VeskTapAgg::kCatalogue[t].name);
    EXPECT_EQ(table["hardwareTaken"], table["changeLog"]["tableVersion"]);
    uint64_t newestApplied = 0;
    for (const Json& u : table["units"]) {
      EXPECT_EQ(u["notInHardware"], 0) << u;
      EXPECT_EQ(u["tcamLines"], u["liveEntries"]) << u;
      newestApplied = std::max<uint64_t>(newestApplied, u["tcamAppliedVersion"]);
    }
    EXPECT_EQ(newestApplied, table["changeLog"]["tableVersion"]) << "the TCAM of the last change's unit";
  }
}

TEST_F(CliTest, EveryChangeIsConfirmedIncludingRemoveAllsWhichHaveNoAnswerOfTheirOwn) {
  Vesktap hw({"hw"});
  Vesktap agent({"agent", "--units", "0", "1", "--keys", "50", "--changes", "3000", "--remove-all-every", "40",
                 "--progress-ms", "0"});
  ASSERT_TRUE(agent.awaitOutput("total: ")) << agent.out() << agent.err();
  EXPECT_EQ(agent.wait(), 0) << agent.err();
  EXPECT_NE(agent.out().find("total: 3000 accepted, 3000 committed, 3000 confirmed"), std::string::npos)
      << agent.out();
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 0) << hw.err();
}

TEST_F(CliTest, ASecondAgentIsRefusedAndTheFirstStopsCleanlyOnSigterm) {
  // No hardware side: the first agent commits a window of changes and then waits for
  // answers that never come.
  Vesktap agent({"agent", "--units", "0", "--tables", "ServicePolicyMacTcamEntry", "--keys", "500", "--changes", "3000",
                 "--progress-ms", "20"});
  ASSERT_TRUE(agent.awaitOutput("progress: ")) << agent.out() << agent.err();

  const auto second = run({"agent", "--units", "0", "--changes", "10", "--no-wait"});
  EXPECT_NE(second.code, 0);
  EXPECT_EQ(lines(second.err), 1u) << second.err;
  EXPECT_NE(second.err.find("already mounted by another writer"), std::string::npos) << second.err;
  EXPECT_EQ(second.out.find("progress:"), std::string::npos) << second.out;

  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(), 0) << agent.err();
  EXPECT_NE(agent.out().find("(interrupted)"), std::string::npos) << agent.out();

  // Nothing was damaged: a restarted agent restores every entry the first one committed.
  const Json shown = showJson();
  const Json& table = tableIn(shown, "ServicePolicyMacTcamEntry");
  const uint64_t live = table["units"][0]["liveEntries"];
  EXPECT_GT(live, 0u);
  const std::string report = root_ + "/report.json";
  const auto restart = run({"agent", "--units", "0", "--changes", "0", "--no-wait", "--report-json", report});
  ASSERT_EQ(restart.code, 0) << restart.err;
  std::ifstream in(report);
  EXPECT_EQ(Json::parse(in)["restoredEntries"], live);
}

TEST_F(CliTest, AHardwareSideKilledAndRestartedResumesWithoutApplyingAnythingTwice) {
  const auto agent = run({"agent", "--units", "0", "--tables", "DefaultFwdTcamEntry", "--keys", "2000",
                          "--changes", "6000", "--no-wait", "--progress-ms", "0"});
  ASSERT_EQ(agent.code, 0) << agent.err;
  const uint64_t logged = tableIn(showJson(), "DefaultFwdTcamEntry")["changeLog"]["tableVersion"];
  ASSERT_GT(logged, 5000u);

  {
    Vesktap slow({"hw", "--rate", "20000", "--progress-ms", "20"});
    ASSERT_TRUE(slow.awaitOutput(" changes applied\n")) << slow.err();
    slow.signal(SIGKILL);
    EXPECT_EQ(slow.wait(), 128 + SIGKILL);
  }
  const uint64_t taken = tableIn(showJson(), "DefaultFwdTcamEntry")["hardwareTaken"];
  ASSERT_GT(taken, 0u);
  ASSERT_LT(taken, logged);

  const auto resumed = run({"hw", "--exit-when-idle", "300"});
  ASSERT_EQ(resumed.code, 0) << resumed.err;
  EXPECT_EQ(resumed.out.rfind(fmt::format("hw: resuming after versions 0 {} 0 0", taken), 0), 0u) << resumed.out;
  EXPECT_NE(resumed.out.find(fmt::format("hw: {} changes applied", logged - taken)), std::string::npos)
      << resumed.out;

  const Json shown = showJson();
  const Json& table = tableIn(shown, "DefaultFwdTcamEntry");
  EXPECT_EQ(table["hardwareTaken"], logged);
  EXPECT_EQ(table["units"][0]["notInHardware"], 0);
  EXPECT_EQ(table["units"][0]["tcamLines"], table["units"][0]["liveEntries"]);
}

TEST_F(CliTest, BadInputIsOneClearLineAndANonZeroExit) {
  const std::string badWorkload = workloadFile({}) + ".bad";
  std::ofstream(badWorkload) << "write DefaultFwdTcamEntry 0 1\nwrite Foo 0 1\n";
  const struct {
    std::vector<std::string> args;
    std::string error;
  } cases[] = {
      {{"agent", "--tables", "Foo"}, "unknown table 'Foo'"},
      {{"agent", "--units", "70000"}, "70000"},
      {{"agent", "--workload", badWorkload}, "line 2: unknown table 'Foo'"},
      {{"agent", "--workload", root_ + "/missing"}, "missing"},
      {{"show", "--table", "Foo"}, "unknown table 'Foo'"},
      {{"show"}, "no agent's shared memory at " + root_},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
  };
  for (const auto& c : cases) {
    const auto result = run(c.args);
    const std::string what = fmt::format("vesktap {}", fmt::join(c.args, " "));
    EXPECT_NE(result.code, 0) << what;
    EXPECT_EQ(lines(result.err), 1u) << what << ": " << result.err;
    EXPECT_NE(result.err.find(c.error), std::string::npos) << what << ": " << result.err;
  }
  // The refused workload wrote nothing.
  EXPECT_FALSE(std::filesystem::exists(root_ + "/local"));

  setenv("VESK_SHM_ROOT", "/proc/vesk", 1);
  const auto unwritable = run({"agent", "--changes", "1", "--no-wait"});
  EXPECT_NE(unwritable.code, 0);
  EXPECT_EQ(lines(unwritable.err), 1u) << unwritable.err;
  EXPECT_NE(unwritable.err.find("/proc/vesk"), std::string::npos) << unwritable.err;
}

}  // namespace
}  // namespace VeskTool
