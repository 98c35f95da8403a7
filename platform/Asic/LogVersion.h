#pragma once

#include <compare>
#include <cstdint>

#include <fmt/format.h>

namespace Asic {

// The table version of an entry log: every logged write, entry delete or unit delete
// advances it by exactly one; 0 means none. A class rather than a bare uint64_t so that a
// version is never mixed up with a count or a unit, yet as cheap: explicit construction
// from the number, value() to get it back, ordering as unsigned 64-bit numbers, ++ and +n.
// Stored as eight bytes in shared-memory records, where 64-bit fields are 4-byte aligned:
// hence its alignment of 4. A plain value; any thread.
class __attribute__((packed, aligned(4))) LogVersion {
 public:
  constexpr LogVersion() = default;
  constexpr explicit LogVersion(uint64_t value) : value_(value) {}
  constexpr uint64_t value() const noexcept { return value_; }
  constexpr bool valid() const noexcept { return value_ != 0; }
  constexpr LogVersion operator+(uint64_t n) const noexcept { return LogVersion(value_ + n); }
  constexpr LogVersion& operator++() noexcept {
    ++value_;
    return *this;
  }
  constexpr LogVersion operator++(int) noexcept {
    LogVersion before = *this;
    ++value_;
    return before;
  }
  friend constexpr auto operator<=>(LogVersion, LogVersion) = default;

 private:
  uint64_t value_ = 0;
};
static_assert(sizeof(LogVersion) == 8 && alignof(LogVersion) == 4);

}  // namespace Asic

// Prints the number; takes the width, fill and base options of an integer.
template <>
struct fmt::formatter<Asic::LogVersion> : fmt::formatter<uint64_t> {
  auto format(Asic::LogVersion v, fmt::format_context& ctx) const {
    return fmt::formatter<uint64_t>::format(v.value(), ctx);
  }
};
