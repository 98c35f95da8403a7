#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tools/core/LatencyHistogram.h"
#include "tools/core/TableDispatch.h"
#include "tools/core/Workload.h"

namespace VeskTool {

struct AgentOptions {
  std::vector<uint16_t> units{0};
  bool clear = false;  // clear the units' tables instead of restoring them
  // The changes, and how many there are: `workload()` gives a reader of them from the first
  // on (`next(change)` is false at the end). The agent asks it for changes one at a time as
  // the window has room (a generated workload is made as it runs), and for a second reader
  // to check the tables after the run.
  using ChangeReader = std::function<bool(Change&)>;
  std::function<ChangeReader()> workload;
  uint64_t changes = 0;
  uint32_t window = 20000;  // changes in flight (written, not yet answered) at most
  // The confirmation latency the window is sized for: it shrinks while answers take longer
  // and grows while they come faster and the window is full. 0: always `window` in flight.
  std::chrono::microseconds targetLatency{1000};
  bool waitForHardware = true;                    // finish only when every change is confirmed
  bool verify = true;                             // read back every key the workload touched
  std::chrono::milliseconds progressEvery{1000};  // 0: no progress lines
  // How often the table-version map is read while answers come or are due; when nothing
  // has moved for a while, ever less often (at most 50 times a second).
  std::chrono::microseconds pollEvery{25};
  // Give up when committed changes have waited this long with no hardware side taking any;
  // 0: wait until SIGTERM or SIGINT (saying so once).
  std::chrono::milliseconds giveUpAfter{0};
  // Keep running after the workload, holding the tables, until SIGTERM or SIGINT: the agent
  // as a service (it tells systemd it is ready once the tables are restored, either way).
  bool serve = false;
};

// What one agent run did, for its summary and for the demo.
struct AgentReport {
  struct PerTable {
    uint64_t accepted = 0, committed = 0, confirmed = 0, failed = 0;
  };
  std::array<PerTable, kTableCount> tables{};
  uint64_t restoredEntries = 0;
  double restoreMs = 0;
  double runSeconds = 0;
  LatencyHistogram latencies;  // write to answer, of the confirmed changes (when waited for)
  uint64_t mismatches = 0;     // keys whose read disagreed with the workload
  bool interrupted = false;    // stopped by SIGTERM or SIGINT
  int stopSignal = 0;          // which of them
  bool gaveUp = false;         // stopped after `giveUpAfter` without a hardware side

  uint64_t total(uint64_t PerTable::*field) const;
};

// The agent: one event loop (asio) on one thread. Makes the ten table types through their
// interfaces, the tables of its units (restored, or cleared), then writes the workload with
// at most `window` changes in flight (fewer while answers take longer than
// `targetLatency`: a change waits behind every change in flight, so a window larger than
// the hardware side needs to keep busy only adds queueing to each answer), lets the group
// resolver commit them whenever it has work, and turns what the hardware side records in
// the table-version map into tableStatusVersion calls, which answer the clients. Stops when every
// change is answered (or committed, without waiting for the hardware; never, with `serve`), or on
// SIGTERM/SIGINT. Says once when changes wait on the hardware side (none taking them, or a change
// log full), and waits without using the CPU.
AgentReport runAgent(const AgentOptions& options, std::ostream& out);
void printAgentSummary(const AgentReport& report, std::ostream& out);
// The report as JSON, for scripts and the demo: totals, per table, restore, latencies.
std::string agentReportJson(const AgentReport& report);

}  // namespace VeskTool
