#include "tools/hw/HardwareSide.h"

#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <thread>

#include <fmt/ostream.h>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include "Asic/MountNamespace.h"
#include "Asic/TableVersionShard.h"
#include "KestShard/Directory.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"
#include "tools/core/ReaderMount.h"
#include "tools/core/ServiceNotify.h"
#include "tools/core/TcamShard.h"
#include "types/TableShards.h"

namespace VeskTool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLookForLogEvery = std::chrono::milliseconds(250);

// A change that cannot be read or applied: since when, why, and what mends it.
struct Stuck {
  uint64_t version;
  Clock::time_point since;
  std::string what;
  std::string remedy;
  bool told = false;
};

class HwTable {
 public:
  virtual ~HwTable() = default;
  // Applies up to `budget` changes; returns how many. Throws HardwareError when a TCAM
  // cannot be mounted, which no retry mends.
  virtual uint64_t step(uint64_t budget, std::chrono::microseconds delay) = 0;
  virtual uint64_t processed() const = 0;
  virtual bool hasLog() const = 0;
  // The change it has failed to read or apply since, if any.
  virtual std::optional<Stuck>& stuck() = 0;
};

// Where a shard of a namespace lives, for messages.
std::string shardDirectory(const char* nameSpace, const Nimbo::String& shardPath) {
  return fmt::format("{}/local/{}/{}", KestShard::Directory::rootPath(), nameSpace, shardPath);
}

template <class Traits>
class HwTableOf final : public HwTable {
  using LogShard = typename Traits::EntryLogShard;
  using ConfigShard = typename Traits::ConfigShard;
  using Tcam = TcamShard<Traits>;

 public:
  HwTableOf(Nimbo::Ptr<KestSharedMem::EntityManager> agentEm, uint64_t processed)
      : agentEm_(std::move(agentEm)), processed_(processed) {}

  uint64_t processed() const override { return processed_; }
  bool hasLog() const override { return log_ != nullptr; }
  std::optional<Stuck>& stuck() override { return stuck_; }

