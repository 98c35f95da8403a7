#include "tools/show/Show.h"

#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <nlohmann/json.hpp>

#include "Asic/MountNamespace.h"
#include "Asic/TableVersionShard.h"
#include "KestShard/Directory.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"
#include "tools/core/TableDispatch.h"
#include "tools/core/TcamShard.h"
#include "types/TableShards.h"

namespace VeskTool {
namespace {

using Json = nlohmann::ordered_json;

template <class S>
Nimbo::Ptr<S> mountReader(const Nimbo::Ptr<KestSharedMem::EntityManager>& em, const Nimbo::String& path,
                          const char* collection, uint32_t capacity) {
  KestShard::MountInfo info(KestShard::KestShardType::reader);
  info.collectionInfoIs({collection, capacity, false});
  try {
    return KestSharedMem::mountShard<S>(em, path, S::typeName, info);
  } catch (const Nimbo::SystemException& e) {
    if (e.error() == ENOENT) return nullptr;
    throw;
  }
}

template <class Traits>
Json showUnit(const Nimbo::Ptr<KestSharedMem::EntityManager>& em, Asic::UnitId unit, bool entries) {
  Json j;
  j["unit"] = unit.value();
  auto config = mountReader<typename Traits::ConfigShard>(em, Traits::Constants::configShardPath(unit),
                                                          "swTableEntries", 65536);
  if (!config) return j;
  auto tcam = TcamShard<Traits>::mount(unit, KestShard::KestShardType::reader);
  uint64_t live = 0, tombstones = 0, disagree = 0;
  Json list = Json::array();
  config->swTableEntriesColl().forEach([&](const auto& record) {
    if (record.isDeleted) {
      ++tombstones;
      return;
    }
    ++live;
    const auto line = tcam ? tcam->tcam().find(record.logEntry.key()) : std::nullopt;
    const bool inHardware = line && line->logEntry == record.logEntry;
    if (!inHardware) ++disagree;
    if (entries) {
      list.push_back({{"key", fmt::format("{}", record.logEntry.key())},
                      {"entry", fmt::format("{}", record.logEntry)},
                      {"version", record.logVersion.value()},
                      {"inHardware", inHardware}});
    }
  });
  j["liveEntries"] = live;
  j["tombstones"] = tombstones;
  j["capacity"] = 65536;
  j["capacityUsed"] = double(live + tombstones) / 65536.0;
  if (tcam) {
    j["tcamLines"] = tcam->tcam().count();
    j["tcamAppliedVersion"] = tcam->appliedVersion().value();
  } else {
    j["tcamLines"] = nullptr;
  }
  j["notInHardware"] = disagree;
  if (entries) j["entries"] = std::move(list);
  return j;
}

template <class Traits>
Json showTable(const Nimbo::Ptr<KestSharedMem::EntityManager>& em,
               const Nimbo::Ptr<Asic::TableVersionShard>& versions, const ShowOptions& options) {
  Json j;
  j["table"] = Traits::tableName;
  j["tableId"] = fmt::format("{}", Traits::tableId);
  auto log = mountReader<typename Traits::EntryLogShard>(em, Traits::Constants::tableEntryLogShardPath(),
                                                         "entryLogConfig", 1000000);
  if (!log) {
    j["changeLog"] = nullptr;
  } else {
    const auto& changes = log->entryLogConfigColl();
    const auto first = changes.begin();
    j["changeLog"] = {{"tableVersion", changes.control()->scratchpad()},
                      {"records", changes.count()},
                      {"oldestVersion", first.valid() ? first->logVersion.value() : 0},
                      {"newestVersion", changes.newestVersion()},
                      {"capacity", 1000000}};
  }
  const auto taken = versions ? versions->tableVersion(Traits::tableId) : std::nullopt;
  j["hardwareTaken"] = taken ? Json(taken->value()) : Json(nullptr);
  Json units = Json::array();
  for (Asic::UnitId unit : configuredUnits(em, Traits::Constants::configShardPathBase())) {
    if (options.unit && *options.unit != unit.value()) continue;
    units.push_back(showUnit<Traits>(em, unit, options.entries));
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
      fmt::print(out, "  change log: table version {}, {} records (versions {} to {}), hardware took {}\n",
                 l["tableVersion"].get<uint64_t>(), l["records"].get<uint64_t>(),
                 l["oldestVersion"].get<uint64_t>(), l["newestVersion"].get<uint64_t>(),
                 t["hardwareTaken"].is_null() ? "nothing yet" : t["hardwareTaken"].dump());
    }
    for (const Json& u : t["units"]) {
      if (!u.contains("liveEntries")) continue;
      fmt::print(out, "  unit {}: {} entries, {} tombstones ({:.1f}% of 65536); TCAM {} lines, {} entries not in it\n",
                 u["unit"].get<int>(), u["liveEntries"].get<uint64_t>(), u["tombstones"].get<uint64_t>(),
                 100 * u["capacityUsed"].get<double>(),
                 u["tcamLines"].is_null() ? "no" : u["tcamLines"].dump(), u["notInHardware"].get<uint64_t>());
      if (!u.contains("entries")) continue;
      for (const Json& e : u["entries"]) {
        fmt::print(out, "    v{} {}{}\n", e["version"].get<uint64_t>(), e["entry"].get<std::string>(),
                   e["inHardware"].get<bool>() ? "" : "  (not in TCAM)");
      }
    }
  }
}

}  // namespace

void show(const ShowOptions& options, std::ostream& out) {
  const std::filesystem::path agentDir =
      std::filesystem::path(KestShard::Directory::rootPath()) / "local" / VeskTapAgg::kAgentName;
  if (!std::filesystem::is_directory(agentDir)) {
    throw std::runtime_error(fmt::format("no agent's shared memory at {}", agentDir.string()));
  }
  registerTcamShards();
  VeskTapAgg::registerTableShardTypes();
  auto em = Asic::mountEntityManager(*Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true));
  const auto group = VeskTapAgg::TableConstants<VeskTapAgg::DefaultFwdTcamEntryTraits>::canonicalGroupName();
  auto versions = Asic::TableVersionShard::mountReader(em, group);
  Json all;
  all["root"] = KestShard::Directory::rootPath();
  Json tables = Json::array();
  forEachTable([&]<class Traits>(size_t t) {
    if (options.table && *options.table != t) return;
    tables.push_back(showTable<Traits>(em, versions, options));
  });
  all["tables"] = std::move(tables);
  if (options.json) {
    out << all.dump(2) << "\n";
  } else {
    printText(all, out);
  }
}

}  // namespace VeskTool
