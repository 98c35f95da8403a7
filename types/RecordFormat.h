#pragma once

#include <compare>
#include <cstdint>
#include <type_traits>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Kest/Hash.h"

// The operations every record of the table types offers: equality (isEq, ==), ordering
// (<=>), a 32-bit hash of its bytes under a seed, and printing through {fmt} via the
// record's formatTo(). Records that are hashed must have no padding bytes. Every field of a
// record has a zero default, so a default record is all zero bytes and stands for "none".
#define VESK_RECORD_OPS(Type)                                                        \
  bool isEq(const Type& other) const noexcept { return *this == other; }             \
  uint32_t hash(uint32_t seed) const noexcept {                                      \
    static_assert(std::has_unique_object_representations_v<Type>,                    \
                  "a hashed record must have no padding");                           \
    return Kest::hash32(this, sizeof(Type), seed);                                   \
  }                                                                                  \
  friend bool operator==(const Type&, const Type&) = default;                        \
  friend auto operator<=>(const Type&, const Type&) = default

namespace VeskTapAgg {

template <class T>
concept FormattableRecord = requires(const T& t, fmt::format_context::iterator out) {
  { t.formatTo(out) } -> std::same_as<fmt::format_context::iterator>;
};

}  // namespace VeskTapAgg

template <class T>
  requires VeskTapAgg::FormattableRecord<T>
struct fmt::formatter<T> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const T& record, fmt::format_context& ctx) const { return record.formatTo(ctx.out()); }
};
