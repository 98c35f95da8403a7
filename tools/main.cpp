// vesktap: run an agent, a hardware side and an end-to-end demo, and inspect shared memory.
//
//   vesktap demo                 the whole story, with a restart, in one command
//   vesktap agent [options]      the agent: tables of its units, a workload, answers
//   vesktap hw [options]         the hardware side: change logs into simulated TCAMs
//   vesktap show [options]       what the shared memory holds, as text or JSON
//   vesktap metrics [options]    the counters of agent and hardware side, for Prometheus
//
// Data and reports go to stdout, progress and status to stderr. A usage error exits 2, any
// other failure 1, each with one line on stderr; stopped by SIGINT or SIGTERM, 130 or 143.
// The environment every command reads is in kEnvironment below (and in each --help).

#include <unistd.h>

#include <charconv>
#include <climits>
#include <iostream>
#include <string_view>

#include <fmt/ostream.h>
#include <CLI/CLI.hpp>

#include "Kest/Trace.h"
#include "Nimbo/Exception.h"
#include "tools/agent/Agent.h"
#include "tools/core/ReportFile.h"
#include "tools/demo/Demo.h"
#include "tools/hw/HardwareSide.h"
#include "tools/metrics/Metrics.h"
#include "tools/show/Show.h"

namespace {

using namespace VeskTool;

// The command line asks for something that cannot be done: exit code 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A generated workload is made as it runs, so its length costs no memory: this is about
// what an agent writes in a day.
constexpr uint64_t kMaxChanges = 100000000000;

constexpr const char* kEnvironment =
    "Environment:\n"
    "  VESK_SHM_ROOT    the shared-memory root (default /dev/shm/vesk)\n"
    "  VESK_TRACE       tracing: Name/levels items, comma-separated; levels 0 to 31 as N, A-B\n"
    "                   or N+M; the name * stands for every handle\n"
    "                   (e.g. VESK_TRACE=DefaultFwdTcamEntrySwTable/2,ShardMapBase/1)\n"
    "  VESK_LOG_STDERR  1: copy system-log messages (wiped or damaged shared memory,\n"
    "                   relaunches) to stderr, as happens anyway without a syslog socket;\n"
    "                   0: never\n"
    "  NOTIFY_SOCKET    set by systemd for a Type=notify unit: agent and hw send READY=1 there\n"
    "                   once ready (hw: running; agent: its tables restored)\n"
    "Output: data and reports on stdout; progress and status on stderr.\n"
    "Exit status: 0 done, 1 failed, 2 usage error, 130 and 143 stopped by SIGINT and SIGTERM.";

// A command's help footer: what else to know, the environment, an example.
std::string footer(std::string_view about, std::string_view example) {
  return fmt::format("{}{}{}\nExample:\n  {}", about, about.empty() ? "" : "\n\n", kEnvironment,
                     example);
}

// The exit status of a command that SIGINT or SIGTERM stopped, as a shell reports it.
int stoppedBy(int signal) { return signal ? 128 + signal : 0; }

// A whole number from `min` to `max`, written in decimal; anything else (a sign, a
// fraction, a number out of range) is refused naming the word as given, cut short.
CLI::Validator whole(uint64_t min, uint64_t max) {
  return CLI::Validator(
      [min, max](std::string& word) -> std::string {
        uint64_t value = 0;
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
        if (error != std::errc() || end != word.data() + word.size() || value < min ||
            value > max) {
          return fmt::format("'{}' is not a whole number from {} to {}", echoed(word), min, max);
        }
        word = std::to_string(value);  // decimal for the conversion too: "010" is ten
        return {};
      },
      fmt::format("{} to {}", min, max));
}

// CLI11's message on one line, an overlong word (a value of the user's) cut short.
std::string oneLine(const std::string& message) {
  std::string line, word;
  for (char c : message + ' ') {
    if (c != ' ' && c != '\n') {
      word += c;
      continue;
    }
    // Paths and option lists may be long; only a word far longer than any of them is cut.
    if (!line.empty() && !word.empty()) line += ' ';
    line += word.size() > 4 * kMaxEchoed ? echoed(word) : word;
    word.clear();
  }
  return line;
}

std::string selfPath() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) throw std::runtime_error("cannot find this program's path");
  return std::string(path, size_t(n));
}

