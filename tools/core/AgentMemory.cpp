#include "tools/core/AgentMemory.h"

#include <algorithm>
#include <filesystem>

#include <fmt/format.h>

#include "Asic/MountNamespace.h"
#include "KestShard/Directory.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"
#include "tools/core/ReaderMount.h"
#include "tools/core/TableDispatch.h"
#include "types/TableShards.h"

namespace VeskTool {
AgentMemory::AgentMemory(Mounts mounts) : root_(KestShard::Directory::rootPath()), mounts_(mounts) {
  const std::filesystem::path agentDir =
      std::filesystem::path(root_) / "local" / VeskTapAgg::kAgentName;
  if (!std::filesystem::is_directory(agentDir)) {
    throw NoAgentMemoryError(fmt::format("no agent's shared memory at {}", agentDir.string()));
  }
  registerTcamShards();
  VeskTapAgg::registerTableShardTypes();
  em_ = Asic::mountEntityManager(*Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true));
}

template <class S>
Nimbo::Ptr<S> AgentMemory::agentShard(const Nimbo::String& path, const char* collection,
                                      uint32_t capacity) const {
  if (mounts_ == Mounts::perRead) return mountAgentShard<S>(em_, path, collection, capacity);
  if (const auto it = kept_.find(path); it != kept_.end()) {
    return Nimbo::dynamicPtrCast<S>(it->second);
  }
  auto shard = mountAgentShard<S>(em_, path, collection, capacity);
  if (shard) kept_.emplace(path, shard);
  return shard;
}

template <class Traits>
Nimbo::Ptr<typename Traits::ConfigShard> AgentMemory::config(Asic::UnitId unit) const {
  return agentShard<typename Traits::ConfigShard>(Traits::Constants::configShardPath(unit),
                                                  "swTableEntries", UnitContents<Traits>::capacity);
}

template <class Traits>
Nimbo::Ptr<typename Traits::EntryLogShard> AgentMemory::log() const {
  return agentShard<typename Traits::EntryLogShard>(Traits::Constants::tableEntryLogShardPath(),
                                                    "entryLogConfig", ChangeLogSummary::capacity);
}

template <class Traits>
std::optional<ChangeLogSummary> AgentMemory::changeLog() const {
  auto log = this->log<Traits>();
  if (!log) return std::nullopt;
  const auto& changes = log->entryLogConfigColl();
  const auto first = changes.begin();
  return ChangeLogSummary{changes.control()->scratchpad(), changes.count(),
                          first.valid() ? first->logVersion.value() : 0, changes.newestVersion()};
}

template <class Traits>
std::optional<LoggedChanges<Traits>> AgentMemory::changesAfter(uint64_t version,
                                                               size_t limit) const {
  auto log = this->log<Traits>();
  if (!log) return std::nullopt;
  const auto& changes = log->entryLogConfigColl();
  LoggedChanges<Traits> read;
  read.tableVersion = changes.control()->scratchpad();
  const auto first = changes.begin();
  read.oldestVersion = first.valid() ? first->logVersion.value() : 0;
  for (auto it = changes.at(Asic::LogVersion(version + 1));
       it != changes.end() && read.changes.size() < limit; ++it) {
    read.changes.push_back(*it);
  }
  return read;
}

template <class Traits>
std::optional<typename Traits::ConfigShardEntry> AgentMemory::configRecord(
    Asic::UnitId unit, const typename Traits::EntryKey& key) const {
  auto config = this->config<Traits>(unit);
  if (!config) return std::nullopt;
  const auto record = config->swTableEntriesColl().find(key);
  if (!record) return std::nullopt;
  return typename Traits::ConfigShardEntry(*record);
}

template <class Traits>
bool AgentMemory::forEachConfigRecord(
    Asic::UnitId unit,
    const std::function<void(const typename Traits::ConfigShardEntry&)>& visit) const {
  auto config = this->config<Traits>(unit);
  if (!config) return false;
  config->swTableEntriesColl().forEach(visit);
  return true;
}

std::optional<Asic::LogVersion> AgentMemory::hardwareTaken(Asic::SwTableId tableId) const {
  const auto group =
      VeskTapAgg::TableConstants<VeskTapAgg::DefaultFwdTcamEntryTraits>::canonicalGroupName();
  auto versions = Asic::TableVersionShard::mountReader(em_, group);
  return versions ? versions->tableVersion(tableId) : std::nullopt;
}

