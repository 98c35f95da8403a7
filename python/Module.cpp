// The Python module vesktap: the records of the ten table types as classes, a read-only
// view of an agent's shared memory (AgentMemory, from vesktap.open()) and the tables
// themselves, made and driven in this process (getIntf, makeSwTable, runUntilIdle). Every
// camelCase name has its snake_case alias. Everything runs on the calling thread under the
// GIL; the library is single-threaded.

#include <cctype>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>

#include "Nimbo/Exception.h"
#include "python/Module.h"
#include "python/Records.h"
#include "tools/core/AgentMemory.h"
#include "tools/core/TableDispatch.h"

namespace VeskPy {

size_t tableIndexOrThrow(const std::string& name) {
  const size_t index = VeskTool::tableIndexOf(name);
  if (index == VeskTool::kTableCount) {
    throw UnknownTableError(
        fmt::format("unknown table '{}' (tables: {})", name, VeskTool::tableNameList()));
  }
  return index;
}

py::list tableNames() {
  py::list names;
  for (const auto& row : VeskTapAgg::kCatalogue) names.append(std::string(row.name));
  return names;
}

uint16_t unitFrom(py::handle value) { return uint16_t(numberFrom(value, UINT16_MAX, "unit")); }

std::set<std::string>& readOnlyRoots() {
  static std::set<std::string> roots;
  return roots;
}

std::string snakeCase(std::string_view name) {
  const auto is = [&](size_t i, int (*test)(int)) {
    return i < name.size() && test(static_cast<unsigned char>(name[i])) != 0;
  };
  std::string snake;
  for (size_t i = 0; i < name.size(); ++i) {
    const bool wordStarts =
        i > 0 && is(i, std::isupper) &&
        (is(i - 1, std::islower) || is(i - 1, std::isdigit) || is(i + 1, std::islower));
    if (wordStarts && name[i - 1] != '_') snake += '_';
    snake += char(std::tolower(static_cast<unsigned char>(name[i])));
  }
  return snake;
}

void aliasSnakeCase(py::handle scope) {
  std::vector<std::pair<std::string, py::object>> aliases;
  for (const py::handle item : scope.attr("__dict__").attr("items")()) {
    const std::string name = py::str(item[py::int_(0)]);
    const py::object value = item[py::int_(1)];
    if (name.starts_with('_') || py::isinstance<py::type>(value)) continue;
    std::string snake = snakeCase(name);
    if (snake != name && !py::hasattr(scope, snake.c_str())) aliases.emplace_back(snake, value);
  }
  for (const auto& [snake, value] : aliases) py::setattr(scope, snake.c_str(), value);
}

void addSnakeCaseAliases(py::module_& m) {
  aliasSnakeCase(m);
  std::unordered_set<PyObject*> seen;
  const auto visit = [&](const auto& self, py::handle scope) -> void {
    for (const py::handle value : py::list(scope.attr("__dict__").attr("values")())) {
      if (!py::isinstance<py::type>(value) || !seen.insert(value.ptr()).second) continue;
      if (py::str(value.attr("__module__")).cast<std::string>() != "vesktap") continue;
      if (!py::hasattr(value, "_fields")) aliasSnakeCase(value);
      self(self, value);
    }
  };
  visit(visit, m);
}

void bindRecords(py::module_& m) {
  VeskTool::forEachTable([&]<class Traits>(size_t) {
    bindRecord<typename Traits::EntryKey>(m);
    bindRecord<typename Traits::Entry>(m);
  });
}

}  // namespace VeskPy

namespace {

// Makes the C++ exception E the Python exception `name`, a subclass of `base`.
template <class E>
void registerError(pybind11::module_& m, const char* name, PyObject* base, const char* doc) {
  pybind11::register_exception<E>(m, name, base).attr("__doc__") = doc;
}

}  // namespace

PYBIND11_MODULE(vesktap, m) {
  namespace py = pybind11;
  m.doc() = "VeskTap software tables: read an agent's shared memory, or drive tables in-process";
  m.attr("__version__") = VESK_VERSION;
  registerError<VeskPy::UnknownTableError>(
      m, "UnknownTableError", PyExc_LookupError,
      "A table type the catalogue does not name; the message lists the names.");
  registerError<VeskPy::UnknownUnitError>(
      m, "UnknownUnitError", PyExc_LookupError,
      "A unit the table type has no configuration on; the message lists the units.");
  registerError<VeskTool::NoAgentMemoryError>(m, "NoAgentMemoryError", PyExc_FileNotFoundError,
                                              "No agent's shared memory at the root given.");
  registerError<Nimbo::InvalidArgumentException>(m, "InvalidArgumentError", PyExc_ValueError,
                                                 "An argument outside what the operation accepts.");
  registerError<Nimbo::CapacityExceededException>(
      m, "CapacityExceededError", PyExc_RuntimeError,
      "A bounded collection is full; the refused record was not stored.");
  registerError<Nimbo::SystemException>(
      m, "SharedMemoryError", PyExc_OSError,
      "A system call failed; the message names the call and the object.");
  m.def("tables", &VeskPy::tableNames, "The table types, in catalogue order.");
  VeskPy::bindRecords(m);
  VeskPy::bindAgentMemory(m);
  VeskPy::bindTables(m);
  VeskPy::addSnakeCaseAliases(m);
}
