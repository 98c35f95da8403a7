#pragma once

#include <cstdint>

#include "types/RecordSchema.h"

namespace VeskTapAgg {

// Value/mask pairs of a TCAM key. A field matches when (packet & mask) == (value & mask);
// a zero mask is "don't care". Plain bytes, no padding: keys are compared and hashed by
// their bytes, so a value bit under a zero mask still tells two keys apart. Each prints
// as "value/mask".

#define VESK_FIELDS(F) F(uint8_t, value, hex) F(uint8_t, mask, hex)
struct U8Match {
  static constexpr auto form = Kest::RecordType::Form::valueMask;
  VESK_RECORD(U8Match, VESK_FIELDS);
};
#undef VESK_FIELDS

#define VESK_FIELDS(F) F(uint16_t, value, decimal) F(uint16_t, mask, hex)
struct U16Match {
  static constexpr auto form = Kest::RecordType::Form::valueMask;
  VESK_RECORD(U16Match, VESK_FIELDS);
};
#undef VESK_FIELDS

#define VESK_FIELDS(F) F(uint32_t, value, decimal) F(uint32_t, mask, hex)
struct U32Match {
  static constexpr auto form = Kest::RecordType::Form::valueMask;
  VESK_RECORD(U32Match, VESK_FIELDS);
};
#undef VESK_FIELDS

#define VESK_FIELDS(F) F(uint8_t[6], value, mac) F(uint8_t[6], mask, mac)
struct MacMatch {
  static constexpr auto form = Kest::RecordType::Form::valueMask;
  VESK_RECORD(MacMatch, VESK_FIELDS);
};
#undef VESK_FIELDS

// IPv4 address and mask in host order.
#define VESK_FIELDS(F) F(uint32_t, value, ip4) F(uint32_t, mask, ip4)
struct Ip4Match {
  static constexpr auto form = Kest::RecordType::Form::valueMask;
  VESK_RECORD(Ip4Match, VESK_FIELDS);
};
#undef VESK_FIELDS

// IPv6 address and mask in network byte order.
#define VESK_FIELDS(F) F(uint8_t[16], value, ip6) F(uint8_t[16], mask, ip6)
struct Ip6Match {
  static constexpr auto form = Kest::RecordType::Form::valueMask;
  VESK_RECORD(Ip6Match, VESK_FIELDS);
};
#undef VESK_FIELDS

}  // namespace VeskTapAgg
