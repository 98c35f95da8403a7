#pragma once

#include <cstdint>

#include <fmt/format.h>

namespace Asic {

// The kind of change a resolver entry carries.
enum class EntryFlags : uint8_t { write = 0, remove = 1, removeAll = 2 };

}  // namespace Asic

// The enumerator's name; a value outside the enumeration prints as "EntryFlags(<n>)".
template <>
struct fmt::formatter<Asic::EntryFlags> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(Asic::EntryFlags flags, fmt::format_context& ctx) const {
    switch (flags) {
      case Asic::EntryFlags::write:
        return fmt::format_to(ctx.out(), "write");
      case Asic::EntryFlags::remove:
        return fmt::format_to(ctx.out(), "remove");
      case Asic::EntryFlags::removeAll:
        return fmt::format_to(ctx.out(), "removeAll");
    }
    return fmt::format_to(ctx.out(), "EntryFlags({})", uint8_t(flags));
  }
};
