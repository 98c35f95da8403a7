#pragma once

#include <compare>
#include <cstdint>

#include <fmt/format.h>

#include "Nimbo/Export.h"

namespace Nimbo {

// A signed span of time in nanoseconds. A value type; any thread.
class Duration {
 public:
  constexpr Duration() = default;
  static constexpr Duration nanoseconds(int64_t ns) { return Duration(ns); }
  static constexpr Duration microseconds(int64_t us) { return Duration(us * 1000); }
  static constexpr Duration milliseconds(int64_t ms) { return Duration(ms * 1000000); }
  static constexpr Duration seconds(int64_t s) { return Duration(s * 1000000000); }

  constexpr int64_t ns() const noexcept { return ns_; }
  constexpr bool zero() const noexcept { return ns_ == 0; }
  // The span in seconds, for rates; loses precision beyond about 104 days.
  constexpr double secondsAsDouble() const noexcept { return double(ns_) / 1e9; }

  constexpr Duration operator+(Duration o) const noexcept { return Duration(ns_ + o.ns_); }
  constexpr Duration operator-(Duration o) const noexcept { return Duration(ns_ - o.ns_); }
  constexpr Duration operator*(int64_t n) const noexcept { return Duration(ns_ * n); }
  friend constexpr auto operator<=>(Duration, Duration) = default;

 private:
  constexpr explicit Duration(int64_t ns) : ns_(ns) {}
  int64_t ns_ = 0;
};

// A point in time: nanoseconds since the Unix epoch on the clock that produced it (UTC for
// Kest::nowUtc(), an arbitrary origin for Kest::monotonicNow()). A value type; any thread.
class Time {
 public:
  constexpr Time() = default;
  constexpr explicit Time(int64_t nsSinceEpoch) : ns_(nsSinceEpoch) {}

  constexpr int64_t ns() const noexcept { return ns_; }
  constexpr Duration operator-(Time o) const noexcept { return Duration::nanoseconds(ns_ - o.ns_); }
  constexpr Time operator+(Duration d) const noexcept { return Time(ns_ + d.ns()); }
  constexpr Time operator-(Duration d) const noexcept { return Time(ns_ - d.ns()); }
  friend constexpr auto operator<=>(Time, Time) = default;

 private:
  int64_t ns_ = 0;
};

}  // namespace Nimbo

// ISO 8601 in UTC with nanoseconds: 2026-11-22T12:45:01.123456789Z
template <>
struct VESK_EXPORT fmt::formatter<Nimbo::Time> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  fmt::format_context::iterator format(Nimbo::Time t, fmt::format_context& ctx) const;
};

// Seconds with nanoseconds, e.g. "1.500000000s" or "-0.000000250s".
template <>
struct VESK_EXPORT fmt::formatter<Nimbo::Duration> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  fmt::format_context::iterator format(Nimbo::Duration d, fmt::format_context& ctx) const;
};
