#pragma once

#include "Nimbo/Export.h"
#include "Nimbo/Time.h"

namespace Kest {

// The current UTC time (CLOCK_REALTIME): for timestamps people read. It can jump when the
// system clock is set, so intervals are measured with monotonicNow(). Any thread.
VESK_EXPORT Nimbo::Time nowUtc() noexcept;

// The current time on a clock that never goes back (CLOCK_MONOTONIC), from an arbitrary
// origin: only differences between two readings mean something. Any thread.
VESK_EXPORT Nimbo::Time monotonicNow() noexcept;

}  // namespace Kest
