#pragma once

#include <cstdint>

#include <fmt/format.h>

namespace Asic {

// Life of a client's change, as its entry handle records it: created, then in the entry
// log waiting for the hardware side, then done once the hardware side has taken its
// version, or failed. The two values in between are kept for a hardware side that reports
// programming progress; the tables here never set them.
enum class EntryState : uint8_t {
  created = 0,
  inLog = 1,
  programming = 2,
  programmed = 3,
  done = 4,
  failed = 5,
};

}  // namespace Asic

// The enumerator's name; a value outside the enumeration prints as "EntryState(<n>)".
template <>
struct fmt::formatter<Asic::EntryState> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(Asic::EntryState state, fmt::format_context& ctx) const {
    switch (state) {
      case Asic::EntryState::created:
        return fmt::format_to(ctx.out(), "created");
      case Asic::EntryState::inLog:
        return fmt::format_to(ctx.out(), "inLog");
      case Asic::EntryState::programming:
        return fmt::format_to(ctx.out(), "programming");
      case Asic::EntryState::programmed:
        return fmt::format_to(ctx.out(), "programmed");
      case Asic::EntryState::done:
        return fmt::format_to(ctx.out(), "done");
      case Asic::EntryState::failed:
        return fmt::format_to(ctx.out(), "failed");
    }
    return fmt::format_to(ctx.out(), "EntryState({})", uint8_t(state));
  }
};
