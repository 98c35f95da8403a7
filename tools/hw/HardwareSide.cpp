#include "tools/hw/HardwareSide.h"

#include <csignal>
#include <map>
#include <memory>
#include <thread>

#include <fmt/ostream.h>

#include "Asic/MountNamespace.h"
#include "Asic/TableVersionShard.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"
#include "tools/core/ReaderMount.h"
#include "tools/core/TcamShard.h"
#include "types/TableShards.h"

namespace VeskTool {
namespace {

using Clock = std::chrono::steady_clock;
volatile std::sig_atomic_t stopRequested = 0;

class HwTable {
 public:
  virtual ~HwTable() = default;
  // Applies up to `budget` changes; returns how many.
  virtual uint64_t step(uint64_t budget, std::chrono::microseconds delay) = 0;
  virtual uint64_t processed() const = 0;
};

template <class Traits>
class HwTableOf final : public HwTable {
  using LogShard = typename Traits::EntryLogShard;
  using ConfigShard = typename Traits::ConfigShard;
  using Tcam = TcamShard<Traits>;

 public:
  HwTableOf(Nimbo::Ptr<KestSharedMem::EntityManager> agentEm, uint64_t processed)
      : agentEm_(std::move(agentEm)), processed_(processed) {}

  uint64_t processed() const override { return processed_; }

  uint64_t step(uint64_t budget, std::chrono::microseconds delay) override {
    if (!log_) {
      log_ = mountAgentShard<LogShard>(agentEm_, Traits::Constants::tableEntryLogShardPath(),
                                       "entryLogConfig", 1000000);
      if (!log_) return 0;
    }
    uint64_t applied = 0;
    try {
      const auto& changes = log_->entryLogConfigColl();
      for (auto it = changes.at(Asic::LogVersion(processed_ + 1)); it != changes.end() && applied < budget; ++it) {
        if (it->logVersion.value() != processed_ + 1) break;  // not appended yet
        apply(*it);
        processed_ = it->logVersion.value();
        ++applied;
        if (delay.count() > 0) std::this_thread::sleep_for(delay);
      }
    } catch (const Nimbo::Exception&) {
      // A record the agent is writing right now, or damage: try again at the next poll.
    }
    return applied;
  }

 private:
  void apply(const typename Traits::LogShardEntry& change) {
    Tcam& tcam = tcamOf(change.unitId);
    if (change.logVersion <= tcam.appliedVersion()) return;  // applied before a restart
    switch (VeskTapAgg::DeleteKind(change.deleteKind)) {
      case VeskTapAgg::DeleteKind::write: {
        // The configuration holds the entry as last written; a later change of the key
        // will come anyway, so the newest content is right.
        const auto record = configOf(change.unitId).swTableEntriesColl().find(change.key);
        if (record && !record->isDeleted) tcam.tcam().insertOrReplace({record->logEntry, change.logVersion});
        break;
      }
      case VeskTapAgg::DeleteKind::entryDelete:
        tcam.tcam().erase(change.key);
        break;
      case VeskTapAgg::DeleteKind::unitDelete:
        tcam.tcam().forEach([&](const auto& line) { tcam.tcam().erase(line.logEntry.key()); });
        break;
    }
    tcam.appliedVersionIs(change.logVersion);
  }

  Tcam& tcamOf(Asic::UnitId unit) {
    auto& held = tcams_[unit];
    if (!held) held = Tcam::mount(unit, KestShard::KestShardType::writer);
    return *held;
  }

  ConfigShard& configOf(Asic::UnitId unit) {
    auto& held = configs_[unit];
    if (!held) {
      held = mountAgentShard<ConfigShard>(agentEm_, Traits::Constants::configShardPath(unit),
                                          "swTableEntries", 65536);
      if (!held) throw Nimbo::InvalidArgumentException(fmt::format("no configuration for unit {}", unit));
    }
    return *held;
  }

  Nimbo::Ptr<KestSharedMem::EntityManager> agentEm_;
  uint64_t processed_;
  Nimbo::Ptr<LogShard> log_;
  std::map<Asic::UnitId, Nimbo::Ptr<Tcam>> tcams_;
  std::map<Asic::UnitId, Nimbo::Ptr<ConfigShard>> configs_;
};

}  // namespace

HardwareReport runHardwareSide(const HardwareOptions& options, std::ostream& out) {
  stopRequested = 0;
  std::signal(SIGTERM, [](int) { stopRequested = 1; });
  std::signal(SIGINT, [](int) { stopRequested = 1; });
  registerTcamShards();
  VeskTapAgg::registerTableShardTypes();

  auto agentEm = Asic::mountEntityManager(
      *Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true));
  const auto group = VeskTapAgg::TableConstants<VeskTapAgg::DefaultFwdTcamEntryTraits>::canonicalGroupName();
  auto versions = Asic::TableVersionShard::mountWriter(agentEm, group);

  HardwareReport report;
  std::vector<std::unique_ptr<HwTable>> tables;
  forEachTable([&]<class Traits>(size_t t) {
    const uint64_t resumed = versions->tableVersion(Traits::tableId).value_or(Asic::LogVersion()).value();
    report.resumedAfter[t] = resumed;
    tables.push_back(std::make_unique<HwTableOf<Traits>>(agentEm, resumed));
  });
  fmt::print(out, "hw: resuming after versions");
  for (size_t t = 0; t < kTableCount; ++t) fmt::print(out, " {}", report.resumedAfter[t]);
  fmt::print(out, "\n");
  out.flush();

  auto lastWork = Clock::now();
  auto lastProgress = Clock::now();
  const auto start = Clock::now();
  uint64_t total = 0;
  while (!stopRequested) {
    uint64_t budget = UINT64_MAX;
    if (options.rate) {
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      const auto allowed = uint64_t(seconds * double(options.rate));
      budget = allowed > total ? allowed - total : 0;
    }
    uint64_t applied = 0;
    for (size_t t = 0; t < kTableCount && applied < budget; ++t) {
      const uint64_t n = tables[t]->step(budget - applied, options.delay);
      if (n == 0) continue;
      applied += n;
      report.applied[t] += n;
      versions->tableVersionIs(VeskTapAgg::kCatalogue[t].tableId, Asic::LogVersion(tables[t]->processed()));
    }
    total += applied;
    const auto now = Clock::now();
    if (applied) lastWork = now;
    if (options.exitWhenIdle.count() > 0 && now - lastWork > options.exitWhenIdle) break;
    if (options.progressEvery.count() > 0 && now - lastProgress > options.progressEvery) {
      lastProgress = now;
      fmt::print(out, "hw: {} changes applied\n", total);
      out.flush();
    }
    if (!applied && now - lastWork >= options.spinFor) std::this_thread::sleep_for(options.pollEvery);
  }
  for (size_t t = 0; t < kTableCount; ++t) report.taken[t] = tables[t]->processed();
  return report;
}

}  // namespace VeskTool
