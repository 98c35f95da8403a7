#pragma once

#include <cstdint>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "Asic/Ids.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// The table versions an entry needs before it may go to the hardware: pairs of another
// table type and the version of that table's log. Handed to the entry log with every
// logged change. Shared by reference count; single-threaded.
class NeededEntry : public Nimbo::Node {
 public:
  using Need = std::pair<SwTableId, LogVersion>;

  void needIs(SwTableId table, LogVersion version) { needs_.emplace(table, version); }
  const std::set<Need>& needs() const noexcept { return needs_; }
  bool empty() const noexcept { return needs_.empty(); }

 private:
  std::set<Need> needs_;
};

// What a change waits for, as the resolver sees it: a one-byte state where 0 means
// unresolved, 3, 5 and 6 mean failed, and anything else resolved.
class DependencyEntryHandle : public Nimbo::Node {
 public:
  explicit DependencyEntryHandle(uint8_t state = 0) : state_(state) {}

  uint8_t state() const noexcept { return state_; }
  void stateIs(uint8_t state) noexcept { state_ = state; }
  bool isFailed() const noexcept { return state_ == 3 || state_ == 5 || state_ == 6; }
  bool isResolved() const noexcept { return state_ != 0 && !isFailed(); }

 private:
  uint8_t state_;
};

}  // namespace Asic

template <>
struct fmt::formatter<Asic::NeededEntry> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Asic::NeededEntry& n, fmt::format_context& ctx) const {
    auto out = fmt::format_to(ctx.out(), "{{");
    const char* sep = "";
    for (const auto& [table, version] : n.needs()) {
      out = fmt::format_to(out, "{}{}@{}", sep, table, version);
      sep = ", ";
    }
    return fmt::format_to(out, "}}");
  }
};
