#pragma once

#include <cstdint>
#include <optional>

#include <fmt/format.h>

#include "Asic/NeededEntry.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// What a change waits for, as the resolver sees it: the handle of another table's change,
// reduced to its one-byte state. 0 means unresolved (still waiting); 3, 5 and 6 mean the
// other change failed; anything else that it is resolved. Shared by reference count
// between the waiting change and whoever settles it; single-threaded.
class DependencyEntryHandle : public Nimbo::Node {
 public:
  static constexpr uint8_t unresolved = 0;

  explicit DependencyEntryHandle(uint8_t state = unresolved) : state_(state) {}

  uint8_t state() const noexcept { return state_; }
  void stateIs(uint8_t state) noexcept { state_ = state; }
  bool isFailed() const noexcept { return state_ == 3 || state_ == 5 || state_ == 6; }
  bool isResolved() const noexcept { return state_ != unresolved && !isFailed(); }
  // The version of the other table that the waiting change needs, when it names one.
  virtual std::optional<NeededEntry::Need> tableVersion() const { return std::nullopt; }

 private:
  uint8_t state_;
};

}  // namespace Asic

// "unresolved", "resolved(<state>)" or "failed(<state>)".
template <>
struct fmt::formatter<Asic::DependencyEntryHandle> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Asic::DependencyEntryHandle& h, fmt::format_context& ctx) const {
    if (h.isFailed()) return fmt::format_to(ctx.out(), "failed({})", h.state());
    if (h.isResolved()) return fmt::format_to(ctx.out(), "resolved({})", h.state());
    return fmt::format_to(ctx.out(), "unresolved");
  }
};
