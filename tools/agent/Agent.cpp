#include "tools/agent/Agent.h"

#include <algorithm>
#include <bit>
#include <memory>
#include <unordered_set>

#include <fmt/format.h>
#include <fmt/ostream.h>
#include <asio.hpp>

#include "Asic/Constants.h"
#include "Asic/OrderedTableInterface.h"
#include "tools/agent/AgentLock.h"
#include "tools/agent/TableDriver.h"
#include "tools/agent/WaitWatch.h"
#include "tools/core/AgentCounters.h"
#include "tools/core/Json.h"
#include "tools/core/ServiceNotify.h"
#include "types/TableTypes.h"

namespace VeskTool {

uint64_t AgentReport::total(uint64_t PerTable::*field) const {
  uint64_t sum = 0;
  for (const PerTable& t : tables) sum += t.*field;
  return sum;
}

namespace {

using Clock = std::chrono::steady_clock;

// One run of the agent's event loop; lives on the stack of runAgent.
class AgentLoop final : public TableDriver::Answers {
 public:
  AgentLoop(const AgentOptions& options, std::ostream& out, AgentReport& report)
      : options_(options),
        out_(out),
        report_(report),
        signals_(io_, SIGTERM, SIGINT),
        pollTimer_(io_),
        progressTimer_(io_),
        waitWatch_(out, options.waitForHardware, kSilentFor),
        issued_(std::bit_ceil(uint64_t(options.window) * 2)),
        total_(options.changes),
        limit_(adaptive() ? std::min(options.window, kFirstWindow) : options.window),
        pollInterval_(options.pollEvery),
        progressInterval_(options.progressEvery) {}

  void run() {
    const AgentLock lock;
    counters_.emplace(options_.units);
    changes_ = options_.workload();
    makeTables();
    resolver_ = group_->groupResolver();
    resolver_->schedulerIs([this] {
      asio::post(io_, [this] {
        if (resolver_->runUntilIdle() > 0) answersDue();
        if (!options_.waitForHardware) feed();  // the window counts uncommitted changes then
      });
    });
    signals_.async_wait([this](const asio::error_code& error, int signal) {
      if (error) return;
      report_.interrupted = true;
      report_.stopSignal = signal;
      io_.stop();
    });
    start_ = Clock::now();
    lastActivity_ = start_;
    asio::post(io_, [this] { feed(); });
    pollHardware();
    if (options_.progressEvery.count() > 0) printProgress();
    notifyServiceReady(out_);
    io_.run();
    publishCounters();
    report_.runSeconds = std::chrono::duration<double>(Clock::now() - start_).count();
    for (size_t t = 0; t < kTableCount; ++t) report_.tables[t].committed = drivers_[t]->committed();
    if (options_.verify && !report_.interrupted && !report_.gaveUp) verify();
  }

 private:
  void makeTables() {
    auto em = Nimbo::make<Cairn::EntityManager>(VeskTapAgg::kAgentName, true);
    orderedTableIntf_ = Nimbo::make<Asic::OrderedTableInterface>(em);
    const auto begin = Clock::now();
    for (size_t t = 0; t < kTableCount; ++t) {
      drivers_.push_back(tableDriverFor(t));
      report_.restoredEntries +=
          drivers_[t]->makeTables(orderedTableIntf_, options_.units, options_.clear);
    }
    report_.restoreMs = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    counters_->restoreIs(report_.restoredEntries, report_.restoreMs);
    group_ = orderedTableIntf_->groupInterface(
        Asic::Constants::canonicalizeGroupName(VeskTapAgg::kAgentName, VeskTapAgg::kGroupName));
    taken_.assign(kTableCount, Asic::LogVersion());
    fmt::print(out_, "{} {} tables of {} units: {} entries in {:.2f} ms\n",
               options_.clear ? "cleared" : "restored", kTableCount * options_.units.size(),
               options_.units.size(), report_.restoredEntries, report_.restoreMs);
  }

  // Issues changes until the window is full or the workload is done. A change is known to
  // its table driver by a number that carries its table (`number & 0xff`).
  void feed() {
    Change c;
    while (next_ < total_ && unsettled() < limit_) {
      if (!changes_(c)) {
        total_ = next_;  // the workload had fewer changes than it said
        break;
      }
      ++inFlight_;
      ++report_.tables[c.table].accepted;
      const uint64_t number = next_ << 8 | c.table;
      issued_[next_ & (issued_.size() - 1)] = {number, Clock::now()};
      drivers_[c.table]->apply(c, number, *this);
      ++next_;
    }
    if (next_ < total_) windowFilled_ = true;
    maybeFinish();
  }

