#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <regex>

#include "Kest/Trace.h"
#include "Kest/TraceSetting.h"
#include "Nimbo/Exception.h"

namespace {

// An argument that counts how often it is formatted.
struct Counted {
  static inline int formatted = 0;
};

}  // namespace

template <>
struct fmt::formatter<Counted> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Counted&, fmt::format_context& ctx) const {
    ++Counted::formatted;
    return fmt::format_to(ctx.out(), "counted");
  }
};

namespace {

constexpr uint32_t bit(unsigned level) { return 1u << level; }

// Restores VESK_TRACE and drops the program's setting, so that each test starts from the
// environment. Handle names are unique per test: a handle lives for the process.
class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* env = std::getenv("VESK_TRACE")) saved_ = env;
    unsetenv("VESK_TRACE");
  }
  void TearDown() override {
    if (saved_) {
      setenv("VESK_TRACE", saved_->c_str(), 1);
    } else {
      unsetenv("VESK_TRACE");
    }
    Kest::traceConfigDel();
  }

 private:
  std::optional<std::string> saved_;
};

// --- Reading a setting ---

TEST(TraceSetting, ReadsSingleLevelsRangesListsAndTheWildcard) {
  const auto s = Kest::TraceSetting::parse(
      "DefaultFwdTcamEntrySwTable/8,SwTableIter/0-9, Listed/2+3+8,Mixed/0-1+30,*/31");
  EXPECT_TRUE(s.malformed().empty());
  EXPECT_EQ(s.maskFor("DefaultFwdTcamEntrySwTable"), bit(8) | bit(31));
  EXPECT_EQ(s.maskFor("SwTableIter"), 0x3ffu | bit(31));
  EXPECT_EQ(s.maskFor("Listed"), bit(2) | bit(3) | bit(8) | bit(31));
  EXPECT_EQ(s.maskFor("Mixed"), bit(0) | bit(1) | bit(30) | bit(31));
  EXPECT_EQ(s.maskFor("Unnamed"), bit(31));
  EXPECT_EQ(Kest::TraceSetting::parse("Full/0-31").maskFor("Full"), 0xffffffffu);
}

TEST(TraceSetting, KeepsMalformedItemsAsideAndUsesTheRest) {
  const auto s =
      Kest::TraceSetting::parse("NoSlash,/3,Word/x,Big/32,Down/5-2,Open/,Plus/1+,Good/4,");
  EXPECT_EQ(s.malformed(), (std::vector<std::string>{"NoSlash", "/3", "Word/x", "Big/32",
                                                     "Down/5-2", "Open/", "Plus/1+"}));
  EXPECT_EQ(s.maskFor("Good"), bit(4));
  EXPECT_EQ(s.maskFor("Big"), 0u);
}

// --- Masks of new handles ---

TEST_F(TraceTest, ANewHandleTakesItsMaskFromVeskTraceAtThatMoment) {
  setenv("VESK_TRACE", "EnvFirst/8", 1);
  EXPECT_EQ(Kest::traceHandle("EnvFirst").levelMask(), bit(8));
  EXPECT_EQ(Kest::traceHandle("EnvOther").levelMask(), 0u);
  setenv("VESK_TRACE", "EnvFirst/1,EnvLater/2+3", 1);
  EXPECT_EQ(Kest::traceHandle("EnvLater").levelMask(), bit(2) | bit(3));
  EXPECT_EQ(Kest::traceHandle("EnvFirst").levelMask(), bit(8))
      << "an existing handle keeps its mask";
  EXPECT_EQ(&Kest::traceHandle("EnvFirst"), &Kest::traceHandle("EnvFirst"))
      << "one handle per name";
}

TEST_F(TraceTest, AMalformedItemIsReportedOnceAndIgnored) {
  setenv("VESK_TRACE", "EnvBadA/3,Oops,EnvBadB/4-x", 1);
  testing::internal::CaptureStderr();
  Kest::traceHandle("EnvBadA");
  Kest::traceHandle("EnvBadC");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      err,
      "VESK_TRACE: ignoring \"Oops\": expected Name/N, Name/A-B or Name/N+M+... with levels 0 "
      "to 31\n"
      "VESK_TRACE: ignoring \"EnvBadB/4-x\": expected Name/N, Name/A-B or Name/N+M+... with "
      "levels 0 to 31\n");
  EXPECT_EQ(Kest::traceHandle("EnvBadA").levelMask(), bit(3));
}

