#pragma once

#include <compare>
#include <cstdint>

#include <fmt/format.h>

namespace Asic {

// Number of a hardware unit (chip); keys the per-unit tables and configurations.
// A plain value: trivially copyable, stored as two bytes in shared-memory records; any
// thread.
class UnitId {
 public:
  constexpr UnitId() = default;
  constexpr explicit UnitId(uint16_t value) : value_(value) {}
  constexpr uint16_t value() const noexcept { return value_; }
  friend constexpr auto operator<=>(UnitId, UnitId) = default;

 private:
  uint16_t value_ = 0;
};

}  // namespace Asic

// Prints the number; takes the width, fill and base options of an integer ("{:>3}").
template <>
struct fmt::formatter<Asic::UnitId> : fmt::formatter<uint16_t> {
  auto format(Asic::UnitId id, fmt::format_context& ctx) const {
    return fmt::formatter<uint16_t>::format(id.value(), ctx);
  }
};
