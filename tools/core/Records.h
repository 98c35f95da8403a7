#pragma once

#include <cstdint>
#include <cstring>

#include "types/TableRecords.h"

namespace VeskTool {

// The entry a workload writes for key number `index` of a table type: a TCAM line with
// priority `index` matching a port and a VLAN and pointing at an action line, or an action
// line `index` that redirects, tags or drops. `variant` changes what an action line does,
// so that a rewrite of it is a different entry; an entry table's entry is its key.
template <class Traits>
typename Traits::LogEntry logEntryOf(uint32_t index, uint16_t variant) {
  typename Traits::LogEntry e{};
  auto& key = e.entryKey;
  std::memcpy(static_cast<void*>(&key), &index, sizeof index);  // priority, or line index
  if constexpr (requires { key.ingressPort; }) key.ingressPort = {1 + index % 48, 0xffffffffu};
  if constexpr (requires { key.vlan; }) key.vlan = {uint16_t(100 + index % 4000), 0x0fff};
  if constexpr (requires { key.actionIndex; }) key.actionIndex = index % 1024;
  if constexpr (requires { e.action; }) {
    e.action.kind =
        uint8_t(variant % 3 == 2 ? VeskTapAgg::ActionKind::drop : VeskTapAgg::ActionKind::redirect);
    e.action.redirectPort = 1 + (index + variant) % 48;
    e.action.flags = VeskTapAgg::TcamAction::count | VeskTapAgg::TcamAction::vlanPush;
    e.action.vlanId = uint16_t(100 + variant % 4000);
    e.action.counterId = index;
  }
  return e;
}

template <class Traits>
typename Traits::EntryKey keyOf(uint32_t index) {
  return logEntryOf<Traits>(index, 0).entryKey;
}

}  // namespace VeskTool
