#include "Kest/Clock.h"

#include <time.h>

namespace Kest {

Nimbo::Time nowUtc() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return Nimbo::Time(int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec);
}

}  // namespace Kest

fmt::format_context::iterator fmt::formatter<Nimbo::Time>::format(Nimbo::Time t,
                                                                  fmt::format_context& ctx) const {
  int64_t seconds = t.ns() / 1000000000;
  int64_t nanos = t.ns() % 1000000000;
  if (nanos < 0) {
    nanos += 1000000000;
    --seconds;
  }
  time_t secs = time_t(seconds);
  tm utc{};
  gmtime_r(&secs, &utc);
  return fmt::format_to(ctx.out(), "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:09}Z", utc.tm_year + 1900,
                        utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, nanos);
}
