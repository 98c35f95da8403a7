#pragma once

#include <fmt/format.h>

#include "Nimbo/Export.h"
#include "Nimbo/Time.h"

namespace Kest {

// The current UTC time (CLOCK_REALTIME). Any thread.
VESK_EXPORT Nimbo::Time nowUtc() noexcept;

}  // namespace Kest

// ISO 8601 in UTC with nanoseconds: 2026-11-22T12:45:01.123456789Z
template <>
struct VESK_EXPORT fmt::formatter<Nimbo::Time> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  fmt::format_context::iterator format(Nimbo::Time t, fmt::format_context& ctx) const;
};
