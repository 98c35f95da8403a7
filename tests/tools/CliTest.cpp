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

using VeskTest::contains;
using VeskTest::run;
using VeskTest::Vesktap;
using Json = nlohmann::json;

// Every case on its own shared-memory root, inherited by the programs it starts.
class CliTest : public ::testing::Test {
 protected:
  std::string workloadFile(const std::vector<Change>& changes) {
    const std::string path = root_ + "/workload.txt";
    std::ofstream file(path);
    file << "# written by the test\n";
    for (const Change& c : changes) file << formatChange(c) << "\n";
    return path;
  }

  // A file of these lines, under the root.
  std::string textFile(const std::string& name, const std::vector<std::string>& lines) {
    const std::string path = root_ + "/" + name;
    std::ofstream file(path);
    for (const auto& line : lines) file << line << "\n";
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

  VeskTest::FreshRoot fresh_{"vesk-cli"};
  const std::string root_ = fresh_.path();
};

// A record as `show --json` gives it: an object with a member per field.
template <class Record>
Json recordJson(const Record& record) {
  return Json::parse(VeskTapAgg::typeRecordOf<Record>().json(&record));
}

// What `show` lists for a table after `changes`: per unit, key -> entry, both as JSON.
template <class Traits>
std::map<uint16_t, std::map<std::string, Json>> expectedEntries(const std::vector<Change>& changes,
                                                                size_t table) {
  ExpectedState state(kTableCount);
  for (const Change& c : changes) state.apply(c);
  std::map<uint16_t, std::map<std::string, Json>> units;
  for (const auto& [slot, variant] : state.entries(table)) {
    const auto entry = logEntryOf<Traits>(uint32_t(slot), variant);
    units[uint16_t(slot >> 32)][recordJson(entry.key()).dump()] =
        recordJson(VeskTapAgg::entryOf(entry));
  }
  return units;
}

std::map<uint16_t, std::map<std::string, Json>> shownEntries(const Json& table) {
  std::map<uint16_t, std::map<std::string, Json>> units;
  for (const Json& u : table["units"]) {
    auto& entries = units[u["unit"].get<uint16_t>()];
    for (const Json& e : u["entries"]) entries[e["key"].dump()] = e["entry"];
  }
  return units;
}

// The lines of stderr that are not the status lines a run prints there (progress, what it
// restored, what it waits for): an error must be one such line.
size_t errorLines(const std::string& err) {
  size_t n = 0;
  std::istringstream in(err);
  for (std::string line; std::getline(in, line);) {
    bool status = false;
    for (const char* prefix : {"restored ", "cleared ", "progress: ", "agent: ", "hw: "})
      status |= line.rfind(prefix, 0) == 0;
    n += !status;
  }
  return n;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// What a waiting process costs over two seconds: the share of a core it uses (a loop
// uses most of one) and how often it wakes (a poll every 25 ms is 40 times a second).
struct WaitCost {
  double cpuShare;
  double wakeupsPerSecond;
};

WaitCost costWhileWaiting(const Vesktap& process) {
  constexpr double kSeconds = 2;
  const double cpuBefore = VeskTest::cpuSeconds(process.pid());
  const uint64_t sleepsBefore = VeskTest::sleepsSoFar(process.pid());
  std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
  return {(VeskTest::cpuSeconds(process.pid()) - cpuBefore) / kSeconds,
          double(VeskTest::sleepsSoFar(process.pid()) - sleepsBefore) / kSeconds};
}

// Waiting costs next to nothing: under 5% of a core, and no poll more often than every
// 10 ms.
void expectCheapWait(const Vesktap& process, const char* waitingFor) {
  const WaitCost cost = costWhileWaiting(process);
  EXPECT_LT(cost.cpuShare, 0.05) << waitingFor;
  EXPECT_LT(cost.wakeupsPerSecond, 100) << waitingFor;
}

TEST_F(CliTest, DemoKillsAndRestoresTheAgentAndEverythingAgrees) {
  const auto demo = run({"demo", "--units", "2", "--keys", "300", "--changes", "6000"});
  EXPECT_EQ(demo.code, 0) << demo.out << demo.err;
  EXPECT_TRUE(contains(demo.out, "demo: agent killed with SIGKILL after"));
  EXPECT_TRUE(contains(demo.out, "demo: agent restarted: restored"));
  EXPECT_TRUE(contains(demo.out, "configuration:             "));
  EXPECT_TRUE(contains(demo.out, ", 0 differ from the workload"));
  EXPECT_TRUE(contains(demo.out, ", 0 differ from the configuration"));
  EXPECT_TRUE(contains(demo.out, "demo: everything agrees"));
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
  for (uint32_t k = 0; k < 40; k += 3)
    changes.push_back({ChangeKind::remove, uint8_t(second), 0, k, 0});
  for (uint32_t k = 0; k < 40; k += 5)
    changes.push_back({ChangeKind::write, uint8_t(second), 1, k, 999});
  changes.push_back({ChangeKind::removeAll, uint8_t(first), 1, 0, 0});
  for (uint32_t k = 100; k < 104; ++k)
    changes.push_back({ChangeKind::write, uint8_t(first), 1, k, 7});

  const auto agent = run({"agent", "--units", "0", "1", "--workload", workloadFile(changes),
                          "--no-wait", "--progress-ms", "0"});
  ASSERT_EQ(agent.code, 0) << agent.out << agent.err;
  const auto noSuchUnit = run({"show", "--table", "DefaultFwdTcamAction", "--unit", "7"});
  EXPECT_EQ(noSuchUnit.code, 1);
  EXPECT_TRUE(contains(noSuchUnit.err, "DefaultFwdTcamAction has no unit 7 (units: 0, 1)"))
      << noSuchUnit.err;

  Json shown = showJson({"--entries"});
  forEachTable([&]<class Traits>(size_t t) {
    const Json& table = tableIn(shown, Traits::tableName);
    if (t != first && t != second) {
      for (const auto& [unit, entries] : shownEntries(table))
        EXPECT_TRUE(entries.empty()) << Traits::tableName;
      return;
    }
    EXPECT_EQ(shownEntries(table), expectedEntries<Traits>(changes, t)) << Traits::tableName;
    // Nothing has reached a hardware side yet.
    EXPECT_TRUE(table["hardwareTaken"].is_null());
    EXPECT_EQ(table["changeLog"]["newestVersion"], table["changeLog"]["tableVersion"]);
    for (const Json& u : table["units"]) {
      EXPECT_EQ(u["notInHardware"], u["liveEntries"]);
      EXPECT_TRUE(u["tcam"].is_null());
    }
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
      EXPECT_EQ(u["tcam"]["lines"], u["liveEntries"]) << u;
      newestApplied = std::max<uint64_t>(newestApplied, u["tcam"]["appliedVersion"]);
    }
    EXPECT_EQ(newestApplied, table["changeLog"]["tableVersion"])
        << "the TCAM of the last change's unit";
  }
}

TEST_F(CliTest, EveryChangeIsConfirmedIncludingRemoveAllsWhichHaveNoAnswerOfTheirOwn) {
  Vesktap hw({"hw"});
  Vesktap agent({"agent", "--units", "0", "1", "--keys", "50", "--changes", "3000",
                 "--remove-all-every", "40", "--progress-ms", "0"});
  ASSERT_TRUE(agent.awaitOutput("total: ")) << agent.out() << agent.err();
  EXPECT_EQ(agent.wait(), 0) << agent.err();
  EXPECT_TRUE(contains(agent.out(), "total: 3000 accepted, 3000 committed, 3000 confirmed"));
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 128 + SIGTERM) << hw.err();
}

// --- Waiting: every wait ends or is told, once, and costs no CPU ---

TEST_F(CliTest, ARemoveAllIsConfirmedWhenItLogsNothingOrComesFirst) {
  Vesktap hw({"hw"});
  const std::vector<std::vector<std::string>> runs = {
      {"removeAll DefaultFwdTcamAction 1"},  // the first change on a fresh root
      {"write DefaultFwdTcamAction 0 1 1",
       "removeAll DefaultFwdTcamAction 1"},  // unit 1 holds nothing
      {"removeAll DefaultFwdTcamAction 1"},  // nothing to remove, every earlier change taken
      {"removeAll DefaultFwdTcamAction 0",
       "removeAll DefaultFwdTcamAction 0"},  // the second empties nothing
  };
  for (const auto& changes : runs) {
    const std::string what = fmt::format("{}", fmt::join(changes, "; "));
    Vesktap agent({"agent", "--units", "0", "1", "--workload", textFile("changes.txt", changes),
                   "--progress-ms", "0"});
    ASSERT_TRUE(agent.awaitOutput("total: ")) << what << ": " << agent.out() << agent.err();
    EXPECT_EQ(agent.wait(), 0) << what << ": " << agent.err();
    EXPECT_TRUE(
        contains(agent.out(),
                 fmt::format("total: {0} accepted, {0} committed, {0} confirmed", changes.size())))
        << what;
  }
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 128 + SIGTERM) << hw.err();
}