std::vector<uint8_t> tableIndices(const std::vector<std::string>& names) {
  std::vector<uint8_t> indices;
  for (const auto& name : names) {
    const size_t index = tableIndexOf(name);
    if (index == kTableCount) {
      throw UsageError(
          fmt::format("--tables: unknown table '{}' (tables: {})", echoed(name), tableNameList()));
    }
    indices.push_back(uint8_t(index));
  }
  if (indices.empty()) {
    for (size_t t = 0; t < kTableCount; ++t) indices.push_back(uint8_t(t));
  }
  return indices;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"VeskTap: software tables of a switch's TCAMs, in shared memory"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("vesktap ") + VESK_VERSION,
                       "Print the version and exit");
  app.option_defaults()->always_capture_default();
  app.footer(footer("", "vesktap demo"));

  DemoOptions demo;
  auto* demoCmd = app.add_subcommand(
      "demo",
      "Run hardware side and agent, kill and restart the agent, check that everything agrees");
  demoCmd->add_option("--units", demo.units, "units per table type")->transform(whole(1, 64));
  demoCmd->add_option("--keys", demo.keys, "keys per table and unit")->transform(whole(1, 65536));
  demoCmd->add_option("--changes", demo.changes, "changes in the workload")
      ->transform(whole(1, kMaxChanges));
  demoCmd->add_option("--seed", demo.seed, "seed of the generated workload")
      ->transform(whole(0, UINT64_MAX));
  demoCmd->add_flag("--keep", demo.keep, "keep the shared-memory root afterwards");
  demoCmd->footer(footer("", "vesktap demo --units 4 --changes 200000"));

  AgentOptions agent;
  WorkloadSpec spec;
  std::vector<std::string> tableNames;
  std::string workloadFile, reportJson;
  int progressMs = 1000, giveUpMs = 0;
  bool noWait = false, noVerify = false;
  auto* agentCmd = app.add_subcommand(
      "agent", "Run the agent: restore (or clear) the units' tables and apply a workload");
  agentCmd->footer(
      footer("Changes that wait on the hardware side (none running, or a change log full) are told "
             "once and waited for without using the CPU; --give-up-ms ends the wait.",
             "vesktap agent --units 0 1 --changes 100000 --report-json -"));
  agentCmd->add_option("--units", agent.units, "units to drive")->transform(whole(0, 65535));
  agentCmd->add_flag("--clear", agent.clear, "clear the units' tables instead of restoring them");
  agentCmd->add_option("--tables", tableNames,
                       "table types the generated workload writes (default: all)");
  agentCmd->add_option("--seed", spec.seed, "seed of the generated workload")
      ->transform(whole(0, UINT64_MAX));
  agentCmd->add_option("--keys", spec.keys, "keys per table and unit")->transform(whole(1, 65536));
  agentCmd->add_option("--changes", spec.changes, "changes in the generated workload")
      ->transform(whole(0, kMaxChanges));
  agentCmd
      ->add_option("--remove-all-every", spec.removeAllEvery,
                   "about one remove-all in this many changes (0: none)")
      ->transform(whole(0, UINT32_MAX));
  agentCmd
      ->add_option(
          "--workload", workloadFile,
          fmt::format("read the changes from this file instead (a regular file of at most {} MiB, "
                      "lines of at most {} characters)",
                      kMaxWorkloadBytes >> 20, kMaxWorkloadLine))
      ->check(CLI::ExistingFile);
  agentCmd->add_option("--window", agent.window, "changes in flight at most")
      ->transform(whole(1, 10000000));
  int targetLatencyUs = int(agent.targetLatency.count());
  agentCmd
      ->add_option(
          "--target-latency-us", targetLatencyUs,
          "size the window for answers within this many microseconds (0: keep --window in flight)")
      ->transform(whole(0, 60000000));
  agentCmd->add_flag("--no-wait", noWait,
                     "finish once everything is committed, without waiting for the hardware side");
  agentCmd->add_flag("--no-verify", noVerify, "do not read back the keys the workload touched");
  agentCmd
      ->add_option("--progress-ms", progressMs,
                   "print progress this often, when it moved (0: never)")
      ->transform(whole(0, INT_MAX));
  agentCmd
      ->add_option("--give-up-ms", giveUpMs,
                   "give up (exit 1) when changes have waited this long with no hardware side "
                   "taking any (0: wait until Ctrl-C)")
      ->transform(whole(0, INT_MAX));
  agentCmd->add_option("--report-json", reportJson,
                       "write the report as JSON to this file, or to stdout for - (a file is "
                       "refused before the run if it cannot be written)");
  agentCmd->add_flag("--serve", agent.serve,
                     "after the workload, keep the tables and run until SIGTERM or SIGINT (a "
                     "service: exits 143 or 130 then, without reading the keys back)");

  HardwareOptions hw;
  int hwDelayUs = 0, hwIdleMs = 0, hwProgressMs = 0, hwSpinUs = int(hw.spinFor.count());
  auto* hwCmd =
      app.add_subcommand("hw", "Run the hardware side: apply the change logs to simulated TCAMs");
  hwCmd->footer(footer(
      "A TCAM file it cannot use (a symlink, a directory, another owner or mode) stops it with "
      "exit 1, naming the file; what it waits for (an agent, a change it cannot read) it says "
      "once.",
      "vesktap hw --progress-ms 1000"));
  hwCmd->add_option("--delay", hwDelayUs, "microseconds per change, to model a slow TCAM")
      ->transform(whole(0, 1000000));
  hwCmd->add_option("--rate", hw.rate, "changes per second at most (0: no limit)")
      ->transform(whole(0, 1000000000));
  hwCmd
      ->add_option("--spin-us", hwSpinUs,
                   "after work, look again without sleeping for this many microseconds")
      ->transform(whole(0, 1000000));
  hwCmd
      ->add_option("--exit-when-idle", hwIdleMs,
                   "stop after this many milliseconds without work (0: never)")
      ->transform(whole(0, INT_MAX));
  hwCmd
      ->add_option("--progress-ms", hwProgressMs,
                   "print progress this often, when it moved (0: never)")
      ->transform(whole(0, INT_MAX));

  ShowOptions show;
  std::string showTable;
  int showUnit = -1;
  auto* showCmd = app.add_subcommand(
      "show", "Show what the shared memory of an agent and its hardware side holds");
  showCmd->add_option("--table", showTable, "only this table type");
  showCmd->add_option("--unit", showUnit, "only this unit")->transform(whole(0, 65535));
  showCmd->add_flag("--entries", show.entries, "list every live entry");
  showCmd->add_flag("--json", show.json,
                    "print JSON (schemaVersion 1; docs/json.md, docs/vesktap.schema.json)");
  showCmd->footer(
      footer("Text is tables with a header line, one row per table type and per unit, entries\n"
             "ordered by key. LEVEL is ok below 70% of the capacity, warning from 70%, critical\n"
             "from 85%. A damaged file shows as error in its place and exits 1.",
             "vesktap show --table DefaultFwdTcamEntry --unit 0 --entries"));

  std::string metricsListen;
  auto* metricsCmd = app.add_subcommand(
      "metrics", "Print the counters of an agent and its hardware side for Prometheus");
  metricsCmd
      ->add_option("--listen", metricsListen,
                   "serve them at http://HOST:PORT/metrics instead, read afresh for every "
                   "request, until SIGTERM or SIGINT (port 0: a free one; the address is told "
                   "on stderr)")
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            try {
              parseListenAddress(text);
              return {};
            } catch (const std::invalid_argument& e) {
              return fmt::format("'{}': {}", echoed(text), e.what());
            }
          },
          ""))
      ->type_name("HOST:PORT");
  metricsCmd->footer(footer(
      "Prometheus text format, each family once: per table type (label table) and unit (label\n"
      "unit) what the agent's clients asked and were answered, from a running agent (at most\n"
      "10 ms old), and what the shared memory holds: change logs, what the hardware side has\n"
      "taken and its lag, the units' entries. Without a running agent vesktap_agent_up is 0.\n"
      "For node_exporter's textfile collector (the file appears whole):\n"
      "  vesktap metrics > DIR/vesktap.prom.$$ && mv DIR/vesktap.prom.$$ DIR/vesktap.prom\n"
      "A part that cannot be read is left out, told on stderr and counted in\n"
      "vesktap_read_errors; the exit status stays 0, so that the file is still replaced.",
      "vesktap metrics --listen 127.0.0.1:9464"));

  // Every refusal is one line on stderr, as for the errors the commands themselves raise.
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return fmt::format("vesktap: {} (see --help)\n", oneLine(e.what()));
  });
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  if (argc > 1 && argv[1][0] != '-' &&
      std::none_of(commands.begin(), commands.end(),
                   [&](const CLI::App* c) { return c->check_name(argv[1]); })) {
    fmt::print(std::cerr,
               "vesktap: unknown command '{}' (demo, agent, hw, show or metrics; see --help)\n",
               echoed(argv[1]));
    return 2;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);  // prints the help, or the one-line refusal
    return code == 0 ? 0 : 2;
  }
  for (const std::string& name : Kest::unknownTraceNames()) {
    fmt::print(std::cerr,
               "vesktap: VESK_TRACE: ignoring '{}': no class or trace handle has that name "
               "(handles are class names such as DefaultFwdTcamEntrySwTable, or SwTableIter)\n",
               echoed(name));
  }
  try {
    if (*demoCmd) {
      demo.exe = selfPath();
      return runDemo(demo, std::cout);
    }
    if (*agentCmd) {
      const bool reportToStdout = reportJson == "-";
      if (!reportJson.empty() && !reportToStdout) {
        try {
          checkWritable(reportJson);
        } catch (const std::runtime_error& e) {
          throw UsageError(fmt::format("--report-json: {}", e.what()));
        }
      }
      if (workloadFile.empty()) {
        // Made as the agent runs: a long workload costs no memory up front.
        spec.tables = tableIndices(tableNames);
        spec.units = agent.units;
        agent.workload = [spec] {
          return [generator = std::make_shared<WorkloadGenerator>(spec)](Change& c) {
            return generator->next(c);
          };
        };
        agent.changes = spec.changes;
      } else {
        auto changes = std::make_shared<std::vector<Change>>(readWorkloadFile(workloadFile));
        for (const Change& c : *changes) {
          if (std::find(agent.units.begin(), agent.units.end(), c.unit) == agent.units.end()) {
            throw std::invalid_argument(fmt::format("{}: '{}': unit {} is not one of --units",
                                                    workloadFile, formatChange(c), c.unit));
          }
        }
        agent.workload = [changes] {
          return [changes, at = size_t(0)](Change& c) mutable {
            if (at == changes->size()) return false;
            c = (*changes)[at++];
            return true;
          };
        };
        agent.changes = changes->size();
      }
      agent.targetLatency = std::chrono::microseconds(targetLatencyUs);
      agent.waitForHardware = !noWait;
      agent.verify = !noVerify;
      agent.progressEvery = std::chrono::milliseconds(progressMs);
      agent.giveUpAfter = std::chrono::milliseconds(giveUpMs);
      const AgentReport report = runAgent(agent, std::cerr);
      // Stdout holds one kind of data: the JSON report when it goes there, else the summary.
      printAgentSummary(report, reportToStdout ? std::cerr : std::cout);
      if (reportToStdout) {
        std::cout << agentReportJson(report) << '\n';
      } else if (!reportJson.empty()) {
        writeReport(reportJson, agentReportJson(report) + "\n");
      }
      std::cout.flush();
      if (report.gaveUp) {
        throw std::runtime_error(fmt::format(
            "gave up after {} ms without a hardware side taking changes (start `vesktap hw` on "
            "this shared-memory root, or raise --give-up-ms)",
            giveUpMs));
      }
      if (report.interrupted) return stoppedBy(report.stopSignal);
      return report.mismatches == 0 ? 0 : 1;
    }
    if (*hwCmd) {
      hw.delay = std::chrono::microseconds(hwDelayUs);
      hw.spinFor = std::chrono::microseconds(hwSpinUs);
      hw.exitWhenIdle = std::chrono::milliseconds(hwIdleMs);
      hw.progressEvery = std::chrono::milliseconds(hwProgressMs);
      const HardwareReport report = runHardwareSide(hw, std::cerr);
      uint64_t applied = 0;
      for (uint64_t a : report.applied) applied += a;
      fmt::print(std::cout, "hw: {} changes applied\n", applied);
      return stoppedBy(report.stopSignal);
    }
    if (*showCmd) {
      if (!showTable.empty()) {
        show.table = tableIndexOf(showTable);
        if (*show.table == kTableCount)
          throw UsageError(fmt::format("--table: unknown table '{}' (tables: {})",
                                       echoed(showTable), tableNameList()));
      }
      if (showUnit >= 0) show.unit = uint16_t(showUnit);
      // Whatever could be read is shown; a damaged part is an error in its place.
      return VeskTool::show(show, std::cout, std::cerr) == 0 ? 0 : 1;
    }
    if (*metricsCmd) {
      if (!metricsListen.empty())
        return stoppedBy(serveMetrics(parseListenAddress(metricsListen), std::cerr));
      printMetrics(std::cout, std::cerr);
    }
  } catch (const UsageError& e) {
    fmt::print(std::cerr, "vesktap: {} (see --help)\n", e.what());
    return 2;
  } catch (const std::exception& e) {
    fmt::print(std::cerr, "vesktap: {}\n", e.what());
    return 1;
  }
  return 0;
}
