#include "python/Records.h"

namespace VeskPy {

std::string typeNameOf(py::handle value) {
  return py::str(py::type::handle_of(value).attr("__name__"));
}

uint64_t numberFrom(py::handle value, uint64_t max, const std::string& where) {
  if (!py::isinstance<py::int_>(value) || py::isinstance<py::bool_>(value)) {
    throw py::type_error(fmt::format("{}: expected an int, got {}", where, typeNameOf(value)));
  }
  // Unsigned conversion covers 0 to 2**64-1; it raises OverflowError for anything
  // negative or larger, which becomes the one range error below.
  const unsigned long long number = PyLong_AsUnsignedLongLong(value.ptr());
  const bool overflow = number == static_cast<unsigned long long>(-1) && PyErr_Occurred();
  if (overflow) PyErr_Clear();
  if (overflow || number > max) {
    throw py::value_error(fmt::format("{}: {} is out of range (0 to {})", where,
                                      py::repr(value).cast<std::string>(), max));
  }
  return uint64_t(number);
}

void bytesFrom(py::handle value, uint8_t* out, size_t size, const std::string& where) {
  if (py::isinstance<py::bytes>(value) || py::isinstance<py::bytearray>(value)) {
    const std::string bytes = value.cast<std::string>();
    if (bytes.size() != size) {
      throw py::value_error(
          fmt::format("{}: expected {} bytes, got {}", where, size, bytes.size()));
    }
    std::copy(bytes.begin(), bytes.end(), out);
    return;
  }
  if (!py::isinstance<py::sequence>(value) || py::isinstance<py::str>(value)) {
    throw py::type_error(
        fmt::format("{}: expected bytes or a sequence of ints, got {}", where, typeNameOf(value)));
  }
  const py::sequence items = value.cast<py::sequence>();
  if (items.size() != size) {
    throw py::value_error(fmt::format("{}: expected {} bytes, got {}", where, size, items.size()));
  }
  for (size_t i = 0; i < size; ++i) {
    out[i] = uint8_t(numberFrom(items[i], UINT8_MAX, fmt::format("{}[{}]", where, i)));
  }
}

}  // namespace VeskPy
