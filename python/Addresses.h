#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <pybind11/pybind11.h>

#include "Kest/RecordType.h"

namespace VeskPy {

namespace py = pybind11;

// Addresses as Python writes them. A field the record type shows as ip4, ip6 or mac takes
// an ipaddress.IPv4Address / IPv6Address or a str ("10.0.0.1", "2001:db8::1",
// "aa:bb:cc:dd:ee:ff"), and still what its C++ type took before: an int (ip4), bytes or a
// sequence of ints (ip6, mac). It reads as an ipaddress object, a MAC as its str. A
// value/mask match of addresses also takes a whole prefix: "10.0.0.0/24",
// "10.0.0.0/255.255.255.0", an ipaddress network, or a bare address (every bit matched).
// Addresses travel here as their bytes in network order (an ip4 field is converted by the
// caller). Bad strings raise ValueError naming the field and the expected form.

// Whether fields shown as `text` hold addresses.
constexpr bool isAddress(Kest::FieldText text) {
  return text == Kest::FieldText::ip4 || text == Kest::FieldText::ip6 ||
         text == Kest::FieldText::mac;
}

// Writes the address `value` stands for into `out` (4, 16 or 6 bytes); `where` names the
// field in errors.
void addressFrom(py::handle value, Kest::FieldText text, std::span<uint8_t> out,
                 const std::string& where);
// The address as Python reads it.
py::object addressToPython(Kest::FieldText text, std::span<const uint8_t> bytes);
// Writes the value and mask of an address match that `value` gives as a whole (a str or an
// ipaddress address, network or interface); false, writing nothing, when it is none of those.
bool addressMatchFrom(py::handle value, Kest::FieldText text, std::span<uint8_t> valueOut,
                      std::span<uint8_t> maskOut, const std::string& where);
// The field's docstring text: what it reads as and what it takes.
std::string addressDoc(Kest::FieldText text);
// What a match of such addresses takes besides a record or a dict: every form (docs), or
// briefly (errors).
std::string addressMatchForms(Kest::FieldText text, bool brief = false);

// An ip4 field's bytes in network order, and back.
inline void ip4Bytes(uint32_t address, std::span<uint8_t> out) {
  for (int i = 0; i < 4; ++i) out[size_t(i)] = uint8_t(address >> (24 - 8 * i));
}
inline uint32_t ip4FromBytes(std::span<const uint8_t> bytes) {
  return uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3];
}

}  // namespace VeskPy
