#include "Nimbo/Time.h"

#include <time.h>

namespace {

constexpr int64_t kNsPerSecond = 1000000000;

// Splits nanoseconds into whole seconds and a non-negative remainder (floor division), so
// that times before the epoch still print a valid fraction.
void splitSeconds(int64_t ns, int64_t& seconds, int64_t& fraction) {
  seconds = ns / kNsPerSecond;
  fraction = ns % kNsPerSecond;
  if (fraction < 0) {
    fraction += kNsPerSecond;
    --seconds;
  }
}

}  // namespace

fmt::format_context::iterator fmt::formatter<Nimbo::Time>::format(Nimbo::Time t,
                                                                  fmt::format_context& ctx) const {
  int64_t seconds, fraction;
  splitSeconds(t.ns(), seconds, fraction);
  const time_t whole = time_t(seconds);
  tm utc{};
  gmtime_r(&whole, &utc);
  return fmt::format_to(ctx.out(), "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}Z", utc.tm_year + 1900,
                        utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, fraction);
}

fmt::format_context::iterator fmt::formatter<Nimbo::Duration>::format(
    Nimbo::Duration d, fmt::format_context& ctx) const {
  // Sign and magnitude apart: floor division would print -0.25s as "-1.750000000s".
  const bool negative = d.ns() < 0;
  const uint64_t magnitude = negative ? 0 - uint64_t(d.ns()) : uint64_t(d.ns());
  return fmt::format_to(ctx.out(), "{}{}.{:09}s", negative ? "-" : "", magnitude / kNsPerSecond,
                        magnitude % kNsPerSecond);
}
