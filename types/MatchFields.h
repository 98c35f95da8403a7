#pragma once

#include <cstdint>

#include "types/RecordFormat.h"

namespace VeskTapAgg {

// Value/mask pairs of a TCAM key. A field matches when (packet & mask) == (value & mask);
// a zero mask is "don't care". Plain bytes, no padding: keys are compared and hashed by
// their bytes, so a value bit under a zero mask still tells two keys apart.

struct U8Match {
  uint8_t value = 0;
  uint8_t mask = 0;
  VESK_RECORD_OPS(U8Match);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{:#x}/{:#x}", value, mask);
  }
};

struct U16Match {
  uint16_t value = 0;
  uint16_t mask = 0;
  VESK_RECORD_OPS(U16Match);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}/{:#x}", value, mask);
  }
};

struct U32Match {
  uint32_t value = 0;
  uint32_t mask = 0;
  VESK_RECORD_OPS(U32Match);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}/{:#x}", value, mask);
  }
};

struct MacMatch {
  uint8_t value[6] = {};
  uint8_t mask[6] = {};
  VESK_RECORD_OPS(MacMatch);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{:02x}/{:02x}", fmt::join(value, ":"), fmt::join(mask, ":"));
  }
};

// IPv4 address and mask in host order.
struct Ip4Match {
  uint32_t value = 0;
  uint32_t mask = 0;
  VESK_RECORD_OPS(Ip4Match);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}.{}.{}.{}/{}.{}.{}.{}", value >> 24, (value >> 16) & 0xff,
                          (value >> 8) & 0xff, value & 0xff, mask >> 24, (mask >> 16) & 0xff,
                          (mask >> 8) & 0xff, mask & 0xff);
  }
};

// IPv6 address and mask in network byte order.
struct Ip6Match {
  uint8_t value[16] = {};
  uint8_t mask[16] = {};
  VESK_RECORD_OPS(Ip6Match);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{:02x}/{:02x}", fmt::join(value, ""), fmt::join(mask, ""));
  }
};

// Prints ", name=<value>/<mask>" for a field that is set; a field left all zero (value and
// mask) is left out, which keeps a key's text short yet different for different keys.
template <class Field>
fmt::format_context::iterator formatMatch(fmt::format_context::iterator out, const char* name,
                                          const Field& field) {
  return field == Field{} ? out : fmt::format_to(out, ", {}={}", name, field);
}

}  // namespace VeskTapAgg
