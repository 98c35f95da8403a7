#pragma once

#include <cstdint>

#include "types/RecordFormat.h"

namespace VeskTapAgg {

// Value/mask pairs of a TCAM key. A field matches when (packet & mask) == (value & mask);
// a zero mask is "don't care", and such fields are left out when a key is printed.

struct U8Match {
  uint8_t value;
  uint8_t mask;
  VESK_RECORD_OPS(U8Match);
  bool cares() const noexcept { return mask != 0; }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{:#x}/{:#x}", value, mask);
  }
};

struct U16Match {
  uint16_t value;
  uint16_t mask;
  VESK_RECORD_OPS(U16Match);
  bool cares() const noexcept { return mask != 0; }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}/{:#x}", value, mask);
  }
};

struct U32Match {
  uint32_t value;
  uint32_t mask;
  VESK_RECORD_OPS(U32Match);
  bool cares() const noexcept { return mask != 0; }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}/{:#x}", value, mask);
  }
};

struct MacMatch {
  uint8_t value[6];
  uint8_t mask[6];
  VESK_RECORD_OPS(MacMatch);
  bool cares() const noexcept {
    for (uint8_t m : mask) {
      if (m) return true;
    }
    return false;
  }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{:02x}/{:02x}", fmt::join(value, ":"), fmt::join(mask, ":"));
  }
};

// IPv4 address and mask in host order.
struct Ip4Match {
  uint32_t value;
  uint32_t mask;
  VESK_RECORD_OPS(Ip4Match);
  bool cares() const noexcept { return mask != 0; }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}.{}.{}.{}/{}.{}.{}.{}", value >> 24, (value >> 16) & 0xff,
                          (value >> 8) & 0xff, value & 0xff, mask >> 24, (mask >> 16) & 0xff,
                          (mask >> 8) & 0xff, mask & 0xff);
  }
};

// IPv6 address and mask in network byte order.
struct Ip6Match {
  uint8_t value[16];
  uint8_t mask[16];
  VESK_RECORD_OPS(Ip6Match);
  bool cares() const noexcept {
    for (uint8_t m : mask) {
      if (m) return true;
    }
    return false;
  }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{:02x}/{:02x}", fmt::join(value, ""), fmt::join(mask, ""));
  }
};

// Prints ", name=<field>" for a field that takes part in the match.
template <class Field>
fmt::format_context::iterator formatMatch(fmt::format_context::iterator out, const char* name,
                                          const Field& field) {
  return field.cares() ? fmt::format_to(out, ", {}={}", name, field) : out;
}

}  // namespace VeskTapAgg