TEST_F(CliTest, AnAgentWithoutAHardwareSideSaysSoOnceAndWaitsWithoutUsingTheCpu) {
  Vesktap agent({"agent", "--units", "0", "--tables", "ServicePolicyV4TcamEntry", "--keys", "50",
                 "--changes", "100", "--progress-ms", "20"});
  ASSERT_TRUE(agent.awaitOutput("agent: no hardware side is taking changes: "))
      << agent.out() << agent.err();
  expectCheapWait(agent, "waiting for a hardware side");
  const std::string waiting = agent.err();
  EXPECT_TRUE(contains(waiting, " committed changes of ServicePolicyV4TcamEntry wait since "));
  EXPECT_TRUE(contains(waiting, "start `vesktap hw`"));
  EXPECT_EQ(occurrences(waiting, "no hardware side"), 1u) << waiting;
  EXPECT_LE(occurrences(waiting, "progress: "), 2u)
      << "a line when it moved, not at every tick: " << waiting;

  // A hardware side ends the wait, and the agent says so.
  Vesktap hw({"hw"});
  ASSERT_TRUE(agent.awaitOutput("total: ")) << agent.out() << agent.err();
  EXPECT_EQ(agent.wait(), 0) << agent.err();
  EXPECT_TRUE(contains(agent.err(), "agent: a hardware side is taking changes now"));
  EXPECT_TRUE(contains(agent.out(), "total: 100 accepted, 100 committed, 100 confirmed"));
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 128 + SIGTERM) << hw.err();

  // Asked to, an agent gives up instead, in one line.
  const auto gaveUp =
      run({"agent", "--units", "0", "--tables", "ServicePolicyV4TcamEntry", "--keys", "50",
           "--seed", "7", "--changes", "100", "--progress-ms", "0", "--give-up-ms", "300"});
  EXPECT_EQ(gaveUp.code, 1);
  EXPECT_EQ(errorLines(gaveUp.err), 1u) << gaveUp.err;
  EXPECT_TRUE(contains(gaveUp.err, "gave up after 300 ms without a hardware side taking changes"));
  EXPECT_TRUE(contains(gaveUp.out, "(gave up waiting)"));
}

