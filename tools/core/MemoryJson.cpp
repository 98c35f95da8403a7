#include "tools/core/MemoryJson.h"

#include <fmt/format.h>

#include "Nimbo/Exception.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

template <class Record>
Json recordJson(const Record& record) {
  return Json::parse(VeskTapAgg::typeRecordOf<Record>().json(&record));
}

Json errorJson(const Nimbo::Exception& e) { return Json{{"error", e.what()}}; }

Json usedJson(Json j, uint64_t used, uint64_t capacity) {
  const double fraction = double(used) / double(capacity);
  j["capacity"] = capacity;
  j["used"] = fraction;
  j["level"] = capacityLevel(fraction);
  return j;
}

template <class Traits>
Json tableJson(const AgentMemory& memory, std::optional<uint16_t> unit, bool withEntries) {
  Json j;
  j["table"] = Traits::tableName;
  j["tableId"] = fmt::format("{}", Traits::tableId);
  j["changeLog"] = changeLogJson<Traits>(memory);
  const auto taken = memory.hardwareTaken(Traits::tableId);
  j["hardwareTaken"] = taken ? Json(taken->value()) : Json(nullptr);
  const Json& log = j["changeLog"];
  j["hardwareLag"] = log.contains("tableVersion")
                         ? Json(log["tableVersion"].get<uint64_t>() - (taken ? taken->value() : 0))
                         : Json(nullptr);
  Json units = Json::array();
  for (Asic::UnitId u : memory.units<Traits>()) {
    if (!unit || *unit == u.value()) units.push_back(unitJson<Traits>(memory, u, withEntries));
  }
  j["units"] = std::move(units);
  return j;
}

}  // namespace

template <class Traits>
Json changeLogJson(const AgentMemory& memory) {
  try {
    const auto log = memory.changeLog<Traits>();
    if (!log) return nullptr;
    Json j;
    j["tableVersion"] = log->tableVersion;
    j["records"] = log->records;
    j = usedJson(std::move(j), log->records, log->capacity);
    j["oldestVersion"] = log->oldestVersion;
    j["newestVersion"] = log->newestVersion;
    return j;
  } catch (const Nimbo::Exception& e) {
    return errorJson(e);
  }
}

template <class Traits>
Json unitJson(const AgentMemory& memory, Asic::UnitId unit, bool withEntries) {
  Json j;
  j["unit"] = unit.value();
  try {
    const auto contents = memory.unit<Traits>(unit, withEntries);
    if (!contents) return nullptr;
    j["liveEntries"] = contents->liveEntries;
    j["tombstones"] = contents->tombstones;
    j = usedJson(std::move(j), contents->liveEntries + contents->tombstones, contents->capacity);
    if (contents->tcamError) {
      j["tcam"] = {{"error", *contents->tcamError}};
      j["notInHardware"] = nullptr;  // not known
    } else {
      j["tcam"] = contents->tcamLines
                      ? Json{{"lines", *contents->tcamLines},
                             {"appliedVersion", contents->tcamAppliedVersion->value()}}
                      : Json(nullptr);
      j["notInHardware"] = contents->notInHardware;
    }
    if (withEntries) {
      Json list = Json::array();
      for (const auto& e : contents->entries) {
        list.push_back({{"key", recordJson(e.logEntry.key())},
                        {"entry", recordJson(VeskTapAgg::entryOf(e.logEntry))},
                        {"version", e.version.value()},
                        {"inHardware", e.inHardware}});
      }
      j["entries"] = std::move(list);
    }
  } catch (const Nimbo::Exception& e) {
    j["error"] = e.what();
  }
  return j;
}

Json agentMemoryJson(const AgentMemory& memory, std::optional<size_t> table,
                     std::optional<uint16_t> unit, bool withEntries) {
  Json j = jsonDocument("show");
  j["root"] = memory.root();
  Json tables = Json::array();
  forEachTable([&]<class Traits>(size_t t) {
    if (!table || *table == t) tables.push_back(tableJson<Traits>(memory, unit, withEntries));
  });
  j["tables"] = std::move(tables);
  return j;
}

#define VESK_TOOL_MEMORY_JSON(Name, ...)                                     \
  template Json changeLogJson<VeskTapAgg::Name##Traits>(const AgentMemory&); \
  template Json unitJson<VeskTapAgg::Name##Traits>(const AgentMemory&, Asic::UnitId, bool);
VESK_TAPAGG_TABLES(VESK_TOOL_MEMORY_JSON)
#undef VESK_TOOL_MEMORY_JSON

}  // namespace VeskTool
