#include <gtest/gtest.h>

#include <chrono>

#include "Kest/Clock.h"
#include "Nimbo/Time.h"

namespace {

using Nimbo::Duration;
using Nimbo::Time;

// --- Formatting ---

TEST(Time, FormatsAsUtcWithNanoseconds) {
  EXPECT_EQ(fmt::format("{}", Time(1795351501123456789)), "2026-11-22T12:45:01.123456789Z");
  EXPECT_EQ(fmt::format("{}", Time(0)), "1970-01-01T00:00:00.000000000Z");
  EXPECT_EQ(fmt::format("{}", Time(-1)), "1969-12-31T23:59:59.999999999Z");
  EXPECT_EQ(fmt::format("{}", Time(951782400000000007)), "2000-02-29T00:00:00.000000007Z");
}

TEST(Duration, FormatsAsSecondsWithTheSignInFront) {
  EXPECT_EQ(fmt::format("{}", Duration::seconds(1) + Duration::milliseconds(500)), "1.500000000s");
  EXPECT_EQ(fmt::format("{}", Duration::nanoseconds(-250)), "-0.000000250s");
  EXPECT_EQ(fmt::format("{}", Duration::seconds(-2) - Duration::microseconds(1)), "-2.000001000s");
}

// --- Clocks ---

// Compared with the system clock at full resolution: time() reads the coarse clock, which can
// trail the fine one by a tick, so a second boundary between the reads would fail spuriously.
TEST(Clock, NowUtcIsTheSystemsCalendarTime) {
  const auto nsSinceEpoch = [] {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const int64_t before = nsSinceEpoch();
  const int64_t now = Kest::nowUtc().ns();
  const int64_t after = nsSinceEpoch();
  EXPECT_GE(now, before);
  EXPECT_LE(now, after);
}

}  // namespace
