#pragma once

#include <compare>
#include <cstdint>
#include <limits>

#include <fmt/format.h>

namespace Asic {

// Version of a pending remove-all of a table: the first takes 0, each further one while
// one is pending the pending value + 1 (next() does both). All ones is invalid, meaning
// "none pending"; a default-constructed version is invalid. A plain value; any thread.
class MajorVersion {
 public:
  constexpr MajorVersion() = default;
  constexpr explicit MajorVersion(uint64_t value) : value_(value) {}
  static constexpr MajorVersion invalid() noexcept { return MajorVersion(); }

  constexpr uint64_t value() const noexcept { return value_; }
  constexpr bool valid() const noexcept { return value_ != invalid().value_; }
  constexpr MajorVersion next() const noexcept { return MajorVersion(valid() ? value_ + 1 : 0); }
  friend constexpr auto operator<=>(MajorVersion, MajorVersion) = default;

 private:
  uint64_t value_ = std::numeric_limits<uint64_t>::max();
};

}  // namespace Asic

// The number, or "invalid".
template <>
struct fmt::formatter<Asic::MajorVersion> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(Asic::MajorVersion v, fmt::format_context& ctx) const {
    if (!v.valid()) return fmt::format_to(ctx.out(), "invalid");
    return fmt::format_to(ctx.out(), "{}", v.value());
  }
};
