#include <optional>

#include <pybind11/stl.h>

#include "KestShard/Directory.h"
#include "python/Module.h"
#include "python/Records.h"
#include "tools/core/AgentMemory.h"
#include "tools/core/MemoryJson.h"
#include "tools/core/TableDispatch.h"

namespace VeskPy {
namespace {

// One live entry of a unit's configuration, and one line of a simulated TCAM, as Python
// sees them: key and entry are records of the table type's classes.
struct PyLiveEntry {
  py::object key, entry;
  uint64_t version = 0;
  bool inHardware = false;
};
struct PyTcamLine {
  py::object key, entry;
  uint64_t version = 0;
};

// vesktap.AgentMemory: VeskTool::AgentMemory at a root fixed when opened, with tables named
// as strings and units checked. Each call mounts at that root whatever the environment says
// meanwhile.
class PyAgentMemory {
 public:
  explicit PyAgentMemory(std::string root) : root_(std::move(root)) {
    ShmRootScope scope(root_);
    memory_.emplace();
    readOnlyRoots().insert(root_);
  }

  const std::string& root() const noexcept { return root_; }

  // Runs `read.template operator()<Traits>(memory)` for the table type named `table`.
  template <class Read>
  py::object read(const std::string& table, Read&& reader) const {
    const size_t index = tableIndexOrThrow(table);
    ShmRootScope scope(root_);
    return VeskTool::withTable(
        index, [&]<class Traits>() { return reader.template operator()<Traits>(*memory_); });
  }

  // The unit's contents; UnknownUnitError when the table type has no configuration there.
  template <class Traits>
  static VeskTool::UnitContents<Traits> unitOrThrow(const VeskTool::AgentMemory& memory,
                                                    uint16_t unit, bool withEntries) {
    auto contents = memory.unit<Traits>(Asic::UnitId(unit), withEntries);
    if (!contents) {
      std::string units;
      for (Asic::UnitId u : memory.units<Traits>())
        units.append(units.empty() ? "" : ", ").append(std::to_string(u.value()));
      throw UnknownUnitError(fmt::format("{} has no unit {} (units: {})", Traits::tableName, unit,
                                         units.empty() ? "none" : units));
    }
    return std::move(*contents);
  }