TEST_F(CliTest, AHardwareSideWithoutAnAgentSaysSoOnceAndWaitsWithoutUsingTheCpu) {
  Vesktap hw({"hw"});
  ASSERT_TRUE(hw.awaitOutput("hw: no agent's change log at ")) << hw.out() << hw.err();
  expectCheapWait(hw, "looking for an agent that is not there");

  // An agent comes: every change is taken, and then an idle hardware side costs nothing.
  const auto agent =
      run({"agent", "--units", "0", "--keys", "50", "--changes", "200", "--progress-ms", "0"});
  EXPECT_EQ(agent.code, 0) << agent.err;
  EXPECT_TRUE(contains(agent.out, "total: 200 accepted, 200 committed, 200 confirmed"));
  // Right after work it polls often, to take the next burst soon; idle a second, it slows.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  expectCheapWait(hw, "looking at change logs that do not move");
  EXPECT_EQ(occurrences(hw.err(), "no agent"), 1u) << hw.err();
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 128 + SIGTERM) << hw.err();
}

TEST_F(CliTest, AFullChangeLogIsToldOnceAndWaitedForWithoutUsingTheCpuAndNothingIsLost) {
#ifdef VESK_SANITIZED_BUILD
  // A million changes take minutes under the sanitizers; the release build runs this case,
  // and the table's own hold-back is tested in both (SwTableSpecialsTest).
  GTEST_SKIP() << "release build only";
#endif
  // 16 units of 62,500 keys fill the change log of one table type (1,000,000 records): the
  // 100 changes of a 17th unit must wait for the hardware side.
  const std::string path = root_ + "/full.txt";
  {
    std::ofstream file(path);
    for (int unit = 0; unit < 16; ++unit) {
      for (int key = 0; key < 62500; ++key)
        file << "write DefaultFwdTcamAction " << unit << " " << key << " 1\n";
    }
    for (int key = 0; key < 100; ++key) file << "write DefaultFwdTcamAction 16 " << key << " 2\n";
  }
  std::vector<std::string> args{"agent",       "--workload",    path, "--no-wait",
                                "--no-verify", "--progress-ms", "0",  "--units"};
  for (int unit = 0; unit <= 16; ++unit) args.push_back(std::to_string(unit));
  Vesktap agent(args);
  ASSERT_TRUE(agent.awaitOutput("agent: change log of DefaultFwdTcamAction is full: ", 100))
      << agent.out() << agent.err();
  expectCheapWait(agent, "waiting for a hardware side");
  const std::string full = agent.err();
  EXPECT_TRUE(contains(full, "1000000 changes the hardware side has not taken"));
  EXPECT_TRUE(
      contains(full, "holding 100 changes back, nothing is lost; waiting for the hardware side"));
  EXPECT_EQ(occurrences(full, " is full"), 1u) << full;

  Vesktap hw({"hw"});
  ASSERT_TRUE(agent.awaitOutput("total: ", 100)) << agent.out() << agent.err();
  EXPECT_EQ(agent.wait(), 0) << agent.err();
  EXPECT_TRUE(contains(agent.out(), "total: 1000100 accepted, 1000100 committed"));
  hw.signal(SIGTERM);
  EXPECT_EQ(hw.wait(), 128 + SIGTERM) << hw.err();
  const Json shown = showJson({"--table", "DefaultFwdTcamAction", "--unit", "16"});
  EXPECT_EQ(tableIn(shown, "DefaultFwdTcamAction")["units"][0]["liveEntries"], 100);
}