template <class Traits>
std::vector<Asic::UnitId> AgentMemory::units() const {
  return configuredUnits(em_, Traits::Constants::configShardPathBase());
}

template <class Traits>
std::optional<UnitContents<Traits>> AgentMemory::unit(Asic::UnitId unit, bool withEntries) const {
  auto config = this->config<Traits>(unit);
  if (!config) return std::nullopt;
  UnitContents<Traits> contents;
  // A TCAM the hardware side left damaged is told, and the configuration read without it.
  Nimbo::Ptr<TcamShard<Traits>> tcam;
  const auto tcamFailed = [&](const Nimbo::Exception& e) {
    contents.tcamError = e.what();
    contents.tcamLines.reset();
    contents.tcamAppliedVersion.reset();
    tcam = nullptr;
  };
  try {
    tcam = TcamShard<Traits>::mount(unit, KestShard::KestShardType::reader);
    if (tcam) {
      // Walked rather than counted: a walk that reaches fewer lines than the TCAM counts
      // reports its damaged index.
      uint32_t lines = 0;
      tcam->tcam().forEach([&](const auto&) { ++lines; });
      contents.tcamLines = lines;
      contents.tcamAppliedVersion = tcam->appliedVersion();
    }
  } catch (const Nimbo::Exception& e) {
    tcamFailed(e);
  }
  const auto inHardware = [&](const auto& logEntry) {
    if (!tcam) return false;
    try {
      const auto line = tcam->tcam().find(logEntry.key());
      return line && line->logEntry == logEntry;
    } catch (const Nimbo::Exception& e) {
      tcamFailed(e);
      return false;
    }
  };
  config->swTableEntriesColl().forEach([&](const auto& record) {
    if (record.isDeleted) {
      ++contents.tombstones;
      return;
    }
    ++contents.liveEntries;
    const bool held = inHardware(record.logEntry);
    if (!held) ++contents.notInHardware;
    if (withEntries) contents.entries.push_back({record.logEntry, record.logVersion, held});
  });
  std::sort(contents.entries.begin(), contents.entries.end(),
            [](const auto& a, const auto& b) { return a.logEntry.key() < b.logEntry.key(); });
  return contents;
}

template <class Traits>
std::optional<std::vector<TcamLine<Traits>>> AgentMemory::tcamLines(Asic::UnitId unit) const {
  auto tcam = TcamShard<Traits>::mount(unit, KestShard::KestShardType::reader);
  if (!tcam) return std::nullopt;
  std::vector<TcamLine<Traits>> lines;
  tcam->tcam().forEach([&](const TcamLine<Traits>& line) { lines.push_back(line); });
  return lines;
}

#define VESK_TOOL_AGENT_MEMORY(Name, ...)                                                          \
  template std::optional<ChangeLogSummary> AgentMemory::changeLog<VeskTapAgg::Name##Traits>()      \
      const;                                                                                       \
  template std::vector<Asic::UnitId> AgentMemory::units<VeskTapAgg::Name##Traits>() const;         \
  template std::optional<LoggedChanges<VeskTapAgg::Name##Traits>>                                  \
      AgentMemory::changesAfter<VeskTapAgg::Name##Traits>(uint64_t, size_t) const;                 \
  template std::optional<VeskTapAgg::Name##Traits::ConfigShardEntry>                               \
  AgentMemory::configRecord<VeskTapAgg::Name##Traits>(                                             \
      Asic::UnitId, const VeskTapAgg::Name##Traits::EntryKey&) const;                              \
  template bool AgentMemory::forEachConfigRecord<VeskTapAgg::Name##Traits>(                        \
      Asic::UnitId, const std::function<void(const VeskTapAgg::Name##Traits::ConfigShardEntry&)>&) \
      const;                                                                                       \
  template std::optional<UnitContents<VeskTapAgg::Name##Traits>>                                   \
  AgentMemory::unit<VeskTapAgg::Name##Traits>(Asic::UnitId, bool) const;                           \
  template std::optional<std::vector<TcamLine<VeskTapAgg::Name##Traits>>>                          \
      AgentMemory::tcamLines<VeskTapAgg::Name##Traits>(Asic::UnitId) const;
VESK_TAPAGG_TABLES(VESK_TOOL_AGENT_MEMORY)
#undef VESK_TOOL_AGENT_MEMORY

}  // namespace VeskTool
