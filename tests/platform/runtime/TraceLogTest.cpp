#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "Kest/Clock.h"
#include "Kest/Log.h"
#include "Kest/RingLog.h"
#include "Kest/Trace.h"

namespace {

// Counts how often it is formatted.
struct Expensive {
  static inline int formatted = 0;
};

}  // namespace

template <>
struct fmt::formatter<Expensive> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Expensive&, fmt::format_context& ctx) const {
    ++Expensive::formatted;
    return fmt::format_to(ctx.out(), "expensive");
  }
};

namespace {

TEST(Trace, MasksComeFromTheEnvironmentWhenAHandleIsMade) {
  // The registry reads VESK_TRACE once; later settings go through traceConfigIs.
  auto bad = Kest::traceConfigIs("EnvA/8,EnvB/0-3,EnvC/2+9,*/31,Broken,Bad/x");
  EXPECT_EQ(bad, (std::vector<std::string>{"Broken", "Bad/x"}));
  EXPECT_EQ(Kest::traceHandle("EnvA").levelMask(), (1u << 8) | (1u << 31));
  EXPECT_EQ(Kest::traceHandle("EnvB").levelMask(), 0xfu | (1u << 31));
  EXPECT_EQ(Kest::traceHandle("EnvC").levelMask(), (1u << 2) | (1u << 9) | (1u << 31));
  EXPECT_EQ(&Kest::traceHandle("EnvA"), &Kest::traceHandle("EnvA")) << "one handle per name";
  Kest::traceConfigIs("");
  EXPECT_EQ(Kest::traceHandle("EnvA").levelMask(), 0u) << "a new setting replaces the old";
}

// The "threadsafe" death-test style runs the check in a freshly executed copy of this
// binary, where the trace registry reads VESK_TRACE as any program would at start.
TEST(TraceDeathTest, VeskTraceSetsTheMasksOfNewHandles) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setenv("VESK_TRACE", "DefaultFwdTcamEntrySwTable/8,SwTableIter/0-9,Bad", 1);
  EXPECT_EXIT(
      {
        bool ok = Kest::traceHandle("DefaultFwdTcamEntrySwTable").levelMask() == (1u << 8) &&
                  Kest::traceHandle("SwTableIter").levelMask() == 0x3ffu &&
                  Kest::traceHandle("Other").levelMask() == 0u;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "VESK_TRACE: ignoring 'Bad'");
  unsetenv("VESK_TRACE");
}

TEST(Trace, DisabledLevelNeverFormatsAndEnabledTextIsKeptExactly) {
  Kest::TraceCapture capture;
  Kest::traceConfigIs("Exact/3");
  const Kest::TraceHandle& h = Kest::traceHandle("Exact");
  Expensive::formatted = 0;
  VESK_TRACE(h, 8, "Cls", " key: {}", Expensive{});
  EXPECT_EQ(Expensive::formatted, 0);
  VESK_TRACE(h, 3, "Cls", "Not Suppressing write because entry or resource key is different  for key: {}",
             Expensive{});
  VESK_TRACE(h, 3, "", " key: {} unitId:{}", 5, 7);
  EXPECT_EQ(Expensive::formatted, 1);
  auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text,
            "Not Suppressing write because entry or resource key is different  for key: expensive");
  EXPECT_EQ(records[0].className, "Cls");
  EXPECT_EQ(records[0].level, 3);
  EXPECT_EQ(records[0].handle, "Exact");
  EXPECT_NE(records[0].file.find("TraceLogTest.cpp"), std::string::npos);
  EXPECT_EQ(records[1].text, " key: 5 unitId:7");
  Kest::traceConfigIs("");
}

TEST(Trace, FileSinkWritesOneLinePerRecord) {
  const std::string path = "/tmp/vesk-trace-" + std::to_string(getpid());
  Kest::traceFileIs(path);
  Kest::traceConfigIs("ToFile/2");
  VESK_TRACE(Kest::traceHandle("ToFile"), 2, "Cls", " Mounted entryLog: {}, tableVersion: {}", "p", 4);
  Kest::traceFileIs("");
  Kest::traceConfigIs("");
  std::ifstream in(path);
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  EXPECT_NE(line.find("ToFile/2"), std::string::npos) << line;
  EXPECT_NE(line.find("Cls:  Mounted entryLog: p, tableVersion: 4"), std::string::npos) << line;
  std::remove(path.c_str());
}

VESK_LOG_MESSAGE(kTestError, "TEST_ERROR", "Hardware abstraction error: unable to load item: %s",
                 "explanation", "\x01", 3);

TEST(Log, MessageReachesTheCaptureWithItsArgumentNeverReadAsAFormat) {
  Kest::LogCapture capture;
  Kest::LogHandle handle(kTestError, Nimbo::Duration(), 1.0, 0, 0);
  EXPECT_EQ(Kest::LogHandle::find("TEST_ERROR"), &handle);
  Kest::log(handle, "entryLog::TapTunnelTerminationTcamEntry");
  Kest::log(handle, "100%s %d %n");
  ASSERT_EQ(capture.records().size(), 2u);
  EXPECT_EQ(capture.records()[0].text,
            "Hardware abstraction error: unable to load item: entryLog::TapTunnelTerminationTcamEntry");
  EXPECT_EQ(capture.records()[0].name, "TEST_ERROR");
  EXPECT_EQ(capture.records()[0].severity, 3u);
  EXPECT_EQ(capture.records()[1].text, "Hardware abstraction error: unable to load item: 100%s %d %n");
  EXPECT_EQ(handle.logged(), 2u);
  EXPECT_EQ(Kest::formatLogMessage("a %% b %s c %s", "X"), "a % b X c %s");
}

TEST(Log, RateLimitCountsWhatItHoldsBack) {
  Kest::LogCapture capture;
  Kest::LogHandle handle(kTestError, Nimbo::Duration::seconds(3600), 2.0, 0, 0);
  for (int i = 0; i < 5; ++i) Kest::log(handle, "x");
  EXPECT_EQ(capture.records().size(), 2u);
  EXPECT_EQ(handle.logged(), 2u);
  EXPECT_EQ(handle.suppressed(), 3u);
}

TEST(RingLog, KeepsTheNewestRecordsInOrderAndPrintsThem) {
  Kest::RingLog ring(5);  // rounds up to 8
  EXPECT_EQ(ring.capacity(), 8u);
  const uint32_t restored = Kest::RingLog::eventIdFor("restored", "{} entries for unit {}");
  EXPECT_EQ(Kest::RingLog::eventIdFor("restored", "ignored"), restored);
  for (uint64_t i = 0; i < 11; ++i) ring.record(restored, i, 7);
  auto records = ring.records();
  ASSERT_EQ(records.size(), 8u);
  EXPECT_EQ(records.front().args[0], 3u);
  EXPECT_EQ(records.back().args[0], 10u);
  EXPECT_EQ(Kest::RingLog::text(records.back()), "restored: 10 entries for unit 7");
}

TEST(Clock, FormatsUtcWithNanoseconds) {
  EXPECT_EQ(fmt::format("{}", Nimbo::Time(1795351501123456789)), "2026-11-22T12:45:01.123456789Z");
  EXPECT_GT(Kest::nowUtc().ns(), 1795351501000000000);
}

}  // namespace