  bool adaptive() const { return options_.waitForHardware && options_.targetLatency.count() > 0; }

  // After a round of answers: a window whose answers come later than the target shrinks by
  // a quarter; one whose answers come in under half of it grows by a quarter, if it was
  // full (else more room would not have been used).
  void resizeWindow() {
    if (!adaptive()) return;
    const double target = double(options_.targetLatency.count());
    if (slowestUs_ > target) {
      limit_ = std::max(std::min(kSmallestWindow, options_.window), limit_ - limit_ / 4);
    } else if (slowestUs_ < target / 2 && windowFilled_) {
      limit_ = std::min(options_.window, limit_ + limit_ / 4 + 1);
    }
    slowestUs_ = 0;
    windowFilled_ = false;
  }

  // Changes still to be answered, or without waiting for the hardware, to be committed.
  size_t unsettled() const {
    return options_.waitForHardware ? inFlight_ : resolver_->resolverQueueSize();
  }

  void answered(uint64_t change, bool confirmed) override {
    --inFlight_;
    const uint8_t table = uint8_t(change & 0xff);
    const Issued& issued = issued_[(change >> 8) & (issued_.size() - 1)];
    if (confirmed) {
      ++report_.tables[table].confirmed;
      if (issued.number == change) {
        const double us =
            std::chrono::duration<double, std::micro>(Clock::now() - issued.at).count();
        report_.latencies.add(us);
        slowestUs_ = std::max(slowestUs_, us);
      }
    } else {
      ++report_.tables[table].failed;
    }
    if (!feedPosted_ && next_ < total_ && inFlight_ < limit_) {
      feedPosted_ = true;
      asio::post(io_, [this] {
        feedPosted_ = false;
        feed();
      });
    }
    maybeFinish();
  }

  void maybeFinish() {
    if (next_ < total_ || options_.serve) return;
    if (unsettled() == 0) io_.stop();
  }

  // Reads what the hardware side has taken of each table type and passes it on; tells the
  // operator when changes wait on it (WaitWatch), and gives up after `giveUpAfter`.
  void pollHardware() {
    bool moved = false;
    auto& shown = shownTables_;
    shown.resize(kTableCount);
    for (size_t t = 0; t < kTableCount; ++t) {
      TableDriver& driver = *drivers_[t];
      const auto taken = group_->tableVersion(driver.tableId());
      if (taken && taken_[t] < *taken) {
        taken_[t] = *taken;
        driver.hardwareTook(*taken);
        moved = true;
      }
      driver.answerRemoveAlls(taken_[t]);
      shown[t] = {VeskTapAgg::kCatalogue[t].name, driver.logVersion().value(), taken_[t].value(),
                  driver.logRecords(), driver.logCapacity()};
    }
    const auto now = Clock::now();
    if (moved) {
      lastActivity_ = now;
      resizeWindow();
      resolver_->maybeUpdateSuspend();
    }
    if (!options_.waitForHardware) maybeFinish();
    waitWatch_.look(shown, resolver_->resolverQueueSize(), now);
    if (options_.giveUpAfter.count() > 0 && waitWatch_.stalledFor(now) >= options_.giveUpAfter) {
      report_.gaveUp = true;
      io_.stop();
      return;
    }
    // Fast while answers come or are due; then ever slower, so that waiting costs nothing:
    // slowest while no hardware side takes changes at all, yet soon enough to give up on time.
    if (now - lastActivity_ < kBusyFor) {
      pollInterval_ = options_.pollEvery;
    } else {
      const auto stalled = waitWatch_.stalledFor(now);
      auto slowest = stalled >= kStalledAfter ? kStalledPoll : kSlowestPoll;
      if (options_.giveUpAfter.count() > 0 && stalled > Clock::duration::zero()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(options_.giveUpAfter - stalled);
        slowest = std::clamp(left, options_.pollEvery, slowest);
      }
      pollInterval_ = std::min<std::chrono::microseconds>(pollInterval_ * 2, slowest);
    }
    // A serving agent with every change answered has nothing to look for until it stops.
    const bool done = options_.serve && next_ == total_ && inFlight_ == 0;
    // The counters other processes read: at most kPublishEvery old, exact once done.
    if (done || now >= nextPublish_) {
      publishCounters();
      nextPublish_ = now + kPublishEvery;
    }
    if (done) return;
    armPoll();
  }

