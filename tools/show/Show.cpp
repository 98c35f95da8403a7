#include "tools/show/Show.h"

#include <set>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <nlohmann/json.hpp>

#include "tools/core/AgentMemory.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

using Json = nlohmann::ordered_json;

template <class Traits>
Json showUnit(const AgentMemory& memory, Asic::UnitId unit, bool entries) {
  Json j;
  j["unit"] = unit.value();
  const auto contents = memory.unit<Traits>(unit, entries);
  if (!contents) return j;
  j["liveEntries"] = contents->liveEntries;
  j["tombstones"] = contents->tombstones;
  j["capacity"] = contents->capacity;
  j["capacityUsed"] =
      double(contents->liveEntries + contents->tombstones) / double(contents->capacity);
  if (contents->tcamLines) {
    j["tcamLines"] = *contents->tcamLines;
    j["tcamAppliedVersion"] = contents->tcamAppliedVersion->value();
  } else {
    j["tcamLines"] = nullptr;
  }
  j["notInHardware"] = contents->notInHardware;
  if (entries) {
    Json list = Json::array();
    for (const auto& e : contents->entries) {
      list.push_back({{"key", fmt::format("{}", e.logEntry.key())},
                      {"entry", fmt::format("{}", VeskTapAgg::entryOf(e.logEntry))},
                      {"version", e.version.value()},
                      {"inHardware", e.inHardware}});
    }
    j["entries"] = std::move(list);
  }
  return j;
}

template <class Traits>
Json showTable(const AgentMemory& memory, const ShowOptions& options) {
  Json j;
  j["table"] = Traits::tableName;
  j["tableId"] = fmt::format("{}", Traits::tableId);
  if (const auto log = memory.changeLog<Traits>()) {
    j["changeLog"] = {{"tableVersion", log->tableVersion},
                      {"records", log->records},
                      {"oldestVersion", log->oldestVersion},
                      {"newestVersion", log->newestVersion},
                      {"capacity", log->capacity}};
  } else {
    j["changeLog"] = nullptr;
  }
  const auto taken = memory.hardwareTaken(Traits::tableId);
  j["hardwareTaken"] = taken ? Json(taken->value()) : Json(nullptr);
  Json units = Json::array();
  for (Asic::UnitId unit : memory.units<Traits>()) {
    if (options.unit && *options.unit != unit.value()) continue;
    units.push_back(showUnit<Traits>(memory, unit, options.entries));
  }
  j["units"] = std::move(units);
  return j;
}

void printText(const Json& all, std::ostream& out) {
  for (const Json& t : all["tables"]) {
    fmt::print(out, "{} ({})\n", t["table"].get<std::string>(), t["tableId"].get<std::string>());
    if (t["changeLog"].is_null()) {
      fmt::print(out, "  change log: none\n");
    } else {
      const Json& l = t["changeLog"];
      fmt::print(
          out, "  change log: table version {}, {} records (versions {} to {}), hardware took {}\n",
          l["tableVersion"].get<uint64_t>(), l["records"].get<uint64_t>(),
          l["oldestVersion"].get<uint64_t>(), l["newestVersion"].get<uint64_t>(),
          t["hardwareTaken"].is_null() ? "nothing yet" : t["hardwareTaken"].dump());
    }
    for (const Json& u : t["units"]) {
      if (!u.contains("liveEntries")) continue;
      fmt::print(out,
                 "  unit {}: {} entries, {} tombstones ({:.1f}% of 65536); TCAM {} lines, {} "
                 "entries not in it\n",
                 u["unit"].get<int>(), u["liveEntries"].get<uint64_t>(),
                 u["tombstones"].get<uint64_t>(), 100 * u["capacityUsed"].get<double>(),
                 u["tcamLines"].is_null() ? "no" : u["tcamLines"].dump(),
                 u["notInHardware"].get<uint64_t>());
      if (!u.contains("entries")) continue;
      for (const Json& e : u["entries"]) {
        fmt::print(out, "    v{} {}{}\n", e["version"].get<uint64_t>(),
                   e["entry"].get<std::string>(),
                   e["inHardware"].get<bool>() ? "" : "  (not in TCAM)");
      }
    }
  }
}

}  // namespace

void show(const ShowOptions& options, std::ostream& out) {
  const AgentMemory memory;
  Json all;
  all["root"] = memory.root();
  Json tables = Json::array();
  std::set<uint16_t> units;  // of the tables shown
  forEachTable([&]<class Traits>(size_t t) {
    if (options.table && *options.table != t) return;
    for (Asic::UnitId unit : memory.units<Traits>()) units.insert(unit.value());
    tables.push_back(showTable<Traits>(memory, options));
  });
  if (options.unit && !units.contains(*options.unit)) {
    throw std::invalid_argument(fmt::format(
        "{} has no unit {} (units: {})",
        options.table ? std::string(VeskTapAgg::kCatalogue[*options.table].name)
                      : std::string("no table type"),
        *options.unit, units.empty() ? "none" : fmt::format("{}", fmt::join(units, ", "))));
  }
  all["tables"] = std::move(tables);
  if (options.json) {
    out << all.dump(2) << "\n";
  } else {
    printText(all, out);
  }
}

}  // namespace VeskTool
