#include "Kest/Clock.h"

#include <time.h>

namespace Kest {
namespace {

Nimbo::Time readClock(clockid_t clock) noexcept {
  timespec ts{};
  clock_gettime(clock, &ts);  // cannot fail for these clocks with a valid pointer
  return Nimbo::Time(int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec);
}

}  // namespace

Nimbo::Time nowUtc() noexcept { return readClock(CLOCK_REALTIME); }

Nimbo::Time monotonicNow() noexcept { return readClock(CLOCK_MONOTONIC); }

}  // namespace Kest
