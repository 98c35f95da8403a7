// Lost shared memory, as an operator meets it: a segment file deleted under a stopped
// agent. The agent and the hardware side are run as a user runs them; afterwards the
// hardware's TCAM must hold exactly the configuration, and nothing may be confirmed that
// the hardware side has not applied.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tests/tools/CliSupport.h"

namespace VeskTool {
namespace {

using VeskTest::contains;
using VeskTest::run;
using Json = nlohmann::json;

constexpr const char* kTable = "DefaultFwdTcamAction";

class RecoveryTest : public ::testing::Test {
 protected:
  // The agent on unit 0 of the table, without a hardware side: commits and stops.
  void agent(const std::string& changes, const std::string& seed) {
    const auto r = run({"agent", "--units", "0", "--tables", kTable, "--keys", "40", "--changes",
                        changes, "--seed", seed, "--no-wait", "--progress-ms", "0"});
    ASSERT_EQ(r.code, 0) << r.err;
  }
  void hardwareUntilIdle() {
    const auto r = run({"hw", "--exit-when-idle", "300"});
    ASSERT_EQ(r.code, 0) << r.err;
  }
  // The file of a segment of the table under test, e.g. "tcam/0/tcam".
  std::filesystem::path tableSegment(const char* rest) const {
    return segment(fmt::format("/{}/{}", kTable, rest));
  }
  // The file of a segment (not its namespace marker), found by the end of its path.
  std::filesystem::path segment(const std::string& endsWith) const {
    for (const auto& f : std::filesystem::recursive_directory_iterator(root_.path())) {
      const std::string path = f.path().string();
      if (f.is_regular_file() && path.ends_with(endsWith) &&
          path.find("/.namespace/") == std::string::npos) {
        return f.path();
      }
    }
    ADD_FAILURE() << "no segment " << endsWith;
    return {};
  }
  Json unitShown() {
    const auto r = run({"show", "--json", "--table", kTable, "--unit", "0", "--entries"});
    EXPECT_EQ(r.code, 0) << r.err;
    const Json shown = Json::parse(r.out);
    return shown["tables"][0]["units"][0];
  }
  // The TCAM holds every live entry of the configuration, at its version, and no more.
  void expectHardwareHoldsTheConfiguration() {
    const Json unit = unitShown();
    EXPECT_GT(unit["liveEntries"].get<int>(), 0);
    EXPECT_EQ(unit["notInHardware"], 0) << unit.dump(1);
    EXPECT_EQ(unit["tcam"]["lines"], unit["liveEntries"]) << unit.dump(1);
  }

  VeskTest::FreshRoot root_{"vesk-recovery"};
};

// The hardware side has taken the first changes; later ones are committed but not taken
// when the change log is lost. The log must not start again below what the hardware side
// took (it would skip them), and the unit's configuration is logged again.
TEST_F(RecoveryTest, ALostChangeLogIsRebuiltFromTheConfigurationAboveWhatTheHardwareTook) {
  agent("100", "1");
  hardwareUntilIdle();
  agent("30", "2");
  std::filesystem::remove(tableSegment("entryLog/entryLogConfig"));
  agent("0", "3");
  hardwareUntilIdle();
  expectHardwareHoldsTheConfiguration();
  // And the agent goes on: new changes are confirmed once applied.
  VeskTest::Vesktap hw({"hw"});
  const auto more = run({"agent", "--units", "0", "--tables", kTable, "--keys", "40", "--changes",
                         "20", "--seed", "4", "--progress-ms", "0"});
  EXPECT_EQ(more.code, 0) << more.err;
  hw.signal(SIGTERM);
  hw.wait();
  expectHardwareHoldsTheConfiguration();
}

// A TCAM file lost under a stopped hardware side: the next one programs it again from the
// configuration instead of leaving out what was applied before.
TEST_F(RecoveryTest, ALostTcamIsProgrammedAgainFromTheConfiguration) {
  agent("100", "1");
  hardwareUntilIdle();
  std::filesystem::remove(tableSegment("tcam/0/tcam"));
  agent("10", "2");
  const auto hw = run({"hw", "--exit-when-idle", "300"});
  ASSERT_EQ(hw.code, 0) << hw.err;
  EXPECT_TRUE(contains(hw.err, "programmed"));
  expectHardwareHoldsTheConfiguration();
}

// The hardware side's record of what it took is lost: it resumes at the oldest change the
// agent still logs (the older ones were taken, or the agent would not have dropped them).
TEST_F(RecoveryTest, ALostTableVersionMapResumesAtTheOldestLoggedChange) {
  agent("100", "1");
  hardwareUntilIdle();
  agent("0", "1");  // drops the changes the hardware side took
  agent("25", "2");
  std::filesystem::remove(segment("/tableVersion/tableVersion"));
  const auto hw = run({"hw", "--exit-when-idle", "300"});
  ASSERT_EQ(hw.code, 0) << hw.err;
  expectHardwareHoldsTheConfiguration();
}

// The allocation bits of a TCAM zeroed: every line reads as never stored. `show` says the
// index is damaged instead of reporting lines silently missing, and the next hardware side
// rebuilds the index from the lines themselves.
TEST_F(RecoveryTest, ADamagedTcamIndexIsReportedAndRebuiltByTheHardwareSide) {
  agent("60", "1");
  hardwareUntilIdle();
  {
    std::fstream tcam(tableSegment("tcam/0/tcam"), std::ios::in | std::ios::out | std::ios::binary);
    tcam.seekp(4096);
    const std::string zeros(4096, '\0');
    tcam.write(zeros.data(), std::streamsize(zeros.size()));
  }
  const auto shown = run({"show", "--table", kTable, "--unit", "0"});
  EXPECT_TRUE(contains(shown.err, "damaged")) << shown.out;
  const auto hw = run({"hw", "--exit-when-idle", "300"});
  ASSERT_EQ(hw.code, 0) << hw.err;
  EXPECT_TRUE(contains(hw.err, "rebuilt"));
  expectHardwareHoldsTheConfiguration();
}

}  // namespace
}  // namespace VeskTool
