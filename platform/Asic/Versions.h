#pragma once

#include <compare>
#include <cstdint>
#include <limits>

#include <fmt/format.h>

namespace Asic {

// Version of one pending change of a key: a counter and a 16-bit part. The first change of
// a key with nothing pending takes (0, 0); each further change while one is pending takes
// next(). All ones in both is the invalid version (no change pending).
class EntryVersion {
 public:
  constexpr EntryVersion() = default;
  constexpr EntryVersion(uint64_t counter, uint16_t part) : counter_(counter), part_(part) {}
  static constexpr EntryVersion invalid() noexcept {
    return EntryVersion(std::numeric_limits<uint64_t>::max(), std::numeric_limits<uint16_t>::max());
  }
  constexpr uint64_t counter() const noexcept { return counter_; }
  constexpr uint16_t part() const noexcept { return part_; }
  constexpr bool valid() const noexcept { return *this != invalid(); }
  constexpr EntryVersion next() const noexcept { return EntryVersion(counter_ + 1, part_); }
  friend constexpr auto operator<=>(const EntryVersion&, const EntryVersion&) = default;

 private:
  uint64_t counter_ = 0;
  uint16_t part_ = 0;
};

// Version of a pending remove-all: the first takes 0, each further one while one is
// pending the pending value + 1; all ones is invalid (none pending).
class MajorVersion {
 public:
  constexpr MajorVersion() = default;
  constexpr explicit MajorVersion(uint64_t value) : value_(value) {}
  static constexpr MajorVersion invalid() noexcept {
    return MajorVersion(std::numeric_limits<uint64_t>::max());
  }
  constexpr uint64_t value() const noexcept { return value_; }
  constexpr bool valid() const noexcept { return value_ != invalid().value_; }
  constexpr MajorVersion next() const noexcept { return MajorVersion(valid() ? value_ + 1 : 0); }
  friend constexpr auto operator<=>(MajorVersion, MajorVersion) = default;

 private:
  uint64_t value_ = std::numeric_limits<uint64_t>::max();
};

// The kind of change a resolver entry carries.
enum class EntryFlags : uint8_t { write = 0, remove = 1, removeAll = 2 };

// Life of a client's change: created, in the entry log waiting for the hardware side,
// (two states the hardware side may report while programming), confirmed, failed.
enum class EntryState : uint8_t {
  created = 0,
  logged = 1,
  programming = 2,
  programmed = 3,
  done = 4,
  failed = 5,
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::EntryVersion> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Asic::EntryVersion& v, fmt::format_context& ctx) const {
    if (!v.valid()) return fmt::format_to(ctx.out(), "invalid");
    return fmt::format_to(ctx.out(), "{}.{}", v.counter(), v.part());
  }
};

template <>
struct fmt::formatter<Asic::MajorVersion> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(Asic::MajorVersion v, fmt::format_context& ctx) const {
    if (!v.valid()) return fmt::format_to(ctx.out(), "invalid");
    return fmt::format_to(ctx.out(), "{}", v.value());
  }
};