  uint64_t step(uint64_t budget, std::chrono::microseconds delay) override {
    if (!log_) {
      // No agent yet: looked for again now and then, not at every poll (a mount that finds
      // nothing costs system calls).
      const auto now = Clock::now();
      if (now < nextLookForLog_) return 0;
      nextLookForLog_ = now + kLookForLogEvery;
      log_ = mountAgentShard<LogShard>(agentEm_, Traits::Constants::tableEntryLogShardPath(),
                                       "entryLogConfig", 1000000);
      if (!log_) return 0;
      // Every TCAM the agent has units for is looked over now (lost ones programmed again,
      // damaged indexes rebuilt), not when its next change happens to come.
      for (Asic::UnitId unit :
           configuredUnits(agentEm_, Traits::Constants::configShardPathBase())) {
        tcamOf(unit);
      }
    }
    uint64_t applied = 0;
    try {
      const auto& changes = log_->entryLogConfigColl();
      // The agent drops only changes the hardware side has taken: versions below the
      // oldest one logged were taken before (by a run whose record of them was lost).
      if (auto oldest = changes.begin();
          oldest != changes.end() && oldest->logVersion.value() > processed_ + 1) {
        processed_ = oldest->logVersion.value() - 1;
      }
      for (auto it = changes.at(Asic::LogVersion(processed_ + 1));
           it != changes.end() && applied < budget; ++it) {
        if (it->logVersion.value() != processed_ + 1) break;  // not appended yet
        apply(*it);
        processed_ = it->logVersion.value();
        ++applied;
        if (delay.count() > 0) std::this_thread::sleep_for(delay);
      }
      // Caught up with the log, but below its newest version: the next record is being
      // written, or lost to damage.
      if (const uint64_t newest = changes.newestVersion();
          applied < budget && newest > processed_) {
        stuckAt(fmt::format("the change log holds changes up to {} but not this one", newest),
                fmt::format("delete {}/entryLogConfig",
                            shardDirectory(VeskTapAgg::kAgentName,
                                           Traits::Constants::tableEntryLogShardPath())));
        return applied;
      }
    } catch (const Nimbo::Exception& e) {
      // A record the agent is writing right now, or damage: try again at the next poll.
      stuckAt(e.what(), "delete the damaged file");
      return applied;
    }
    stuck_.reset();
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
        if (record && !record->isDeleted)
          tcam.tcam().insertOrReplace({record->logEntry, change.logVersion});
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

  // Said once it has lasted (runHardwareSide).
  void stuckAt(std::string what, std::string remedy) {
    if (!stuck_ || stuck_->version != processed_ + 1) {
      stuck_ = Stuck{processed_ + 1, Clock::now(), std::move(what), std::move(remedy)};
    }
  }

  Tcam& tcamOf(Asic::UnitId unit) {
    auto& held = tcams_[unit];
    if (held) return *held;
    try {
      held = Tcam::mount(unit, KestShard::KestShardType::writer);
    } catch (const std::exception& e) {
      throw HardwareError(fmt::format(
          "cannot use the TCAM of {} unit {} in {}: {} (remove that file, or make it a regular "
          "file of this user's with mode 600, then start the hardware side again)",
          Traits::tableName, unit, shardDirectory(kHardwareNamespace, Tcam::path(unit)), e.what()));
    }
    // One walk at the first mount: a damaged index is rebuilt by it, before lines are
    // looked up (and silently missed) through it.
    held->tcam().forEach([](const auto&) {});
    const auto& control = held->tcam().control();
    if (control->wiped() || (held->tcam().store().segment()->created() && processed_ > 0)) {
      reprogram(*held, unit);
      control->clearWiped();
    }
    return *held;
  }

  // A TCAM lost after changes were applied to it is programmed again from the
  // configuration: every live entry, as of the changes taken so far.
  void reprogram(Tcam& tcam, Asic::UnitId unit) {
    uint64_t lines = 0;
    configOf(unit).swTableEntriesColl().forEach([&](const auto& record) {
      if (record.isDeleted || record.logVersion.value() > processed_) return;
      tcam.tcam().insertOrReplace({record.logEntry, record.logVersion});
      ++lines;
    });
    tcam.appliedVersionIs(Asic::LogVersion(processed_));
    if (lines == 0) return;  // a unit seen for the first time
    fmt::print(std::cerr,
               "vesktap: the TCAM of {} unit {} was lost; programmed {} entries again from the "
               "configuration\n",
               Traits::tableName, unit, lines);
  }

  // The agent may be making it anew right now: a failure here is retried, and told once
  // it lasts.
  ConfigShard& configOf(Asic::UnitId unit) {
    auto& held = configs_[unit];
    if (!held) {
      held = mountAgentShard<ConfigShard>(agentEm_, Traits::Constants::configShardPath(unit),
                                          "swTableEntries", 65536);
      if (!held) {
        throw Nimbo::InvalidArgumentException(
            fmt::format("the agent has no configuration of unit {}", unit));
      }
    }
    return *held;
  }

  Nimbo::Ptr<KestSharedMem::EntityManager> agentEm_;
  uint64_t processed_;
  Nimbo::Ptr<LogShard> log_;
  Clock::time_point nextLookForLog_;  // while there is no log
  std::optional<Stuck> stuck_;
  std::map<Asic::UnitId, Nimbo::Ptr<Tcam>> tcams_;
  std::map<Asic::UnitId, Nimbo::Ptr<ConfigShard>> configs_;
};

// Changes of one table applied before the version taken is recorded: a backlog is answered
// as it is worked off, not only at its end.
constexpr uint64_t kBatch = 4096;
constexpr auto kBusyFor = std::chrono::milliseconds(10);
constexpr std::chrono::microseconds kSlowestPoll = std::chrono::milliseconds(5);
constexpr auto kIdleAfter = std::chrono::seconds(1);
constexpr std::chrono::microseconds kSlowestIdlePoll = std::chrono::milliseconds(25);
constexpr auto kTellAfter = std::chrono::seconds(2);

// Says once what keeps an idle hardware side from working: no agent's change log at all
// (on `out`), or a change it has failed to read or apply for a while (on `err`).
void tellWhatHoldsItUp(std::vector<std::unique_ptr<HwTable>>& tables, Clock::time_point start,
                       Clock::time_point now, bool& toldNoAgent, std::ostream& status) {
  bool anyLog = false;
  for (size_t t = 0; t < tables.size(); ++t) {
    anyLog |= tables[t]->hasLog();
    auto& stuck = tables[t]->stuck();
    if (!stuck || stuck->told || now - stuck->since < kTellAfter) continue;
    stuck->told = true;
    fmt::print(status,
               "hw: change {} of {} cannot be read or applied ({}); retrying (if it lasts, stop "
               "the agent, {} and start it again: it rebuilds what is missing)\n",
               stuck->version, VeskTapAgg::kCatalogue[t].name, stuck->what, stuck->remedy);
    status.flush();
  }
  if (!anyLog && !toldNoAgent && now - start >= kTellAfter) {
    toldNoAgent = true;
    fmt::print(status, "hw: no agent's change log at {} yet; waiting for an agent\n",
               KestShard::Directory::rootPath());
    status.flush();
  }
}

}  // namespace

