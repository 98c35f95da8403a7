#pragma once

#include <limits>
#include <string>
#include <type_traits>

#include <fmt/format.h>
#include <pybind11/eval.h>
#include <pybind11/pybind11.h>

#include "types/TableTypes.h"

namespace VeskPy {

namespace py = pybind11;

// Records as Python classes, written once over the field lists: every record the module
// shows is a class of its own name ("DefaultFwdTcamEntryEntryKey", "U32Match",
// "TcamAction") whose fields read and write by name, nested records in place
// (key.ingressPort.mask = 0xff changes the key). A record is made from keyword arguments, a
// dict (nested dicts for nested records), another record of its class, or both; a field
// not given stays zero. Numbers are range-checked, byte arrays take bytes or a sequence of
// ints. Records compare and hash by value, str() is the text the CLI prints, and to_dict()
// gives plain Python values. Bad input raises TypeError or ValueError naming the field.

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
using VeskTapAgg::forEachField;

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

template <class F>
void assign(F& target, py::handle value, const std::string& where);

// Sets the fields a mapping names, leaving the others as they are.
template <Record R>
void assignFields(R& record, const py::dict& fields, const std::string& where) {
  for (const auto& item : fields) {
    const py::handle value = item.second;
    const std::string fieldName = py::str(item.first);
    bool found = false;
    forEachField<R>([&](const auto& f) {
      if (f.shown() && fieldName == f.name) {
        assign(record.*f.member, value, where + "." + fieldName);
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

template <class F>
void assign(F& target, py::handle value, const std::string& where) {
  if constexpr (std::is_unsigned_v<F>) {
    target = F(numberFrom(value, std::numeric_limits<F>::max(), where));
  } else if constexpr (std::is_array_v<F>) {
    static_assert(std::is_same_v<std::remove_extent_t<F>, uint8_t>);
    bytesFrom(value, target, std::extent_v<F>, where);
  } else {
    static_assert(Record<F>);
    if (py::isinstance<F>(value)) {
      target = value.cast<F>();
    } else if (py::isinstance<py::dict>(value)) {
      F record{};
      assignFields(record, value.cast<py::dict>(), where);
      target = record;
    } else {
      throw py::type_error(fmt::format("{}: expected a {} or a dict, got {}", where,
                                       recordName<F>(), typeNameOf(value)));
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

template <class F>
py::object toPython(const F& value) {
  if constexpr (std::is_unsigned_v<F>) {
    return py::int_(value);
  } else if constexpr (std::is_array_v<F>) {
    py::tuple bytes(std::extent_v<F>);
    for (size_t i = 0; i < std::extent_v<F>; ++i) bytes[i] = py::int_(value[i]);
    return bytes;
  } else {
    py::dict fields;
    forEachField<F>([&](const auto& f) {
      if (f.shown()) fields[f.name] = toPython(value.*f.member);
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
      text += py::repr(toPython(record.*f.member)).template cast<std::string>();
    }
    first = false;
  });
  return text + ")";
}

template <Record R>
void bindRecord(py::module_& m);

template <Record R>
void bindField(py::class_<R>& c, const auto& f) {
  using F = typename std::decay_t<decltype(f)>::Type;
  auto member = f.member;
  auto set = [member, name = std::string(f.name)](R& r, py::handle value) {
    assign(r.*member, value, recordName<R>() + "." + name);
  };
  if constexpr (Record<F>) {
    c.def_property(f.name,
                   py::cpp_function([member](R& r) -> F& { return r.*member; },
                                    py::return_value_policy::reference_internal),
                   py::cpp_function(set));
  } else {
    c.def_property(
        f.name, [member](const R& r) { return toPython(r.*member); }, set);
  }
}

// Makes R's Python class (and, first, those of the records it holds) unless it exists.
template <Record R>
void bindRecord(py::module_& m) {
  if (py::detail::get_type_info(typeid(R))) return;
  forEachField<R>([&](const auto& f) {
    using F = typename std::decay_t<decltype(f)>::Type;
    if constexpr (Record<F>) bindRecord<F>(m);
  });
  py::class_<R> c(m, recordName<R>().c_str());
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
      "to_dict", [](const R& r) { return toPython(r); }, "The fields as plain Python values.");
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
