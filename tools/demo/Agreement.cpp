#include "tools/demo/Agreement.h"

#include <fmt/format.h>

#include "Asic/MountNamespace.h"
#include "Asic/TableVersionShard.h"
#include "KestSharedMem/MountGroup.h"
#include "tools/core/Records.h"
#include "tools/core/TableDispatch.h"
#include "tools/core/TcamShard.h"
#include "types/TableShards.h"

namespace VeskTool {
namespace {

template <class S>
Nimbo::Ptr<S> reader(const Nimbo::Ptr<KestSharedMem::EntityManager>& em, const Nimbo::String& path,
                     const char* collection, uint32_t capacity) {
  KestShard::MountInfo info(KestShard::KestShardType::reader);
  info.collectionInfoIs({collection, capacity, false});
  return KestSharedMem::mountShard<S>(em, path, S::typeName, info);
}

void note(Agreement& a, std::string text) {
  if (a.examples.size() < 5) a.examples.push_back(std::move(text));
}

template <class Traits>
void checkTable(size_t t, const ExpectedState& expected, const std::vector<uint16_t>& units,
                const Nimbo::Ptr<KestSharedMem::EntityManager>& em,
                const Nimbo::Ptr<Asic::TableVersionShard>& versions, Agreement& a) {
  auto log = reader<typename Traits::EntryLogShard>(em, Traits::Constants::tableEntryLogShardPath(),
                                                    "entryLogConfig", 1000000);
  const uint64_t newest = log->entryLogConfigColl().control()->scratchpad();
  const uint64_t taken =
      versions->tableVersion(Traits::tableId).value_or(Asic::LogVersion()).value();
  if (taken < newest) {
    a.untaken += newest - taken;
    note(a, fmt::format("{}: the hardware side took version {} of {}", Traits::tableName, taken,
                        newest));
  }
  for (uint16_t u : units) {
    const Asic::UnitId unit(u);
    auto config = reader<typename Traits::ConfigShard>(em, Traits::Constants::configShardPath(unit),
                                                       "swTableEntries", 65536);
    auto tcam = TcamShard<Traits>::mount(unit, KestShard::KestShardType::reader);
    uint64_t live = 0;
    config->swTableEntriesColl().forEach([&](const auto& record) {
      if (record.isDeleted) return;
      ++live;
      ++a.configEntries;
      uint32_t index = 0;
      std::memcpy(&index, static_cast<const void*>(&record.logEntry.entryKey), sizeof index);
      const auto it = expected.entries(t).find(ExpectedState::slot(u, index));
      if (it == expected.entries(t).end() ||
          !(logEntryOf<Traits>(index, it->second) == record.logEntry)) {
        ++a.configMismatches;
        note(a, fmt::format("{} unit {}: configuration holds {} unexpectedly", Traits::tableName, u,
                            record.logEntry));
      }
      const auto line = tcam ? tcam->tcam().find(record.logEntry.key()) : std::nullopt;
      if (!line || !(line->logEntry == record.logEntry)) {
        ++a.tcamMismatches;
        note(a, fmt::format("{} unit {}: TCAM lacks {}", Traits::tableName, u, record.logEntry));
      }
    });
    uint64_t expectedLive = 0;
    for (const auto& [slot, variant] : expected.entries(t))
      expectedLive += uint16_t(slot >> 32) == u;
    if (live != expectedLive) {
      a.configMismatches += live > expectedLive ? live - expectedLive : expectedLive - live;
      note(a, fmt::format("{} unit {}: {} entries configured, {} expected", Traits::tableName, u,
                          live, expectedLive));
    }
    const uint64_t lines = tcam ? tcam->tcam().count() : 0;
    a.tcamLines += lines;
    if (lines != live) {
      a.tcamMismatches += lines > live ? lines - live : live - lines;
      note(a, fmt::format("{} unit {}: {} TCAM lines for {} entries", Traits::tableName, u, lines,
                          live));
    }
  }
}

}  // namespace

Agreement checkAgreement(const ExpectedState& expected, const std::vector<uint16_t>& units) {
  registerTcamShards();
  VeskTapAgg::registerTableShardTypes();
  auto em =
      Asic::mountEntityManager(*Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true));
  auto versions = Asic::TableVersionShard::mountReader(
      em, VeskTapAgg::TableConstants<VeskTapAgg::DefaultFwdTcamEntryTraits>::canonicalGroupName());
  Agreement a;
  forEachTable(
      [&]<class Traits>(size_t t) { checkTable<Traits>(t, expected, units, em, versions, a); });
  return a;
}

}  // namespace VeskTool