HardwareReport runHardwareSide(const HardwareOptions& options, std::ostream& status) {
  // SIGTERM and SIGINT end the loop, as they end the agent's: through asio, whose handler
  // runs between steps and cuts an idle sleep short.
  asio::io_context io;
  asio::signal_set signals(io, SIGTERM, SIGINT);
  bool stopRequested = false;
  HardwareReport report;
  signals.async_wait([&](const asio::error_code& error, int signal) {
    stopRequested = !error;
    report.stopSignal = error ? 0 : signal;
  });
  registerTcamShards();
  VeskTapAgg::registerTableShardTypes();

  auto agentEm =
      Asic::mountEntityManager(*Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true));
  const auto group =
      VeskTapAgg::TableConstants<VeskTapAgg::DefaultFwdTcamEntryTraits>::canonicalGroupName();
  auto versions = Asic::TableVersionShard::mountWriter(agentEm, group);

  std::vector<std::unique_ptr<HwTable>> tables;
  forEachTable([&]<class Traits>(size_t t) {
    const uint64_t resumed =
        versions->tableVersion(Traits::tableId).value_or(Asic::LogVersion()).value();
    report.resumedAfter[t] = resumed;
    tables.push_back(std::make_unique<HwTableOf<Traits>>(agentEm, resumed));
  });
  fmt::print(status, "hw: resuming after versions");
  for (size_t t = 0; t < kTableCount; ++t) fmt::print(status, " {}", report.resumedAfter[t]);
  fmt::print(status, "\n");
  status.flush();

  auto lastWork = Clock::now();
  auto lastProgress = Clock::now();
  const auto start = Clock::now();
  uint64_t total = 0;
  uint64_t totalShown = 0;
  auto idleSleep = options.pollEvery;
  bool toldNoAgent = false;
  // Idle sleeps wait on a timer: io_context::run_for would wait in epoll_wait, whose timeout
  // is whole milliseconds, so a 50 us look would take a millisecond (and every answer that
  // came just after the hardware side fell asleep would wait that long).
  asio::steady_timer idleTimer(io);
  bool slept = false;
  notifyServiceReady(status);
  while (io.poll(), !stopRequested) {
    uint64_t budget = UINT64_MAX;
    if (options.rate) {
      const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      const auto allowed = uint64_t(seconds * double(options.rate));
      budget = allowed > total ? allowed - total : 0;
    }
    uint64_t applied = 0;
    for (size_t t = 0; t < kTableCount && applied < budget; ++t) {
      const uint64_t n = tables[t]->step(std::min(budget - applied, kBatch), options.delay);
      if (n == 0) continue;
      applied += n;
      report.applied[t] += n;
      versions->tableVersionIs(VeskTapAgg::kCatalogue[t].tableId,
                               Asic::LogVersion(tables[t]->processed()));
    }
    total += applied;
    const auto now = Clock::now();
    if (applied || budget == 0) {  // at the rate limit it is busy, not idle
      lastWork = now;
      idleSleep = options.pollEvery;
    }
    if (options.exitWhenIdle.count() > 0 && now - lastWork > options.exitWhenIdle) {
      for (size_t t = 0; t < kTableCount; ++t) {
        if (const auto& stuck = tables[t]->stuck()) {
          throw HardwareError(fmt::format(
              "the hardware side stopped idle without applying change {} of {}: {} (stop the "
              "agent, {} and start it again: it rebuilds what is missing; then the hardware side)",
              stuck->version, VeskTapAgg::kCatalogue[t].name, stuck->what, stuck->remedy));
        }
      }
      break;
    }
    // A line when changes were applied since the previous one, with their rate; none idle.
    if (options.progressEvery.count() > 0 && now - lastProgress > options.progressEvery) {
      if (total != totalShown) {
        const double seconds = std::chrono::duration<double>(now - lastProgress).count();
        fmt::print(status, "hw: {} changes applied ({:.0f} changes/s)\n", total,
                   double(total - totalShown) / seconds);
        status.flush();
      }
      lastProgress = now;
      totalShown = total;
    }
    if (applied) continue;
    tellWhatHoldsItUp(tables, start, now, toldNoAgent, status);
    if (now - lastWork >= options.spinFor) {
      slept = false;
      idleTimer.expires_after(idleSleep);
      idleTimer.async_wait([&](const asio::error_code& error) { slept = !error; });
      while (!slept && !stopRequested) io.run_one();
      // Idle for a while: ever longer sleeps, so that waiting costs nothing; short enough
      // at first that a burst of changes after a pause is taken soon.
      if (now - lastWork > kBusyFor) {
        idleSleep = std::min<std::chrono::microseconds>(
            idleSleep * 2, now - lastWork > kIdleAfter ? kSlowestIdlePoll : kSlowestPoll);
      }
    }
  }
  for (size_t t = 0; t < kTableCount; ++t) report.taken[t] = tables[t]->processed();
  return report;
}

}  // namespace VeskTool
