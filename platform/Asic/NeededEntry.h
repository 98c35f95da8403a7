#pragma once

#include <set>
#include <utility>

#include <fmt/format.h>

#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// The table versions an entry needs before it may go to the hardware: pairs of another
// table type and the version of that table's log. Handed to the entry log with every
// logged change; empty for tables whose entries need no other table's. Shared by
// reference count; single-threaded.
class NeededEntry : public Nimbo::Node {
 public:
  using Need = std::pair<SwTableId, LogVersion>;

  void needIs(SwTableId table, LogVersion version) { needs_.emplace(table, version); }
  void add(const Need& need) { needs_.insert(need); }
  bool needHas(SwTableId table, LogVersion version) const {
    return needs_.count(Need(table, version)) != 0;
  }
  const std::set<Need>& needs() const noexcept { return needs_; }
  bool empty() const noexcept { return needs_.empty(); }

 private:
  std::set<Need> needs_;
};

}  // namespace Asic

// "{1c:08:0401@7, ...}"; "{}" when empty.
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