TEST_F(CliTest, AHardwareSideThatCannotUseATcamSaysWhichFileAndStops) {
  const auto write = [&](const std::string& key) {
    const auto agent = run({"agent", "--units", "0", "--workload",
                            textFile("changes.txt", {"write DefaultFwdTcamAction 0 " + key + " 1"}),
                            "--no-wait", "--progress-ms", "0"});
    ASSERT_EQ(agent.code, 0) << agent.err;
  };
  write("1");
  ASSERT_EQ(run({"hw", "--exit-when-idle", "300"}).code, 0);  // makes the TCAM of unit 0
  const std::string tcam = root_ + "/local/VeskTapAggHw/DefaultFwdTcamAction/tcam/0/tcam";
  ASSERT_TRUE(std::filesystem::is_regular_file(tcam));

  // The next change needs the TCAM of unit 0: a symlink or a directory in its place stops
  // the hardware side with the file named, rather than leaving it polling forever.
  write("2");
  std::filesystem::rename(tcam, root_ + "/elsewhere");
  const auto refused = [&](const std::string& what) {
    const auto hw = run({"hw", "--exit-when-idle", "300"});
    EXPECT_EQ(hw.code, 1) << what;
    EXPECT_EQ(errorLines(hw.err), 1u) << what << ": " << hw.err;
    EXPECT_TRUE(contains(hw.err, "cannot use the TCAM of DefaultFwdTcamAction unit 0"));
    EXPECT_TRUE(contains(hw.err, tcam));
    EXPECT_TRUE(contains(hw.err, "remove that file"));
  };
  std::filesystem::create_symlink(root_ + "/elsewhere", tcam);
  refused("a symlink");
  std::filesystem::remove(tcam);
  std::filesystem::create_directory(tcam);
  refused("a directory");

  // Removed, it is made anew and the hardware side goes on.
  std::filesystem::remove(tcam);
  const auto hw = run({"hw", "--exit-when-idle", "300"});
  EXPECT_EQ(hw.code, 0) << hw.err;
  EXPECT_TRUE(contains(hw.out, "hw: 1 changes applied"));
}

