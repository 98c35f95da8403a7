#pragma once

#include <compare>
#include <cstdint>

namespace Nimbo {

// A span of time in nanoseconds.
class Duration {
 public:
  constexpr Duration() = default;
  constexpr explicit Duration(int64_t ns) : ns_(ns) {}
  static constexpr Duration milliseconds(int64_t ms) { return Duration(ms * 1000000); }
  static constexpr Duration seconds(int64_t s) { return Duration(s * 1000000000); }
  constexpr int64_t ns() const noexcept { return ns_; }
  constexpr bool zero() const noexcept { return ns_ == 0; }
  friend constexpr auto operator<=>(Duration, Duration) = default;

 private:
  int64_t ns_ = 0;
};

// A point in UTC time: nanoseconds since the epoch.
class Time {
 public:
  constexpr Time() = default;
  constexpr explicit Time(int64_t nsSinceEpoch) : ns_(nsSinceEpoch) {}
  constexpr int64_t ns() const noexcept { return ns_; }
  constexpr Duration operator-(Time other) const noexcept { return Duration(ns_ - other.ns_); }
  constexpr Time operator+(Duration d) const noexcept { return Time(ns_ + d.ns()); }
  friend constexpr auto operator<=>(Time, Time) = default;

 private:
  int64_t ns_ = 0;
};

}  // namespace Nimbo