  void armPoll() {
    pollTimer_.expires_after(pollInterval_);  // cancels a wait already armed
    pollTimer_.async_wait([this](const asio::error_code& error) {
      if (!error) pollHardware();
    });
  }

  // Changes were just committed: their answers are due, so look at the hardware side often
  // again at once.
  void answersDue() {
    lastActivity_ = Clock::now();
    if (pollInterval_ == options_.pollEvery) return;
    pollInterval_ = options_.pollEvery;
    armPoll();
  }

  // A line when something moved since the previous one; a stalled run is told by WaitWatch.
  // While nothing moves it looks ever less often, up to once a second.
  void printProgress() {
    progressTimer_.expires_after(progressInterval_);
    progressTimer_.async_wait([this](const asio::error_code& error) {
      if (error) return;
      uint64_t committed = 0;
      for (const auto& d : drivers_) committed += d->committed();
      const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
      const uint64_t confirmed = report_.total(&AgentReport::PerTable::confirmed);
      std::string line = fmt::format("progress: {}/{} accepted, {} committed, {} confirmed", next_,
                                     total_, committed, confirmed);
      if (line != lastProgress_) {
        fmt::print(out_, "{} ({:.0f} changes/s)\n", line, double(confirmed) / seconds);
        out_.flush();
        lastProgress_ = std::move(line);
        progressInterval_ = options_.progressEvery;
      } else {
        progressInterval_ =
            std::min(progressInterval_ * 2,
                     std::max<std::chrono::milliseconds>(options_.progressEvery, kSlowestProgress));
      }
      printProgress();
    });
  }

  void publishCounters() {
    for (size_t t = 0; t < kTableCount; ++t) {
      const auto& p = report_.tables[t];
      counters_->tableIs(t, {p.confirmed, p.failed, p.accepted - p.confirmed - p.failed});
      drivers_[t]->forEachUnitStats([&](uint16_t unit, const Asic::SwTableStats& s) {
        counters_->unitIs(t, unit,
                          {s.entryWriteCnt(), s.entryRemoveCnt(), s.commitCnt(),
                           s.suppressedWriteCnt(), s.tableClearCnt()});
      });
    }
  }

  // Reads back every key the workload touched and compares it with what the workload left
  // (read again from its start: memory grows with the keys, not the changes).
  void verify() {
    ExpectedState expected(kTableCount);
    std::vector<std::unordered_set<uint64_t>> touched(kTableCount);
    const auto again = options_.workload();
    Change c;
    for (uint64_t n = 0; n < next_ && again(c); ++n) {
      expected.apply(c);
      if (c.kind != ChangeKind::removeAll)
        touched[c.table].insert(ExpectedState::slot(c.unit, c.key));
    }
    for (size_t t = 0; t < kTableCount; ++t) {
      for (uint64_t slot : touched[t]) {
        const auto it = expected.entries(t).find(slot);
        const uint16_t* variant = it == expected.entries(t).end() ? nullptr : &it->second;
        if (!drivers_[t]->readsAs(uint16_t(slot >> 32), uint32_t(slot), variant)) {
          ++report_.mismatches;
        }
      }
    }
  }

  const AgentOptions& options_;
  std::ostream& out_;
  AgentReport& report_;
  asio::io_context io_;
  asio::signal_set signals_;
  asio::steady_timer pollTimer_;
  asio::steady_timer progressTimer_;
  WaitWatch waitWatch_;
  std::vector<WaitWatch::Table> shownTables_;  // at the latest look, kept for its memory
  Nimbo::Ptr<Asic::OrderedTableInterface> orderedTableIntf_;
  Nimbo::Ptr<Asic::GroupInterface> group_;
  Nimbo::Ptr<Asic::GroupResolver> resolver_;
  std::vector<std::unique_ptr<TableDriver>> drivers_;
  std::vector<Asic::LogVersion> taken_;
  AgentOptions::ChangeReader changes_;  // what feed() writes next
  // When the changes in flight were written, by their sequence number modulo its size
  // (twice the largest window): a change answered after its slot was reused has no latency.
  struct Issued {
    uint64_t number = ~uint64_t(0);
    Clock::time_point at;
  };
  std::vector<Issued> issued_;
  uint64_t total_;  // changes in the workload
  uint64_t next_ = 0;
  uint32_t inFlight_ = 0;
  uint32_t limit_;             // changes in flight at most, now
  bool windowFilled_ = false;  // feed stopped at the limit since the last resize
  double slowestUs_ = 0;       // slowest answer since the last resize
  bool feedPosted_ = false;
  Clock::time_point start_;
  Clock::time_point lastActivity_;  // changes committed or taken by the hardware side
  std::chrono::microseconds pollInterval_;
  std::chrono::milliseconds progressInterval_;
  std::string lastProgress_;
  std::optional<AgentCounters> counters_;
  Clock::time_point nextPublish_;

