#pragma once

#include <compare>
#include <cstdint>

#include <fmt/format.h>

namespace Asic {

// Number of a hardware unit (chip); keys the per-unit tables and configurations.
// A plain value: trivially copyable, stored as two bytes in shared-memory records.
class UnitId {
 public:
  constexpr UnitId() = default;
  constexpr explicit UnitId(uint16_t value) : value_(value) {}
  constexpr uint16_t value() const noexcept { return value_; }
  friend constexpr auto operator<=>(UnitId, UnitId) = default;

 private:
  uint16_t value_ = 0;
};

// Id of a table type within its agent and group: agent in bits 31-24, group in bits
// 23-16, table number in bits 15-0.
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

// The table version of an entry log: every logged write, entry delete or unit delete
// advances it by exactly one; 0 means none. Stored as eight bytes in shared-memory records,
// where 64-bit fields are 4-byte aligned: hence its alignment of 4.
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
  friend constexpr auto operator<=>(LogVersion, LogVersion) = default;

 private:
  uint64_t value_ = 0;
};

// The version the hardware side reports per table type in the group's table-version map.
using TableVersion = LogVersion;

}  // namespace Asic

template <>
struct fmt::formatter<Asic::UnitId> : fmt::formatter<uint16_t> {
  auto format(Asic::UnitId id, fmt::format_context& ctx) const {
    return fmt::formatter<uint16_t>::format(id.value(), ctx);
  }
};

template <>
struct fmt::formatter<Asic::LogVersion> : fmt::formatter<uint64_t> {
  auto format(Asic::LogVersion v, fmt::format_context& ctx) const {
    return fmt::formatter<uint64_t>::format(v.value(), ctx);
  }
};

template <>
struct fmt::formatter<Asic::SwTableId> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(Asic::SwTableId id, fmt::format_context& ctx) const {
    return fmt::format_to(ctx.out(), "{:02x}:{:02x}:{:04x}", id.agentId(), id.groupId(), id.tblId());
  }
};
