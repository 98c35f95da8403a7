#pragma once

#include <cstdlib>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

#include <pybind11/pybind11.h>

namespace VeskPy {

namespace py = pybind11;

// A table type the catalogue does not name (Python: vesktap.UnknownTableError, a LookupError).
class UnknownTableError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A unit the table type has nothing of (Python: vesktap.UnknownUnitError, a LookupError).
class UnknownUnitError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The catalogue index of the table type `name`; UnknownTableError listing the names if none.
size_t tableIndexOrThrow(const std::string& name);
// The table types' names, in catalogue order.
py::list tableNames();
// A unit number from Python: an int from 0 to 65535, else TypeError or ValueError.
uint16_t unitFrom(py::handle value);

// Points the process's shared-memory root ($VESK_SHM_ROOT, which every mount reads) at
// `root` for the life of the scope, then puts back what was there.
class ShmRootScope {
 public:
  explicit ShmRootScope(const std::string& root) {
    if (const char* old = std::getenv("VESK_SHM_ROOT")) saved_ = old;
    ::setenv("VESK_SHM_ROOT", root.c_str(), 1);
  }
  ~ShmRootScope() {
    if (saved_) {
      ::setenv("VESK_SHM_ROOT", saved_->c_str(), 1);
    } else {
      ::unsetenv("VESK_SHM_ROOT");
    }
  }
  ShmRootScope(const ShmRootScope&) = delete;
  ShmRootScope& operator=(const ShmRootScope&) = delete;

 private:
  std::optional<std::string> saved_;
};

// The shared-memory roots this process has opened read-only. A reader's mounts stay in the
// process, so tables made in-process at such a root would find read-only collections: the
// in-process side refuses those roots.
std::set<std::string>& readOnlyRoots();

// The parts of the module, in the order they must be made: records, then what uses them.
void bindRecords(py::module_& m);
void bindAgentMemory(py::module_& m);
void bindTables(py::module_& m);

// The snake_case spelling of a camelCase name: entryWrite -> entry_write,
// getTableEntries_py -> get_table_entries_py.
std::string snakeCase(std::string_view name);
// Gives each public camelCase function or property of `scope` (a class or module) its
// snake_case spelling beside it: the same object under a second name.
void aliasSnakeCase(py::handle scope);
// aliasSnakeCase over the module and every class it defines, nested ones included, except
// the records (their fields are the schema's names, as dicts and keywords spell them). Run
// once, after everything is bound, so that every part of the module gets its aliases.
void addSnakeCaseAliases(py::module_& m);

}  // namespace VeskPy