TEST_F(CliTest, AHardwareSideThatCannotReadAChangeSaysWhichAndHowToMendIt) {
  ASSERT_EQ(run({"agent", "--units", "0", "--tables", "DefaultFwdTcamAction", "--keys", "1000",
                 "--changes", "1000", "--no-wait", "--progress-ms", "0"})
                .code,
            0);
  // Damage records in the middle of the change log: the hardware side cannot go past them.
  const std::string log = root_ +
                          "/local/VeskTapAgg/VeskTapAgg.VeskTapAggGroup/VeskTapAgg/"
                          "DefaultFwdTcamAction/entryLog/entryLogConfig";
  {
    std::fstream file(log, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t used = bytes.find_last_not_of('\0');
    ASSERT_NE(used, std::string::npos);
    file.seekp(std::streamoff(used / 2));
    file.write(std::string(400, '\x5a').data(), 400);
  }
  const auto stuck = run({"hw", "--exit-when-idle", "300"});
  EXPECT_EQ(stuck.code, 1);
  EXPECT_EQ(errorLines(stuck.err), 1u) << stuck.err;
  EXPECT_TRUE(contains(stuck.err, "the hardware side stopped idle without applying change "));
  EXPECT_TRUE(contains(stuck.err, "of DefaultFwdTcamAction"));

  // It names the file, and what it says to do mends it.
  EXPECT_TRUE(contains(stuck.err, log));
  EXPECT_TRUE(contains(stuck.err, "stop the agent, delete "));
  std::filesystem::remove(log);
  ASSERT_EQ(
      run({"agent", "--units", "0", "--changes", "0", "--no-wait", "--progress-ms", "0"}).code, 0);
  const auto mended = run({"hw", "--exit-when-idle", "300"});
  EXPECT_EQ(mended.code, 0) << mended.err;
  const Json unit = tableIn(showJson(), "DefaultFwdTcamAction")["units"][0];
  EXPECT_EQ(unit["notInHardware"], 0) << unit;
  EXPECT_EQ(unit["tcam"]["lines"], unit["liveEntries"]) << unit;
}

TEST_F(CliTest, WhatTheSystemLogIsToldTheOperatorSeesOnStderr) {
  ASSERT_EQ(
      run({"agent", "--units", "0", "--changes", "50", "--no-wait", "--progress-ms", "0"}).code, 0);
  // Damage the header of a unit's configuration: the next agent wipes and rebuilds it,
  // and tells the system log, which an operator without a syslog reader never sees.
  const std::string config = root_ +
                             "/local/VeskTapAgg/VeskTapAgg.VeskTapAggGroup/VeskTapAgg/"
                             "DefaultFwdTcamAction/config/0/swTableEntries";
  ASSERT_TRUE(std::filesystem::is_regular_file(config));
  {
    std::fstream file(config, std::ios::in | std::ios::out | std::ios::binary);
    file.write(std::string(64, '\xff').data(), 64);
  }
  setenv("VESK_LOG_STDERR", "1", 1);
  const auto restart =
      run({"agent", "--units", "0", "--changes", "0", "--no-wait", "--progress-ms", "0"});
  unsetenv("VESK_LOG_STDERR");
  EXPECT_EQ(restart.code, 0) << restart.err;
  EXPECT_TRUE(
      contains(restart.err,
               "vesktap: %HW_ABSTRACTION_ERROR: Hardware abstraction error: unable to load item: "
               "entryCfg::DefaultFwdTcamAction"));
}

TEST_F(CliTest, ASecondAgentIsRefusedAndTheFirstStopsCleanlyOnSigterm) {
  // No hardware side: the first agent commits a window of changes and then waits for
  // answers that never come.
  Vesktap agent({"agent", "--units", "0", "--tables", "ServicePolicyMacTcamEntry", "--keys", "500",
                 "--changes", "3000", "--progress-ms", "20"});
  ASSERT_TRUE(agent.awaitOutput("progress: ")) << agent.out() << agent.err();

  const auto second = run({"agent", "--units", "0", "--changes", "10", "--no-wait"});
  EXPECT_NE(second.code, 0);
  EXPECT_EQ(errorLines(second.err), 1u) << second.err;
  EXPECT_TRUE(contains(second.err, fmt::format("another agent (pid {}) holds {}; stop it or set "
                                               "VESK_SHM_ROOT",
                                               agent.pid(), root_)))
      << second.err;
  EXPECT_EQ(second.err.find("progress:"), std::string::npos) << second.err;

  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(), 128 + SIGTERM) << agent.err();
  EXPECT_TRUE(contains(agent.out(), "(interrupted)"));

  // Nothing was damaged: a restarted agent restores every entry the first one committed.
  const Json shown = showJson();
  const Json& table = tableIn(shown, "ServicePolicyMacTcamEntry");
  const uint64_t live = table["units"][0]["liveEntries"];
  EXPECT_GT(live, 0u);
  const std::string report = root_ + "/report.json";
  const auto restart =
      run({"agent", "--units", "0", "--changes", "0", "--no-wait", "--report-json", report});
  ASSERT_EQ(restart.code, 0) << restart.err;
  std::ifstream in(report);
  EXPECT_EQ(Json::parse(in)["restoredEntries"], live);
}

