#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <type_traits>

#include <fmt/format.h>

namespace Asic {

// Version of one pending change of a key: a counter and a 16-bit part. The first change of
// a key with nothing pending takes first() = (0, 0); each further change while one is
// pending takes next(). All ones in both is the invalid version, meaning "no change
// pending"; a default-constructed version is invalid, so that an absent map value reads as
// none. The padding is explicit and zero: the value compares and hashes by its bytes and
// may sit in shared memory. A plain value; any thread.
class EntryVersion {
 public:
  constexpr EntryVersion() = default;
  constexpr EntryVersion(uint64_t counter, uint16_t part) : counter_(counter), part_(part) {}
  static constexpr EntryVersion first() noexcept { return EntryVersion(0, 0); }
  static constexpr EntryVersion invalid() noexcept { return EntryVersion(); }

  constexpr uint64_t counter() const noexcept { return counter_; }
  constexpr uint16_t part() const noexcept { return part_; }
  constexpr bool valid() const noexcept { return *this != invalid(); }
  constexpr EntryVersion next() const noexcept { return EntryVersion(counter_ + 1, part_); }

  friend constexpr bool operator==(const EntryVersion& a, const EntryVersion& b) noexcept {
    return a.counter_ == b.counter_ && a.part_ == b.part_;
  }
  friend constexpr std::strong_ordering operator<=>(const EntryVersion& a,
                                                    const EntryVersion& b) noexcept {
    if (auto c = a.counter_ <=> b.counter_; c != 0) return c;
    return a.part_ <=> b.part_;
  }

 private:
  uint64_t counter_ = std::numeric_limits<uint64_t>::max();
  uint16_t part_ = std::numeric_limits<uint16_t>::max();
  uint16_t reserved0_ = 0;
  uint32_t reserved1_ = 0;
};
static_assert(sizeof(EntryVersion) == 16 && std::has_unique_object_representations_v<EntryVersion>);

}  // namespace Asic

// "<counter>.<part>", or "invalid".
template <>
struct fmt::formatter<Asic::EntryVersion> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Asic::EntryVersion& v, fmt::format_context& ctx) const {
    if (!v.valid()) return fmt::format_to(ctx.out(), "invalid");
    return fmt::format_to(ctx.out(), "{}.{}", v.counter(), v.part());
  }
};
