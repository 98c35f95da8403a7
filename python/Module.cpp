// The Python module vesktap: the records of the ten table types as classes, a read-only
// view of an agent's shared memory (AgentMemory, from vesktap.open()) and the tables
// themselves, made and driven in this process (getIntf, makeSwTable, runUntilIdle).
// Everything runs on the calling thread under the GIL; the library is single-threaded.

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

void bindRecords(py::module_& m) {
  VeskTool::forEachTable([&]<class Traits>(size_t) {
    bindRecord<typename Traits::EntryKey>(m);
    bindRecord<typename Traits::Entry>(m);
  });
}

}  // namespace VeskPy

PYBIND11_MODULE(vesktap, m) {
  namespace py = pybind11;
  m.doc() = "VeskTap software tables: read an agent's shared memory, or drive tables in-process";
  py::register_exception<VeskPy::UnknownTableError>(m, "UnknownTableError", PyExc_LookupError);
  py::register_exception<VeskPy::UnknownUnitError>(m, "UnknownUnitError", PyExc_LookupError);
  py::register_exception<VeskTool::NoAgentMemoryError>(m, "NoAgentMemoryError",
                                                       PyExc_FileNotFoundError);
  py::register_exception<Nimbo::InvalidArgumentException>(m, "InvalidArgumentError",
                                                          PyExc_ValueError);
  py::register_exception<Nimbo::CapacityExceededException>(m, "CapacityExceededError",
                                                           PyExc_RuntimeError);
  py::register_exception<Nimbo::SystemException>(m, "SharedMemoryError", PyExc_OSError);
  m.def("tables", &VeskPy::tableNames, "The table types, in catalogue order.");
  VeskPy::bindRecords(m);
  VeskPy::bindAgentMemory(m);
  VeskPy::bindTables(m);
}