 private:
  std::string root_;
  std::optional<VeskTool::AgentMemory> memory_;
};

template <class Traits>
std::pair<py::object, py::object> keyAndEntry(const typename Traits::LogEntry& logEntry) {
  return {py::cast(logEntry.key()), py::cast(VeskTapAgg::entryOf(logEntry))};
}

// A JSON value as Python's json module reads it.
py::object fromJson(const VeskTool::Json& value) {
  return py::module_::import("json").attr("loads")(value.dump());
}

py::object versionOrNone(const std::optional<Asic::LogVersion>& v) {
  return v ? py::object(py::int_(v->value())) : py::none();
}

}  // namespace

void bindAgentMemory(py::module_& m) {
  py::class_<PyLiveEntry> liveEntry(m, "LiveEntry", "A live entry of a unit's configuration.");
  liveEntry.def_readonly("key", &PyLiveEntry::key, "the entry's key, a record of its table type")
      .def_readonly("entry", &PyLiveEntry::entry, "the entry as last written")
      .def_readonly("version", &PyLiveEntry::version, "the version of the change that wrote it")
      .def_readonly("inHardware", &PyLiveEntry::inHardware,
                    "whether the simulated TCAM holds this entry");
  defRepr(liveEntry, [](const PyLiveEntry& e) {
    return fmt::format("LiveEntry(v{} {}{})", e.version, py::str(e.entry).cast<std::string>(),
                       e.inHardware ? "" : ", not in TCAM");
  });
  py::class_<PyTcamLine> tcamLine(m, "TcamLine",
                                  "A line of a simulated TCAM as the hardware side programmed it.");
  tcamLine.def_readonly("key", &PyTcamLine::key, "the line's key, a record of its table type")
      .def_readonly("entry", &PyTcamLine::entry, "the entry the line holds")
      .def_readonly("version", &PyTcamLine::version,
                    "the version of the change that programmed it");
  defRepr(tcamLine, [](const PyTcamLine& l) {
    return fmt::format("TcamLine(v{} {})", l.version, py::str(l.entry).cast<std::string>());
  });

  py::class_<PyAgentMemory>(
      m, "AgentMemory",
      "The shared memory of an agent and its hardware side, read without changing it.")
      .def_property_readonly("root", &PyAgentMemory::root, "The shared-memory root it reads.")
      .def(
          "tables", [](const PyAgentMemory&) { return tableNames(); }, "The table types.")
      .def(
          "units",
          [](const PyAgentMemory& self, const std::string& table) {
            return self.read(table, []<class Traits>(const VeskTool::AgentMemory& memory) {
              py::list units;
              for (Asic::UnitId u : memory.units<Traits>()) units.append(u.value());
              return py::object(units);
            });
          },
          py::arg("table"), "The units that have a configuration of the table type.")
      .def(
          "changeLog",
          [](const PyAgentMemory& self, const std::string& table) {
            return self.read(table, []<class Traits>(const VeskTool::AgentMemory& memory) {
              return fromJson(VeskTool::changeLogJson<Traits>(memory));
            });
          },
          py::arg("table"),
          "The table type's change log as a dict (as `vesktap show --json` has it), or None "
          "when it has none.")
      .def(
          "tableVersion",
          [](const PyAgentMemory& self, const std::string& table) {
            return self.read(table,
                             []<class Traits>(const VeskTool::AgentMemory& memory) -> py::object {
                               const auto log = memory.changeLog<Traits>();
                               return log ? py::object(py::int_(log->tableVersion)) : py::none();
                             });
          },
          py::arg("table"), "The newest version committed to the change log, or None without one.")
      .def(
          "hardwareVersion",
          [](const PyAgentMemory& self, const std::string& table) {
            return self.read(table, []<class Traits>(const VeskTool::AgentMemory& memory) {
              return versionOrNone(memory.hardwareTaken(Traits::tableId));
            });
          },
          py::arg("table"), "The version the hardware side has taken, or None.")
      .def(
          "unitSummary",
          [](const PyAgentMemory& self, const std::string& table, py::handle unit) {
            const uint16_t u = unitFrom(unit);
            return self.read(table, [u]<class Traits>(const VeskTool::AgentMemory& memory) {
              PyAgentMemory::unitOrThrow<Traits>(memory, u, false);
              return fromJson(VeskTool::unitJson<Traits>(memory, Asic::UnitId(u), false));
            });
          },
          py::arg("table"), py::arg("unit"),
          "Counts of the unit's configuration and its TCAM as a dict (as `vesktap show --json` "
          "has it).")
      .def(
          "entries",
          [](const PyAgentMemory& self, const std::string& table, py::handle unit) {
            const uint16_t u = unitFrom(unit);
            return self.read(
                table, [u]<class Traits>(const VeskTool::AgentMemory& memory) -> py::object {
                  py::list list;
                  for (const auto& e :
                       PyAgentMemory::unitOrThrow<Traits>(memory, u, true).entries) {
                    auto [key, entry] = keyAndEntry<Traits>(e.logEntry);
                    list.append(PyLiveEntry{key, entry, e.version.value(), e.inHardware});
                  }
                  return list;
                });
          },
          py::arg("table"), py::arg("unit"), "The unit's live entries, ordered by key.")
      .def(
          "tcamEntries",
          [](const PyAgentMemory& self, const std::string& table, py::handle unit) {
            const uint16_t u = unitFrom(unit);
            return self.read(table,
                             [u]<class Traits>(const VeskTool::AgentMemory& memory) -> py::object {
                               PyAgentMemory::unitOrThrow<Traits>(memory, u, false);
                               const auto lines = memory.tcamLines<Traits>(Asic::UnitId(u));
                               if (!lines) return py::none();
                               py::list list;
                               for (const auto& l : *lines) {
                                 auto [key, entry] = keyAndEntry<Traits>(l.logEntry);
                                 list.append(PyTcamLine{key, entry, l.version.value()});
                               }
                               return list;
                             });
          },
          py::arg("table"), py::arg("unit"),
          "The lines of the unit's simulated TCAM, or None when it has none.");

  m.def(
      "open",
      [](py::object root) {
        const py::module_ os = py::module_::import("os");
        const std::string path =
            root.is_none()
                ? std::string(KestShard::Directory::rootPath())
                : os.attr("path").attr("abspath")(os.attr("fspath")(root)).cast<std::string>();
        return PyAgentMemory(path);
      },
      py::arg("root") = py::none(),
      "Opens the shared memory of an agent read-only; root defaults to $VESK_SHM_ROOT, else "
      "/dev/shm/vesk.");
}

}  // namespace VeskPy
