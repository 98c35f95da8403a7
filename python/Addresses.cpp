#include "python/Addresses.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <vector>

#include <fmt/format.h>

#include "python/Records.h"

namespace VeskPy {
namespace {

using Kest::FieldText;

// One kind of address: its size, its ipaddress classes (none for MAC) and the forms it is
// written in.
struct Kind {
  size_t size;
  const char* what;  // "an IPv4 address"
  const char* addressClass;
  const char* networkClass;
  const char* address;  // an example of each form
  const char* prefix;
  const char* masked;
  const char* alsoTakes;  // the number or bytes the field also takes
};

const Kind& kindOf(FieldText text) {
  static const Kind ip4{4,
                        "an IPv4 address",
                        "IPv4Address",
                        "IPv4Network",
                        "10.0.0.1",
                        "10.0.0.0/24",
                        "10.0.0.0/255.255.255.0",
                        "an int"};
  static const Kind ip6{16,
                        "an IPv6 address",
                        "IPv6Address",
                        "IPv6Network",
                        "2001:db8::1",
                        "2001:db8::/32",
                        "2001:db8::/ffff:ffff::",
                        "16 bytes or ints"};
  static const Kind mac{6,
                        "a MAC address",
                        nullptr,
                        nullptr,
                        "aa:bb:cc:dd:ee:ff",
                        "aa:bb:cc:00:00:00/24",
                        "aa:bb:cc:00:00:00/ff:ff:ff:00:00:00",
                        "6 bytes or ints"};
  return text == FieldText::ip4 ? ip4 : text == FieldText::ip6 ? ip6 : mac;
}

bool isInstance(py::handle value, const char* ipaddressClass) {
  return ipaddressClass &&
         py::isinstance(value, py::module_::import("ipaddress").attr(ipaddressClass));
}

void copyPacked(py::handle address, std::span<uint8_t> out) {
  const std::string packed = address.attr("packed").cast<std::string>();
  std::copy(packed.begin(), packed.end(), out.begin());
}

// Six two-digit hex groups separated by ':'.
bool parseMac(const std::string& text, std::span<uint8_t> out) {
  if (text.size() != 17) return false;
  for (size_t i = 0; i < 6; ++i) {
    const char* group = text.data() + 3 * i;
    const auto hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    if ((i > 0 && group[-1] != ':') || !hex(group[0]) || !hex(group[1])) return false;
    std::from_chars(group, group + 2, out[i], 16);
  }
  return true;
}

bool parseAddress(const std::string& text, const Kind& kind, std::span<uint8_t> out) {
  if (!kind.addressClass) return parseMac(text, out);
  try {
    copyPacked(py::module_::import("ipaddress").attr(kind.addressClass)(text), out);
    return true;
  } catch (py::error_already_set& e) {
    if (!e.matches(PyExc_ValueError)) throw;
    return false;
  }
}

// "address", "address/length" or "address/mask".
bool parseMatch(const std::string& text, const Kind& kind, std::span<uint8_t> value,
                std::span<uint8_t> mask) {
  const size_t slash = text.find('/');
  if (!parseAddress(text.substr(0, slash), kind, value)) return false;
  if (slash == std::string::npos) {
    std::fill(mask.begin(), mask.end(), 0xff);
    return true;
  }
  const std::string maskText = text.substr(slash + 1);
  const bool isLength =
      !maskText.empty() && maskText.size() <= 3 &&
      std::all_of(maskText.begin(), maskText.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (!isLength) return parseAddress(maskText, kind, mask);
  const size_t length = std::stoul(maskText);
  if (length > 8 * kind.size) return false;
  for (size_t i = 0; i < kind.size; ++i) {
    const size_t bits = std::min<size_t>(8, length - std::min(length, 8 * i));
    mask[i] = uint8_t(0xff00 >> bits);
  }
  return true;
}

std::string reprOf(py::handle value) { return py::repr(value).cast<std::string>(); }

}  // namespace

void addressFrom(py::handle value, FieldText text, std::span<uint8_t> out,
                 const std::string& where) {
  const Kind& kind = kindOf(text);
  if (py::isinstance<py::str>(value)) {
    if (!parseAddress(value.cast<std::string>(), kind, out)) {
      throw py::value_error(fmt::format("{}: {} is not {} (expected a form like '{}')", where,
                                        reprOf(value), kind.what, kind.address));
    }
  } else if (isInstance(value, kind.addressClass)) {
    copyPacked(value, out);
  } else if (text == FieldText::ip4 && py::isinstance<py::int_>(value)) {
    ip4Bytes(uint32_t(numberFrom(value, UINT32_MAX, where)), out);
  } else if (text != FieldText::ip4 &&
             (py::isinstance<py::bytes>(value) || py::isinstance<py::bytearray>(value) ||
              py::isinstance<py::sequence>(value))) {
    bytesFrom(value, out.data(), out.size(), where);
  } else {
    const std::string object = kind.addressClass ? fmt::format("an {}, ", kind.addressClass) : "";
    throw py::type_error(fmt::format("{}: expected {}a str such as '{}' or {}, got {}", where,
                                     object, kind.address, kind.alsoTakes, typeNameOf(value)));
  }
}

py::object addressToPython(FieldText text, std::span<const uint8_t> bytes) {
  const py::module_ ipaddress = py::module_::import("ipaddress");
  switch (text) {
    case FieldText::ip4:
      return ipaddress.attr("IPv4Address")(ip4FromBytes(bytes));
    case FieldText::ip6:
      return ipaddress.attr("IPv6Address")(
          py::bytes(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    default:
      return py::str(fmt::format("{:02x}", fmt::join(bytes, ":")));
  }
}

bool addressMatchFrom(py::handle value, FieldText text, std::span<uint8_t> valueOut,
                      std::span<uint8_t> maskOut, const std::string& where) {
  const Kind& kind = kindOf(text);
  std::string written;
  if (py::isinstance<py::str>(value)) {
    written = value.cast<std::string>();
  } else if (isInstance(value, kind.networkClass) || isInstance(value, kind.addressClass)) {
    written = py::str(value).cast<std::string>();  // an interface is an address, with its prefix
  } else {
    return false;
  }
  std::vector<uint8_t> address(kind.size), mask(kind.size);
  if (!parseMatch(written, kind, address, mask)) {
    throw py::value_error(
        fmt::format("{}: {} is not {} or prefix (expected a form like '{}', '{}' or '{}')", where,
                    reprOf(value), kind.what, kind.address, kind.prefix, kind.masked));
  }
  for (size_t i = 0; i < kind.size; ++i) {
    if (address[i] & ~mask[i]) {
      throw py::value_error(
          fmt::format("{}: {} has address bits outside its mask (expected a form like '{}')", where,
                      reprOf(value), kind.prefix));
    }
  }
  std::copy(address.begin(), address.end(), valueOut.begin());
  std::copy(mask.begin(), mask.end(), maskOut.begin());
  return true;
}

std::string addressDoc(FieldText text) {
  const Kind& kind = kindOf(text);
  std::string doc =
      kind.addressClass
          ? fmt::format("{}: reads as an ipaddress.{}; takes one, a str such as '{}', or {}.",
                        kind.what, kind.addressClass, kind.address, kind.alsoTakes)
          : fmt::format("{}: reads as a str such as '{}'; takes one, or {}.", kind.what,
                        kind.address, kind.alsoTakes);
  doc[0] = char(std::toupper(static_cast<unsigned char>(doc[0])));
  return doc;
}

std::string addressMatchForms(FieldText text, bool brief) {
  const Kind& kind = kindOf(text);
  if (brief) return fmt::format("{} or prefix such as '{}'", kind.what, kind.prefix);
  std::string forms = fmt::format("{} or prefix as a str ('{}', '{}', '{}')", kind.what,
                                  kind.address, kind.prefix, kind.masked);
  if (kind.addressClass) {
    forms +=
        fmt::format(", an ipaddress.{} or an ipaddress.{}", kind.addressClass, kind.networkClass);
  }
  return forms;
}

}  // namespace VeskPy
