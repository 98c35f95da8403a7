#pragma once

#include <array>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include <fmt/format.h>
#include <pybind11/eval.h>
#include <pybind11/pybind11.h>

#include "python/Addresses.h"
#include "types/TableTypes.h"

namespace VeskPy {

namespace py = pybind11;

// Records as Python classes, written once over the field lists: every record the module
// shows is a class of its own name ("DefaultFwdTcamEntryEntryKey", "U32Match",
// "TcamAction") whose fields read and write by name, nested records in place
// (key.ingressPort.mask = 0xff changes the key). A record is made from keyword arguments, a
// dict (nested dicts for nested records), another record of its class, or both; a field
// not given stays zero. Numbers are range-checked, byte arrays take bytes or a sequence of
// ints, addresses are ipaddress objects and strings (python/Addresses.h). Records compare
// and hash by value, str() is the text the CLI prints, and to_dict() gives the fields as
// they read. Bad input raises TypeError or ValueError naming the field.

// Gives the class `cls` the repr `repr`. pprint looks a class's __repr__ up in a dict, and
// the methods pybind11 makes are unhashable, so __repr__ is a plain Python function calling
// the bound _repr.
template <class Class, class Repr>
void defRepr(Class& cls, Repr&& repr) {
  cls.def("_repr", std::forward<Repr>(repr));
  cls.attr("__repr__") = py::eval("lambda self: self._repr()");
}

template <class T>
concept Record = VeskTapAgg::SchemaRecord<T>;
using Kest::FieldText;
using VeskTapAgg::forEachField;

template <class R>
constexpr bool isAddressMatch() {
  if constexpr (requires { R::form; }) {
    return R::form == Kest::RecordType::Form::valueMask && isAddress(std::get<0>(R::fields()).text);
  }
  return false;
}
// A value/mask match of addresses (Ip4Match, Ip6Match, MacMatch): it also takes a prefix.
template <class R>
concept AddressMatch = Record<R> && isAddressMatch<R>();

// The fields that can hold an address: an ip4 number or a byte array.
template <class F>
constexpr bool kCanBeAddress = std::is_array_v<F> || std::is_same_v<F, uint32_t>;

// An address field's bytes in network order, and back.
template <class F>
std::array<uint8_t, sizeof(F)> addressBytes(const F& field) {
  std::array<uint8_t, sizeof(F)> bytes;
  if constexpr (std::is_array_v<F>) {
    std::copy(std::begin(field), std::end(field), bytes.begin());
  } else {
    ip4Bytes(field, bytes);
  }
  return bytes;
}
template <class F>
void setAddressBytes(F& field, std::span<const uint8_t> bytes) {
  if constexpr (std::is_array_v<F>) {
    std::copy(bytes.begin(), bytes.end(), field);
  } else {
    field = ip4FromBytes(bytes);
  }
}

template <class R>
const std::string& recordName() {
  static const std::string name = R::typeName();
  return name;
}

std::string typeNameOf(py::handle value);
// The number `value` holds, checked against [0, max]; `where` names the field.
uint64_t numberFrom(py::handle value, uint64_t max, const std::string& where);
// Exactly `size` bytes from a bytes-like object or a sequence of ints.
void bytesFrom(py::handle value, uint8_t* out, size_t size, const std::string& where);

// Sets `target` from `value`; `text` is how the field reads (only addresses read otherwise
// than their C++ type says).
template <class F>
void assign(F& target, py::handle value, const std::string& where,
            FieldText text = FieldText::decimal);

// Sets the fields a mapping names, leaving the others as they are.
template <Record R>
void assignFields(R& record, const py::dict& fields, const std::string& where) {
  for (const auto& item : fields) {
    const py::handle value = item.second;
    const std::string fieldName = py::str(item.first);
    bool found = false;
    forEachField<R>([&](const auto& f) {
      if (f.shown() && fieldName == f.name) {
        assign(record.*f.member, value, where + "." + fieldName, f.text);
        found = true;
      }
    });
    if (!found) {
      std::string names;
      forEachField<R>([&](const auto& f) {
        if (f.shown()) names.append(names.empty() ? "" : ", ").append(f.name);
      });
      const std::string prefix = where == recordName<R>() ? "" : where + ": ";
      throw py::type_error(fmt::format("{}{} has no field '{}' (fields: {})", prefix,
                                       recordName<R>(), fieldName, names));
    }
  }
}

// Sets an address match from a prefix or address written whole; false when `value` is
// neither.
template <AddressMatch R>
bool matchFrom(R& target, py::handle value, const std::string& where) {
  constexpr auto fields = R::fields();
  using V = typename std::remove_cvref_t<decltype(std::get<0>(fields))>::Type;
  std::array<uint8_t, sizeof(V)> address, mask;
  if (!addressMatchFrom(value, std::get<0>(fields).text, address, mask, where)) return false;
  setAddressBytes(target.*std::get<0>(fields).member, address);
  setAddressBytes(target.*std::get<1>(fields).member, mask);
  return true;
}

// "a" or "an" before a record's name.
inline const char* articleFor(const std::string& name) {
  return std::string_view("AEIO").find(name.front()) == std::string_view::npos ? "a" : "an";
}

// What a field of record type R takes: briefly for errors, in full for docstrings.
template <Record R>
std::string recordForms(bool brief) {
  const std::string& name = recordName<R>();
  if constexpr (AddressMatch<R>) {
    return fmt::format("{} {}, a dict, or {}", articleFor(name), name,
                       addressMatchForms(std::get<0>(R::fields()).text, brief));
  } else {
    return fmt::format("{} {} or a dict", articleFor(name), name);
  }
}

template <class F>
void assign(F& target, py::handle value, const std::string& where, FieldText text) {
  if constexpr (kCanBeAddress<F>) {
    if (isAddress(text)) {
      std::array<uint8_t, sizeof(F)> bytes;
      addressFrom(value, text, bytes, where);
      setAddressBytes(target, bytes);
      return;
    }
  }
  if constexpr (std::is_unsigned_v<F>) {
    target = F(numberFrom(value, std::numeric_limits<F>::max(), where));
  } else if constexpr (std::is_array_v<F>) {
    static_assert(std::is_same_v<std::remove_extent_t<F>, uint8_t>);
    bytesFrom(value, target, std::extent_v<F>, where);
  } else {
    static_assert(Record<F>);
    if constexpr (AddressMatch<F>) {
      if (matchFrom(target, value, where)) return;
    }
    if (py::isinstance<F>(value)) {
      target = value.cast<F>();
    } else if (py::isinstance<py::dict>(value)) {
      F record{};
      assignFields(record, value.cast<py::dict>(), where);
      target = record;
    } else {
      throw py::type_error(
          fmt::format("{}: expected {}, got {}", where, recordForms<F>(true), typeNameOf(value)));
    }
  }
}

// The record `value` stands for (a record of class R or a dict); `where` names it in errors.
template <Record R>
R recordFrom(py::handle value, const std::string& where) {
  R record{};
  assign(record, value, where);
  return record;
}

// The value as Python reads it; `text` is how the field reads.
template <class F>
py::object toPython(const F& value, FieldText text = FieldText::decimal) {
  if constexpr (kCanBeAddress<F>) {
    if (isAddress(text)) return addressToPython(text, addressBytes(value));
  }
  if constexpr (std::is_unsigned_v<F>) {
    return py::int_(value);
  } else if constexpr (std::is_array_v<F>) {
    py::tuple bytes(std::extent_v<F>);
    for (size_t i = 0; i < std::extent_v<F>; ++i) bytes[i] = py::int_(value[i]);
    return bytes;
  } else {
    py::dict fields;
    forEachField<F>([&](const auto& f) {
      if (f.shown()) fields[f.name] = toPython(value.*f.member, f.text);
    });
    return fields;
  }
}

template <Record R>
std::string reprOf(const R& record) {
  std::string text = recordName<R>() + "(";
  bool first = true;
  forEachField<R>([&](const auto& f) {
    if (!f.shown()) return;
    text += (first ? "" : ", ") + std::string(f.name) + "=";
    using F = typename std::decay_t<decltype(f)>::Type;
    if constexpr (Record<F>) {
      text += reprOf(record.*f.member);
    } else {
      // An address as the str it is made from again, so that the repr needs no imports.
      const py::object value = toPython(record.*f.member, f.text);
      text += py::repr(isAddress(f.text) ? py::str(value) : value).template cast<std::string>();
    }
    first = false;
  });
  return text + ")";
}

// A field's docstring: what it reads as and what it takes.
template <class F>
std::string fieldDoc(FieldText text, std::span<const std::string_view> names) {
  if constexpr (Record<F>) {
    return fmt::format("{} {}, changed in place; takes {}.", articleFor(recordName<F>()),
                       recordName<F>(), recordForms<F>(false));
  } else if constexpr (std::is_array_v<F>) {
    if (isAddress(text)) return addressDoc(text);
    return fmt::format("{} bytes: reads as a tuple of ints; takes bytes or a sequence of ints.",
                       std::extent_v<F>);
  } else {
    if (isAddress(text)) return addressDoc(text);
    std::string doc = fmt::format("An int from 0 to {}", std::numeric_limits<F>::max());
    const bool bits = text == FieldText::flagNames;
    for (size_t i = 0; i < names.size(); ++i) {
      const char* separator = i > 0 ? ", " : bits ? "; bits: " : ": ";
      doc += fmt::format("{}{} {}", separator, bits ? uint64_t(1) << i : i, names[i]);
    }
    return doc + ".";
  }
}

template <Record R>
void bindRecord(py::module_& m);

template <Record R>
void bindField(py::class_<R>& c, const auto& f) {
  using F = typename std::decay_t<decltype(f)>::Type;
  auto member = f.member;
  const FieldText text = f.text;
  auto set = [member, text, name = std::string(f.name)](R& r, py::handle value) {
    assign(r.*member, value, recordName<R>() + "." + name, text);
  };
  const std::string doc = fieldDoc<F>(f.text, f.names);
  if constexpr (Record<F>) {
    c.def_property(f.name,
                   py::cpp_function([member](R& r) -> F& { return r.*member; },
                                    py::return_value_policy::reference_internal),
                   py::cpp_function(set), doc.c_str());
  } else {
    c.def_property(
        f.name, [member, text](const R& r) { return toPython(r.*member, text); }, set, doc.c_str());
  }
}

// R's class docstring.
template <Record R>
std::string recordDoc() {
  std::string fields;
  forEachField<R>([&](const auto& f) {
    if (f.shown()) fields.append(fields.empty() ? "" : ", ").append(f.name);
  });
  std::string article = articleFor(recordName<R>());
  article[0] = 'A';
  std::string doc = fmt::format(
      "{2} {0} record: {1}.\n"
      "Made from keyword arguments, a dict (nested dicts for nested records), another record\n"
      "of its class, or a record or dict and keywords; a field not given is zero. Compares and\n"
      "hashes by value; str() is the CLI's text, repr() makes it again.",
      recordName<R>(), fields, article);
  if constexpr (AddressMatch<R>) {
    doc += fmt::format("\nAlso made from {}.", addressMatchForms(std::get<0>(R::fields()).text));
  }
  return doc;
}

// Makes R's Python class (and, first, those of the records it holds) unless it exists.
template <Record R>
void bindRecord(py::module_& m) {
  if (py::detail::get_type_info(typeid(R))) return;
  forEachField<R>([&](const auto& f) {
    using F = typename std::decay_t<decltype(f)>::Type;
    if constexpr (Record<F>) bindRecord<F>(m);
  });
  py::class_<R> c(m, recordName<R>().c_str(), recordDoc<R>().c_str());
  c.def(py::init([](const py::args& args, const py::kwargs& kwargs) {
          if (args.size() > 1) {
            throw py::type_error(fmt::format("{}() takes at most one record or dict, got {}",
                                             recordName<R>(), args.size()));
          }
          R record = args.empty() ? R{} : recordFrom<R>(args[0], recordName<R>());
          assignFields(record, kwargs, recordName<R>());
          return record;
        }),
        "Zero, or the record or dict given, with the fields named as keywords set.");
  py::list names;
  forEachField<R>([&](const auto& f) {
    if (!f.shown()) return;
    names.append(f.name);
    bindField(c, f);
  });
  c.attr("_fields") = py::tuple(names);
  c.def(
      "to_dict", [](const R& r) { return toPython(r); },
      "The fields as they read, nested records as dicts; the record's class takes it back.");
  c.def("__eq__", [](const R& a, py::handle b) -> py::object {
    if (!py::isinstance<R>(b)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
    return py::bool_(a == b.cast<R>());
  });
  c.def("__hash__", [](const R& r) { return r.hash(0); });
  c.def("__str__", [](const R& r) { return fmt::format("{}", r); });
  defRepr(c, [](const R& r) { return reprOf(r); });
  c.def("__copy__", [](const R& r) { return r; });
  c.def("__deepcopy__", [](const R& r, py::handle) { return r; });
}

}  // namespace VeskPy