TEST_F(CliTest, AHardwareSideKilledAndRestartedResumesWithoutApplyingAnythingTwice) {
  const auto agent = run({"agent", "--units", "0", "--tables", "DefaultFwdTcamEntry", "--keys",
                          "2000", "--changes", "6000", "--no-wait", "--progress-ms", "0"});
  ASSERT_EQ(agent.code, 0) << agent.err;
  const uint64_t logged = tableIn(showJson(), "DefaultFwdTcamEntry")["changeLog"]["tableVersion"];
  ASSERT_GT(logged, 5000u);

  {
    Vesktap slow({"hw", "--rate", "20000", "--progress-ms", "20"});
    ASSERT_TRUE(slow.awaitOutput(" changes applied (")) << slow.err();
    slow.signal(SIGKILL);
    EXPECT_EQ(slow.wait(), Vesktap::kDiedBy + SIGKILL);
  }
  const uint64_t taken = tableIn(showJson(), "DefaultFwdTcamEntry")["hardwareTaken"];
  ASSERT_GT(taken, 0u);
  ASSERT_LT(taken, logged);

  const auto resumed = run({"hw", "--exit-when-idle", "300"});
  ASSERT_EQ(resumed.code, 0) << resumed.err;
  EXPECT_EQ(resumed.err.rfind(fmt::format("hw: resuming after versions 0 {} 0 0", taken), 0), 0u)
      << resumed.err;
  EXPECT_TRUE(contains(resumed.out, fmt::format("hw: {} changes applied", logged - taken)));

  const Json shown = showJson();
  const Json& table = tableIn(shown, "DefaultFwdTcamEntry");
  EXPECT_EQ(table["hardwareTaken"], logged);
  EXPECT_EQ(table["units"][0]["notInHardware"], 0);
  EXPECT_EQ(table["units"][0]["tcam"]["lines"], table["units"][0]["liveEntries"]);
}

