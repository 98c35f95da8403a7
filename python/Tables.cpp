#include <fmt/format.h>

#include "Asic/OrderedTableInterface.h"
#include "KestShard/Directory.h"
#include "VeskTapAgg/Interface.h"
#include "python/Module.h"
#include "python/Records.h"
#include "tools/core/TableDispatch.h"

namespace VeskPy {
namespace {

// The agent this process is when it drives tables itself: its state database and
// ordered-table interface, made on first use at the shared-memory root of that moment and
// kept for the life of the process, as are the table interfaces made through it (the
// framework keeps one interface per type and process). Every call that may mount runs at
// that root. Single-threaded, under the GIL.
class ProcessAgent {
 public:
  static ProcessAgent& get() {
    static ProcessAgent* agent = new ProcessAgent();  // outlives the interpreter's teardown
    return *agent;
  }

  const std::string& root() const noexcept { return root_; }

  template <class Traits>
  Nimbo::Ptr<VeskTapAgg::TableInterface<Traits>> intf() {
    ShmRootScope scope(root_);
    return VeskTapAgg::TableInterface<Traits>::getIntf(orderedTableIntf_);
  }

  size_t runUntilIdle() {
    const auto group =
        VeskTapAgg::TableConstants<VeskTapAgg::DefaultFwdTcamEntryTraits>::canonicalGroupName();
    if (!orderedTableIntf_->groupInterfaceHas(group)) {
      throw std::runtime_error("no table interface made yet: call getIntf first");
    }
    return orderedTableIntf_->groupInterface(group)->groupResolver()->runUntilIdle();
  }

 private:
  ProcessAgent() : root_(KestShard::Directory::rootPath()) {
    if (readOnlyRoots().contains(root_)) {
      throw std::runtime_error(fmt::format(
          "{} is open read-only in this process; make tables at another VESK_SHM_ROOT", root_));
    }
    em_ = Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true);
    orderedTableIntf_ = Nimbo::make<Asic::OrderedTableInterface>(em_);
  }