TEST_F(TraceTest, AProgramSettingReplacesEveryMaskUntilDropped) {
  setenv("VESK_TRACE", "CfgA/1", 1);
  Kest::TraceHandle& a = Kest::traceHandle("CfgA");
  EXPECT_EQ(a.levelMask(), bit(1));
  EXPECT_EQ(Kest::traceConfigIs("CfgA/5,*/0,Bad"), std::vector<std::string>{"Bad"});
  EXPECT_EQ(a.levelMask(), bit(5) | bit(0));
  EXPECT_EQ(Kest::traceHandle("CfgNew").levelMask(), bit(0)) << "new handles follow the program";
  a.levelMaskIs(bit(9));
  EXPECT_TRUE(a.enabled(9));
  EXPECT_FALSE(a.enabled(5));
  Kest::traceConfigDel();
  EXPECT_EQ(a.levelMask(), bit(1)) << "back to VESK_TRACE";
  EXPECT_EQ(Kest::traceHandle("CfgNew").levelMask(), 0u);
}

// --- Records ---

TEST_F(TraceTest, ADisabledLevelNeverFormatsItsArguments) {
  Kest::TraceCapture capture;
  Kest::TraceHandle& h = Kest::traceHandle("Lazy");
  h.levelMaskIs(bit(3));
  Counted::formatted = 0;
  VESK_TRACE(h, 8, "Cls", "key: {}", Counted{});
  VESK_TRACE(h, 40, "Cls", "key: {}", Counted{});
  EXPECT_EQ(Counted::formatted, 0);
  EXPECT_TRUE(capture.records().empty());
  VESK_TRACE(h, 3, "Cls", "key: {}", Counted{});
  EXPECT_EQ(Counted::formatted, 1);
  EXPECT_EQ(capture.texts(), std::vector<std::string>{"key: counted"});
}

TEST_F(TraceTest, RecordsKeepTheTextExactlyWithTheirSource) {
  Kest::TraceCapture capture;
  Kest::TraceHandle& h = Kest::traceHandle("Exact");
  h.levelMaskIs(bit(2) | bit(8));
  VESK_TRACE(h, 8, "DefaultFwdTcamEntrySwTable",
             "Not Suppressing write because entry or resource key is different  for key: {}", 42);
  VESK_TRACE(h, 2, "", " Mounted entryLog: {}, tableVersion: {}", "path", 4);
  const auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text,
            "Not Suppressing write because entry or resource key is different  for key: 42");
  EXPECT_EQ(records[0].handle, "Exact");
  EXPECT_EQ(records[0].className, "DefaultFwdTcamEntrySwTable");
  EXPECT_EQ(records[0].level, 8u);
  EXPECT_EQ(records[0].function, "TestBody");
  EXPECT_NE(records[0].file.find("TraceTest.cpp"), std::string::npos);
  EXPECT_GT(records[0].time.ns(), 0);
  EXPECT_EQ(records[1].text, " Mounted entryLog: path, tableVersion: 4");
  EXPECT_TRUE(capture.hasText(" Mounted entryLog: path, tableVersion: 4"));
  EXPECT_FALSE(capture.hasText("Mounted entryLog: path, tableVersion: 4"));
  EXPECT_EQ(capture.textsContaining("entryLog").size(), 1u);
}

// --- Sinks ---

TEST_F(TraceTest, StderrGetsOneLinePerRecord) {
  Kest::TraceHandle& h = Kest::traceHandle("ToStderr");
  h.levelMaskIs(bit(5));
  testing::internal::CaptureStderr();
  VESK_TRACE(h, 5, "Cls", "  two blanks {}", 1);
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(std::regex_match(
      line,
      std::regex("[0-9-]+T[0-9:.]+Z ToStderr/5 TraceTest.cpp:TestBody Cls:   two blanks 1\n")))
      << line;
}

TEST_F(TraceTest, TheFileSinkAppendsLinesUntilSwitchedBack) {
  const std::string path = testing::TempDir() + "vesk-trace-" + std::to_string(getpid());
  Kest::TraceHandle& h = Kest::traceHandle("ToFile");
  h.levelMaskIs(bit(2));
  Kest::traceFileIs(path);
  VESK_TRACE(h, 2, "Cls", "first {}", 1);
  VESK_TRACE(h, 2, "", "second");
  Kest::traceFileIs("");
  std::ifstream in(path);
  std::string first, second, third;
  ASSERT_TRUE(std::getline(in, first));
  ASSERT_TRUE(std::getline(in, second));
  EXPECT_FALSE(std::getline(in, third));
  EXPECT_NE(first.find(" ToFile/2 TraceTest.cpp:TestBody Cls: first 1"), std::string::npos)
      << first;
  EXPECT_NE(second.find(" ToFile/2 TraceTest.cpp:TestBody second"), std::string::npos) << second;
  std::remove(path.c_str());
  EXPECT_THROW(Kest::traceFileIs("/nonexistent-dir/trace"), Nimbo::SystemException);
}

}  // namespace