// --- Bad input: one clear line, exit 2 for a usage error, 1 for anything else ---
// (What a workload file may not hold is the parser's own test; here, that it reaches the user.)

TEST_F(CliTest, TheProgramFollowsTheConventionsOfTheShell) {
  const auto version = run({"--version"});
  EXPECT_EQ(version.code, 0);
  EXPECT_EQ(version.out.rfind("vesktap 0.", 0), 0u) << version.out;
  for (const char* command : {"demo", "agent", "hw", "show", "metrics"}) {
    const auto help = run({command, "--help"});
    EXPECT_EQ(help.code, 0) << command;
    for (const char* part : {"Environment:", "VESK_SHM_ROOT", "levels 0 to 31", "Exit status:"})
      EXPECT_TRUE(contains(help.out, part)) << command << " lacks " << part;
    EXPECT_TRUE(contains(help.out, fmt::format("Example:\n  vesktap {}", command))) << help.out;
  }
  EXPECT_TRUE(contains(run({"agent", "--help"}).out, "--progress-ms INT:0 to 2147483647=1000"));

  // Stdout holds the data alone: the JSON report for "-", the summary then on stderr.
  const auto json = run({"agent", "--units", "0", "--changes", "20", "--no-wait", "--progress-ms",
                         "1", "--report-json", "-"});
  ASSERT_EQ(json.code, 0) << json.err;
  EXPECT_EQ(Json::parse(json.out)["accepted"], 20) << json.out;
  EXPECT_TRUE(contains(json.err, "total: 20 accepted")) << json.err;

  // A trace setting that cannot work is told in a line, and nothing else changes.
  setenv("VESK_TRACE", "Foo/1,DefaultFwdTcamEntrySwTable/2,SwTableIter/1,Bar/99", 1);
  const auto traced = run({"agent", "--units", "0", "--changes", "0", "--no-wait"});
  unsetenv("VESK_TRACE");
  EXPECT_EQ(traced.code, 0) << traced.err;
  EXPECT_TRUE(contains(traced.err, "VESK_TRACE: ignoring 'Foo': no class or trace handle"));
  EXPECT_TRUE(contains(traced.err, "VESK_TRACE: ignoring \"Bar/99\": expected Name/N"));
  EXPECT_EQ(occurrences(traced.err, "VESK_TRACE"), 2u) << traced.err;

  // A workload far larger than memory is made as it runs; stopped by a signal, the agent
  // says so by its exit status, as a shell would.
  Vesktap waiting({"agent", "--units", "0", "--changes", "100000000000", "--progress-ms", "1"});
  ASSERT_TRUE(waiting.awaitOutput("progress: ")) << waiting.err();
  EXPECT_LT(VeskTest::residentBytes(waiting.pid()), uint64_t(512) << 20);
  waiting.signal(SIGINT);
  EXPECT_EQ(waiting.wait(), 128 + SIGINT) << waiting.err();
  EXPECT_TRUE(contains(waiting.out(), "(interrupted)")) << waiting.out();
}