  std::string root_;
  Nimbo::Ptr<Cairn::EntityManager> em_;
  Nimbo::Ptr<Asic::OrderedTableInterface> orderedTableIntf_;
};

// What a client holds for one change: its state and, once committed, its log version.
struct PyEntryHandle {
  Nimbo::Ptr<const Asic::OrderedSwTable::EntryHandle> handle;
};

// The Python objects of one table type: its interface, the software table of a unit, a
// walk over the table's entries and a snapshot of them. Each holds what it wraps by
// reference count, so a walk or a snapshot keeps its table alive. The table and the
// snapshot are mappings from key to entry: `in`, len(), [key], get() and iteration all
// speak of keys, as a dict's do.
template <class Traits>
struct PyInterface {
  Nimbo::Ptr<VeskTapAgg::TableInterface<Traits>> intf;
};
template <class Traits>
struct PyTable {
  Nimbo::Ptr<VeskTapAgg::TableSwTable<Traits>> table;
};
// What a walk yields: the entries, their keys, or (key, entry) pairs.
enum class Yield : uint8_t { entries, keys, items };
template <class Traits>
struct PyEntryIterator {
  Nimbo::Ptr<VeskTapAgg::TableSwTable<Traits>> table;
  typename VeskTapAgg::TableSwTable<Traits>::EntryIteratorConst it;
  Yield yield = Yield::entries;
};
template <class Traits>
struct PySnapshot {
  Nimbo::Ptr<typename VeskTapAgg::TableSwTable<Traits>::SwTableEntries_py> entries;
};

template <class Traits>
typename Traits::EntryKey keyFrom(py::handle value) {
  return recordFrom<typename Traits::EntryKey>(value, "key");
}

// The entry to write under `key`: a dict without "entryKey" takes the key; like the table
// itself, an entry that names another key is stored under `key`.
template <class Traits>
typename Traits::Entry entryFor(const typename Traits::EntryKey& key, py::handle value) {
  typename Traits::Entry entry{};
  entry.entryKey = key;
  if (py::isinstance<py::dict>(value)) {
    assignFields(entry, value.cast<py::dict>(), "entry");
  } else {
    assign(entry, value, "entry");
  }
  return entry;
}

// The KeyError of a read of a key that `where` (a "table" or a "snapshot") has no entry for.
template <class Key>
[[noreturn]] void throwNoEntry(const std::string& where, const char* what, const Key& key) {
  throw py::key_error(fmt::format("{} has no entry for {}; check `key in {}` first or use get(key)",
                                  where, key, what));
}

template <class Traits>
std::string whereOf(const PyTable<Traits>& t) {
  return fmt::format("{} unit {}", Traits::tableName, t.table->unitId());
}

template <class Traits>
typename Traits::Entry entryOrThrow(const PyTable<Traits>& t, py::handle key) {
  const auto k = keyFrom<Traits>(key);
  if (!t.table->entryHas(k)) throwNoEntry(whereOf(t), "table", k);
  return t.table->entryRead(k);
}

template <class Traits>
PyEntryIterator<Traits> walk(const PyTable<Traits>& t, py::handle from, Yield yield) {
  auto it = from.is_none() ? t.table->entryIteratorConst()
                           : t.table->entryIteratorConst(keyFrom<Traits>(from));
  return PyEntryIterator<Traits>{t.table, std::move(it), yield};
}

template <class Traits>
void bindWalk(py::class_<PyTable<Traits>>& table) {
  using I = PyEntryIterator<Traits>;
  py::class_<I>(table, "EntryIteratorConst",
                "A walk over the table's entries, pending writes first, then committed ones.\n"
                "Yields entries (entryIteratorConst(), values()), keys (iter(table), keys()) or\n"
                "(key, entry) pairs (items()), as the call that made it says.")
      .def(
          "__iter__", [](py::object self) { return self; }, "The walk itself.")
      .def(
          "__next__",
          [](I& i) -> py::object {
            if (i.it.isEnd()) throw py::stop_iteration();
            auto entry = *i.it;
            ++i.it;
            switch (i.yield) {
              case Yield::keys:
                return py::cast(entry.key());
              case Yield::items:
                return py::make_tuple(entry.key(), entry);
              default:
                return py::cast(entry);
            }
          },
          "The next entry, key or pair; StopIteration at the end.");
}

template <class Traits>
void bindSnapshot(py::class_<PyTable<Traits>>& table) {
  using S = PySnapshot<Traits>;
  const auto entryOf = [](const S& s, py::handle key) {
    const auto k = keyFrom<Traits>(key);
    if (!s.entries->tableEntriesHas(k))
      throwNoEntry(std::string(Traits::tableName) + " snapshot", "snapshot", k);
    return s.entries->tableEntries(k);
  };
  const auto list = [](Yield yield) {
    return [yield](const S& s) {
      py::list list;
      for (const auto& [key, entry] : s.entries->tableEntriesColl()) {
        list.append(yield == Yield::keys    ? py::cast(key)
                    : yield == Yield::items ? py::object(py::make_tuple(key, entry))
                                            : py::cast(entry));
      }
      return list;
    };
  };
  py::class_<S> snapshot(
      table, "SwTableEntries_py",
      "A copy of every entry of the table, by key; later changes of the table do not reach it,\n"
      "and changes made to it do not reach the table. A mapping from key to entry, in no\n"
      "particular order: iterating it yields the keys.");
  snapshot
      .def(
          "__len__", [](const S& s) { return s.entries->tableEntriesSize(); },
          "The number of entries.")
      .def(
          "__contains__",
          [](const S& s, py::handle key) {
            return s.entries->tableEntriesHas(keyFrom<Traits>(key));
          },
          py::arg("key"), "Whether the snapshot has an entry for the key.")
      .def("__getitem__", entryOf, py::arg("key"),
           "The key's entry; KeyError naming the key when there is none.")
      .def(
          "get",
          [](const S& s, py::handle key, py::object otherwise) {
            const auto k = keyFrom<Traits>(key);
            return s.entries->tableEntriesHas(k) ? py::cast(s.entries->tableEntries(k)) : otherwise;
          },
          py::arg("key"), py::arg("default") = py::none(),
          "The key's entry, or `default` when there is none.")
      .def("tableEntries", entryOf, py::arg("key"),
           "The key's entry; KeyError naming the key when there is none.")
      .def(
          "tableEntriesHas",
          [](const S& s, py::handle key) {
            return s.entries->tableEntriesHas(keyFrom<Traits>(key));
          },
          py::arg("key"), "Whether the snapshot has an entry for the key.")
      .def(
          "tableEntriesIs",
          [](S& s, py::handle entry) {
            s.entries->tableEntriesIs(recordFrom<typename Traits::Entry>(entry, "entry"));
          },
          py::arg("entry"), "Stores the entry under its own key, replacing what is there.")
      .def(
          "tableEntriesDel",
          [](S& s, py::handle key) -> py::object {
            const auto k = keyFrom<Traits>(key);
            if (!s.entries->tableEntriesHas(k)) return py::none();
            return py::cast(s.entries->tableEntriesDel(k));
          },
          py::arg("key"), "Removes the key; returns the removed entry, or None when it was absent.")
      .def(
          "tableEntriesDelAll", [](S& s) { s.entries->tableEntriesDelAll(); },
          "Empties the snapshot.")
      .def(
          "__setitem__",
          [](S& s, py::handle key, py::handle entry) {
            const auto k = keyFrom<Traits>(key);
            auto stored = entryFor<Traits>(k, entry);
            stored.entryKey = k;  // under the key it is set at
            s.entries->tableEntriesIs(stored);
          },
          py::arg("key"), py::arg("entry"),
          "Stores the entry under the key, whatever key the entry names.")
      .def(
          "__delitem__",
          [](S& s, py::handle key) {
            const auto k = keyFrom<Traits>(key);
            if (!s.entries->tableEntriesHas(k))
              throwNoEntry(std::string(Traits::tableName) + " snapshot", "snapshot", k);
            s.entries->tableEntriesDel(k);
          },
          py::arg("key"), "Removes the key; KeyError naming the key when it is absent.")
      .def("keys", list(Yield::keys), "The keys, as a list.")
      .def("values", list(Yield::entries), "The entries, as a list.")
      .def("items", list(Yield::items), "The (key, entry) pairs, as a list.")
      .def(
          "__iter__", [](py::object s) { return py::iter(s.attr("keys")()); },
          "Iterates the keys.");
  defRepr(snapshot, [](const S& s) {
    return fmt::format("<{}SwTable.SwTableEntries_py of {} entries>", Traits::tableName,
                       s.entries->tableEntriesSize());
  });
}

template <class Traits>
void bindTable(py::module_& m) {
  using T = PyTable<Traits>;
  const std::string name = std::string(Traits::tableName) + "SwTable";
  py::class_<T> table(
      m, name.c_str(),
      "The software table of one unit, driven in this process. A mapping from key to entry as\n"
      "a client reads it (pending changes over committed ones): `key in table`, len(table),\n"
      "table[key] and get(key); iterating it yields the keys, pending writes first.");
  table.attr("EntryKey") = py::type::of<typename Traits::EntryKey>();
  table.attr("Entry") = py::type::of<typename Traits::Entry>();
  bindWalk<Traits>(table);
  bindSnapshot<Traits>(table);
  table
      .def_property_readonly(
          "tableName", [](const T&) { return Traits::tableName; }, "The table type's name.")
      .def_property_readonly(
          "unitId", [](const T& t) { return t.table->unitId().value(); }, "The unit's number.")
      .def(
          "entryWrite",
          [](T& t, py::handle key, py::handle entry) {
            const auto k = keyFrom<Traits>(key);
            return PyEntryHandle{t.table->entryWrite(k, entryFor<Traits>(k, entry), nullptr)};
          },
          py::arg("key"), py::arg("entry"),
          "Writes the entry under the key (whatever key the entry names); returns the change's\n"
          "handle.")
      .def(
          "entryRemove",
          [](T& t, py::handle key) {
            return PyEntryHandle{t.table->entryRemove(keyFrom<Traits>(key), nullptr)};
          },
          py::arg("key"), "Removes the key's entry; returns the change's handle.")
      .def(
          "entryRemoveAll", [](T& t) { t.table->entryRemoveAll(nullptr); },
          "Removes every entry of the unit.")
      .def("entryRead", &entryOrThrow<Traits>, py::arg("key"),
           "The entry a client reads for the key, pending else committed; KeyError naming the\n"
           "key when there is none.")
      .def(
          "entryHas",
          [](const T& t, py::handle key) { return t.table->entryHas(keyFrom<Traits>(key)); },
          py::arg("key"), "Whether a client reads an entry for the key.")
      .def(
          "entrys", [](const T& t) { return t.table->entrys(); },
          "The number of entries a client reads.")
      .def(
          "hasPendingHwWrites", [](const T& t) { return t.table->hasPendingHwWrites(); },
          "Whether committed changes wait for the hardware side.")
      .def(
          "tableStatusVersion",
          [](T& t, py::handle version) {
            t.table->tableStatusVersion(
                Asic::LogVersion(numberFrom(version, UINT64_MAX, "version")));
          },
          py::arg("version"), "The hardware side has taken every change up to this log version.")
      .def(
          "entryIteratorConst",
          [](const T& t, py::handle from) { return walk(t, from, Yield::entries); },
          py::arg("key") = py::none(),
          "A walk over the entries; from a key, only that key and what follows it.")
      .def(
          "getTableEntries_py",
          [](const T& t) { return PySnapshot<Traits>{t.table->getTableEntries_py()}; },
          "A snapshot of every entry the table holds.")
      .def(
          "__contains__",
          [](const T& t, py::handle key) { return t.table->entryHas(keyFrom<Traits>(key)); },
          py::arg("key"), "Whether a client reads an entry for the key.")
      .def(
          "__len__", [](const T& t) { return t.table->entrys(); },
          "The number of entries a client reads.")
      .def("__getitem__", &entryOrThrow<Traits>, py::arg("key"),
           "The entry a client reads for the key; KeyError naming the key when there is none.")
      .def(
          "get",
          [](const T& t, py::handle key, py::object otherwise) {
            const auto k = keyFrom<Traits>(key);
            return t.table->entryHas(k) ? py::cast(t.table->entryRead(k)) : otherwise;
          },
          py::arg("key"), py::arg("default") = py::none(),
          "The entry a client reads for the key, or `default` when there is none.")
      .def(
          "__iter__", [](const T& t) { return walk(t, py::none(), Yield::keys); },
          "Iterates the keys, pending writes first.")
      .def(
          "keys", [](const T& t) { return walk(t, py::none(), Yield::keys); },
          "A walk over the keys, pending writes first.")
      .def(
          "values", [](const T& t) { return walk(t, py::none(), Yield::entries); },
          "A walk over the entries, pending writes first.")
      .def(
          "items", [](const T& t) { return walk(t, py::none(), Yield::items); },
          "A walk over the (key, entry) pairs, pending writes first.");
  defRepr(table, [](const T& t) { return fmt::format("<{}SwTable>", whereOf(t)); });
}

template <class Traits>
void bindInterface(py::module_& m) {
  using P = PyInterface<Traits>;
  const std::string name = std::string(Traits::tableName) + "Interface";
  py::class_<P> intf(m, name.c_str(), "The table type as this process's agent knows it.");
  intf.attr("EntryKey") = py::type::of<typename Traits::EntryKey>();
  intf.attr("Entry") = py::type::of<typename Traits::Entry>();
  intf.def_property_readonly(
          "tableName", [](const P&) { return Traits::tableName; }, "The table type's name.")
      .def_property_readonly(
          "tableId", [](const P&) { return Traits::tableId.value(); },
          "The table type's number in the catalogue.")
      .def(
          "intfName", [](const P& p) { return std::string(p.intf->intfName()); },
          "The interface's C++ class name.")
      .def(
          "makeSwTable",
          [](P& p, py::handle unit, bool clear) {
            const uint16_t u = unitFrom(unit);
            ShmRootScope scope(ProcessAgent::get().root());
            return PyTable<Traits>{p.intf->makeSwTable(Asic::UnitId(u), nullptr, clear)};
          },
          py::arg("unit"), py::arg("clear") = false,
          "The unit's table: restored from shared memory, or emptied when clear.")
      .def(
          "tableVersion", [](const P& p) { return p.intf->entryLog()->tableVersion().value(); },
          "The newest version committed to the table type's change log.");
  defRepr(intf, [](const P&) { return fmt::format("<{}Interface>", Traits::tableName); });
}

}  // namespace

