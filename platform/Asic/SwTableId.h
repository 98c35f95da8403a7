#pragma once

#include <compare>
#include <cstdint>

#include <fmt/format.h>

namespace Asic {

// Id of a table type within its agent and group: agent in bits 31-24, group in bits
// 23-16, table number in bits 15-0. A plain value; any thread.
class SwTableId {
 public:
  constexpr SwTableId() = default;
  constexpr explicit SwTableId(uint32_t value) : value_(value) {}
  constexpr uint32_t value() const noexcept { return value_; }
  constexpr uint8_t agentId() const noexcept { return uint8_t(value_ >> 24); }
  constexpr uint8_t groupId() const noexcept { return uint8_t(value_ >> 16); }
  constexpr uint16_t tblId() const noexcept { return uint16_t(value_); }
  constexpr uint16_t agentAndGroupId() const noexcept { return uint16_t(value_ >> 16); }
  friend constexpr auto operator<=>(SwTableId, SwTableId) = default;

 private:
  uint32_t value_ = 0;
};

}  // namespace Asic

// "1c:08:0402": agent, group and table number in hexadecimal.
template <>
struct fmt::formatter<Asic::SwTableId> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(Asic::SwTableId id, fmt::format_context& ctx) const {
    return fmt::format_to(ctx.out(), "{:02x}:{:02x}:{:04x}", id.agentId(), id.groupId(),
                          id.tblId());
  }
};