  static constexpr uint32_t kFirstWindow = 256;
  static constexpr uint32_t kSmallestWindow = 16;
  static constexpr auto kBusyFor = std::chrono::milliseconds(10);
  static constexpr std::chrono::microseconds kSlowestPoll = std::chrono::milliseconds(20);
  static constexpr auto kStalledAfter = std::chrono::milliseconds(500);
  static constexpr std::chrono::microseconds kStalledPoll = std::chrono::milliseconds(250);
  static constexpr auto kSlowestProgress = std::chrono::seconds(1);
  static constexpr auto kSilentFor = std::chrono::seconds(2);
  static constexpr auto kPublishEvery = std::chrono::milliseconds(10);
};

}  // namespace

AgentReport runAgent(const AgentOptions& options, std::ostream& out) {
  AgentReport report;
  AgentLoop(options, out, report).run();
  return report;
}

void printAgentSummary(const AgentReport& r, std::ostream& out) {
  fmt::print(out, "{:<32} {:>10} {:>10} {:>10} {:>7}\n", "table", "accepted", "committed",
             "confirmed", "failed");
  for (size_t t = 0; t < kTableCount; ++t) {
    const auto& p = r.tables[t];
    fmt::print(out, "{:<32} {:>10} {:>10} {:>10} {:>7}\n", VeskTapAgg::kCatalogue[t].name,
               p.accepted, p.committed, p.confirmed, p.failed);
  }
  const uint64_t confirmed = r.total(&AgentReport::PerTable::confirmed);
  fmt::print(out,
             "total: {} accepted, {} committed, {} confirmed in {:.3f} s ({:.0f} changes/s); "
             "confirmation p50 {:.0f} us, p99 {:.0f} us{}\n",
             r.total(&AgentReport::PerTable::accepted), r.total(&AgentReport::PerTable::committed),
             confirmed, r.runSeconds, r.runSeconds > 0 ? double(confirmed) / r.runSeconds : 0.0,
             r.latencies.percentile(50), r.latencies.percentile(99),
             r.interrupted ? " (interrupted)"
             : r.gaveUp    ? " (gave up waiting)"
                           : "");
  if (r.mismatches) fmt::print(out, "MISMATCH: {} keys read back differently\n", r.mismatches);
}

std::string agentReportJson(const AgentReport& r) {
  Json j = jsonDocument("agentReport");
  j["restoredEntries"] = r.restoredEntries;
  j["restoreMs"] = r.restoreMs;
  j["runSeconds"] = r.runSeconds;
  j["accepted"] = r.total(&AgentReport::PerTable::accepted);
  j["committed"] = r.total(&AgentReport::PerTable::committed);
  j["confirmed"] = r.total(&AgentReport::PerTable::confirmed);
  j["failed"] = r.total(&AgentReport::PerTable::failed);
  j["confirmationP50Us"] = r.latencies.percentile(50);
  j["confirmationP99Us"] = r.latencies.percentile(99);
  Json buckets = Json::array();
  r.latencies.forEachBucket([&](double upToUs, uint64_t count) {
    buckets.push_back({{"upToUs", upToUs}, {"count", count}});
  });
  j["confirmationLatencyUs"] = std::move(buckets);
  j["mismatches"] = r.mismatches;
  j["interrupted"] = r.interrupted;
  j["gaveUp"] = r.gaveUp;
  Json tables = Json::array();
  for (size_t t = 0; t < kTableCount; ++t) {
    const auto& p = r.tables[t];
    tables.push_back({{"table", VeskTapAgg::kCatalogue[t].name},
                      {"accepted", p.accepted},
                      {"committed", p.committed},
                      {"confirmed", p.confirmed},
                      {"failed", p.failed}});
  }
  j["tables"] = std::move(tables);
  return j.dump(2);
}

}  // namespace VeskTool