void bindTables(py::module_& m) {
  py::class_<PyEntryHandle> handle(
      m, "EntryHandle", "A client's change: its state and, once committed, its log version.");
  handle
      .def_property_readonly(
          "state", [](const PyEntryHandle& h) { return fmt::format("{}", h.handle->entryState()); },
          "The change's state: created, inLog (committed), done (taken by the hardware side) or\n"
          "failed.")
      .def_property_readonly(
          "logVersion", [](const PyEntryHandle& h) { return h.handle->logVersion().value(); },
          "The change's version in the log once committed, else 0.")
      .def_property_readonly(
          "tableName", [](const PyEntryHandle& h) { return std::string(h.handle->tableName()); },
          "The table type's name.");
  defRepr(handle, [](const PyEntryHandle& h) {
    return fmt::format("<EntryHandle {} {} v{}>", h.handle->tableName(), h.handle->entryState(),
                       h.handle->logVersion());
  });
  VeskTool::forEachTable([&]<class Traits>(size_t) {
    bindTable<Traits>(m);
    bindInterface<Traits>(m);
  });
  m.def(
      "getIntf",
      [](const std::string& table) {
        return VeskTool::withTable(tableIndexOrThrow(table), []<class Traits>() {
          return py::cast(PyInterface<Traits>{ProcessAgent::get().intf<Traits>()});
        });
      },
      py::arg("table"),
      "The interface of the table type, made in this process on first use at $VESK_SHM_ROOT.");
  m.def(
      "runUntilIdle", [] { return ProcessAgent::get().runUntilIdle(); },
      "Steps the group resolver: commits queued changes until none is left or one is unresolved.");
}

}  // namespace VeskPy