TEST_F(CliTest, BadInputIsOneClearLineAndANonZeroExit) {
  const std::string badWorkload =
      textFile("changes.txt", {"write DefaultFwdTcamEntry 0 1", "write Foo 0 1"});
  const std::string hugeName(100000, 'x');  // about as long as one argument may be
  const struct {
    std::vector<std::string> args;
    std::string error;
    int code;
  } cases[] = {
      {{"agent", "--tables", "Foo"},
       "--tables: unknown table 'Foo' (tables: DefaultFwdTcamAction, ",
       2},
      {{"agent", "--tables", hugeName},
       "--tables: unknown table '" + std::string(40, 'x') + "...'",
       2},
      {{"agent", "--units", "70000"}, "--units: '70000' is not a whole number from 0 to 65535", 2},
      {{"agent", "--changes", "-5"},
       "--changes: '-5' is not a whole number from 0 to 100000000000",
       2},
      {{"agent", "--changes", "999999999999"},
       "'999999999999' is not a whole number from 0 to 100000000000",
       2},
      {{"agent", "--keys", "0"}, "--keys: '0' is not a whole number from 1 to 65536", 2},
      {{"agent", "--window", "1e3"}, "--window: '1e3' is not a whole number", 2},
      {{"agent", "--seed", "-1", "--changes", "10", "--no-wait"},
       "--seed: '-1' is not a whole number",
       2},
      {{"agent", "--progress-ms", hugeName},
       "--progress-ms: '" + std::string(40, 'x') + "...' is not a whole number",
       2},
      {{"agent", "--frobnicate"}, "--frobnicate", 2},
      {{"hw", "--rate", "-5"}, "--rate: '-5' is not a whole number from 0 to 1000000000", 2},
      {{"hw", "--delay", "-1"}, "--delay: '-1' is not a whole number", 2},
      {{"demo", "--changes", "0"},
       "--changes: '0' is not a whole number from 1 to 100000000000",
       2},
      {{"show", "--unit", "-1"}, "--unit: '-1' is not a whole number from 0 to 65535", 2},
      {{"show", "--table", "Foo"}, "--table: unknown table 'Foo'", 2},
      {{"frobnicate"}, "unknown command 'frobnicate'", 2},
      {{}, "A subcommand is required", 2},
      {{"agent", "--workload", root_ + "/missing"}, "missing", 2},
      {{"agent", "--changes", "10", "--no-wait", "--report-json", root_},
       "--report-json: cannot write the report to " + root_ + ": Is a directory",
       2},
      {{"agent", "--changes", "10", "--no-wait", "--report-json", "/proc/vesk/report.json"},
       "cannot write the report to /proc/vesk/report.json",
       2},
      {{"agent", "--workload", badWorkload},
       badWorkload + ":2: unknown table 'Foo' (tables: DefaultFwdTcamAction, ",
       1},
      {{"agent", "--workload", "/dev/zero"}, "/dev/zero: not a regular file", 1},
      {{"show"}, "no agent's shared memory at " + root_, 1},
  };
  for (const auto& c : cases) {
    const auto result = run(c.args);
    const std::string what = fmt::format("vesktap {}", fmt::join(c.args, " ")).substr(0, 200);
    EXPECT_EQ(result.code, c.code) << what << ": " << result.err;
    EXPECT_EQ(errorLines(result.err), 1u) << what << ": " << result.err;
    EXPECT_LT(result.err.size(), 400u) << what << ": " << result.err;
    EXPECT_TRUE(contains(result.err, c.error)) << what;
  }
  // Nothing refused wrote anything, nor left a report behind.
  EXPECT_FALSE(std::filesystem::exists(root_ + "/local"));

  // A report that cannot be written when the run ends is an error too.
  const auto full =
      run({"agent", "--units", "0", "--changes", "0", "--no-wait", "--report-json", "/dev/full"});
  EXPECT_EQ(full.code, 1);
  EXPECT_EQ(errorLines(full.err), 1u) << full.err;
  EXPECT_TRUE(contains(full.err, "cannot write the report to /dev/full: No space left on device"));
  EXPECT_TRUE(contains(full.out, "total: 0 accepted")) << "the run itself is reported: ";

  setenv("VESK_SHM_ROOT", "/proc/vesk", 1);
  const auto unwritable = run({"agent", "--changes", "1", "--no-wait"});
  EXPECT_NE(unwritable.code, 0);
  EXPECT_EQ(errorLines(unwritable.err), 1u) << unwritable.err;
  EXPECT_TRUE(contains(unwritable.err, "/proc/vesk"));
}

}  // namespace
}  // namespace VeskTool
