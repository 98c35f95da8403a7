// vesktap: run an agent, a hardware side and an end-to-end demo, and inspect shared memory.
//
//   vesktap demo                 the whole story, with a restart, in one command
//   vesktap agent [options]      the agent: tables of its units, a workload, answers
//   vesktap hw [options]         the hardware side: change logs into simulated TCAMs
//   vesktap show [options]       what the shared memory holds, as text or JSON
//
// VESK_SHM_ROOT picks the shared-memory root (default /dev/shm/vesk); VESK_TRACE switches
// tracing on, e.g. VESK_TRACE="DefaultFwdTcamEntrySwTable/2".

#include <unistd.h>

#include <climits>
#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fmt/ostream.h>

#include "Nimbo/Exception.h"
#include "tools/agent/Agent.h"
#include "tools/demo/Demo.h"
#include "tools/hw/HardwareSide.h"
#include "tools/show/Show.h"

namespace {

using namespace VeskTool;

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
    if (index == kTableCount) throw CLI::ValidationError("--tables", "unknown table '" + name + "'");
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

  DemoOptions demo;
  auto* demoCmd = app.add_subcommand("demo", "Run hardware side and agent, kill and restart the agent, check that everything agrees");
  demoCmd->add_option("--units", demo.units, "units per table type")->check(CLI::Range(1, 64));
  demoCmd->add_option("--keys", demo.keys, "keys per table and unit")->check(CLI::Range(1, 65536));
  demoCmd->add_option("--changes", demo.changes, "changes in the workload")->check(CLI::PositiveNumber);
  demoCmd->add_option("--seed", demo.seed, "seed of the generated workload");
  demoCmd->add_flag("--keep", demo.keep, "keep the shared-memory root afterwards");

  AgentOptions agent;
  WorkloadSpec spec;
  std::vector<std::string> tableNames;
  std::string workloadFile, reportJson;
  int progressMs = 1000;
  bool noWait = false, noVerify = false;
  auto* agentCmd = app.add_subcommand("agent", "Run the agent: restore (or clear) the units' tables and apply a workload");
  agentCmd->add_option("--units", agent.units, "units to drive")->check(CLI::Range(0, 65535));
  agentCmd->add_flag("--clear", agent.clear, "clear the units' tables instead of restoring them");
  agentCmd->add_option("--tables", tableNames, "table types the generated workload writes (default: all)");
  agentCmd->add_option("--seed", spec.seed, "seed of the generated workload");
  agentCmd->add_option("--keys", spec.keys, "keys per table and unit")->check(CLI::Range(1, 65536));
  agentCmd->add_option("--changes", spec.changes, "changes in the generated workload");
  agentCmd->add_option("--remove-all-every", spec.removeAllEvery, "about one remove-all in this many changes (0: none)");
  agentCmd->add_option("--workload", workloadFile, "read the changes from this file instead")->check(CLI::ExistingFile);
  agentCmd->add_option("--window", agent.window, "changes in flight at most")->check(CLI::Range(1, 10000000));
  int targetLatencyUs = int(agent.targetLatency.count());
  agentCmd->add_option("--target-latency-us", targetLatencyUs, "size the window for answers within this many microseconds (0: keep --window in flight)")->check(CLI::NonNegativeNumber);
  agentCmd->add_flag("--no-wait", noWait, "finish once everything is committed, without waiting for the hardware side");
  agentCmd->add_flag("--no-verify", noVerify, "do not read back the keys the workload touched");
  agentCmd->add_option("--progress-ms", progressMs, "print progress this often (0: never)")->check(CLI::NonNegativeNumber);
  agentCmd->add_option("--report-json", reportJson, "write the report as JSON to this file");

  HardwareOptions hw;
  int hwDelayUs = 0, hwIdleMs = 0, hwProgressMs = 0, hwSpinUs = int(hw.spinFor.count());
  auto* hwCmd = app.add_subcommand("hw", "Run the hardware side: apply the change logs to simulated TCAMs");
  hwCmd->add_option("--delay", hwDelayUs, "microseconds per change, to model a slow TCAM")->check(CLI::NonNegativeNumber);
  hwCmd->add_option("--rate", hw.rate, "changes per second at most (0: no limit)");
  hwCmd->add_option("--spin-us", hwSpinUs, "after work, look again without sleeping for this many microseconds")->check(CLI::NonNegativeNumber);
  hwCmd->add_option("--exit-when-idle", hwIdleMs, "stop after this many milliseconds without work (0: never)")->check(CLI::NonNegativeNumber);
  hwCmd->add_option("--progress-ms", hwProgressMs, "print progress this often (0: never)")->check(CLI::NonNegativeNumber);

  ShowOptions show;
  std::string showTable;
  int showUnit = -1;
  auto* showCmd = app.add_subcommand("show", "Show what the shared memory of an agent and its hardware side holds");
  showCmd->add_option("--table", showTable, "only this table type");
  showCmd->add_option("--unit", showUnit, "only this unit")->check(CLI::Range(0, 65535));
  showCmd->add_flag("--entries", show.entries, "list every live entry");
  showCmd->add_flag("--json", show.json, "print JSON");

  // Every refusal is one line on stderr, as for the errors the commands themselves raise.
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return fmt::format("vesktap: {} (see --help)\n", e.what());
  });
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  if (argc > 1 && argv[1][0] != '-' &&
      std::none_of(commands.begin(), commands.end(), [&](const CLI::App* c) { return c->check_name(argv[1]); })) {
    fmt::print(std::cerr, "vesktap: unknown command '{}' (demo, agent, hw or show; see --help)\n", argv[1]);
    return 2;
  }
  CLI11_PARSE(app, argc, argv);
  try {
    if (*demoCmd) {
      demo.exe = selfPath();
      return runDemo(demo, std::cout);
    }
    if (*agentCmd) {
      if (workloadFile.empty()) {
        spec.tables = tableIndices(tableNames);
        spec.units = agent.units;
        agent.workload = generateWorkload(spec);
      } else {
        std::ifstream in(workloadFile);
        agent.workload = parseWorkload(in);
        for (const Change& c : agent.workload) {
          if (std::find(agent.units.begin(), agent.units.end(), c.unit) == agent.units.end()) {
            throw std::invalid_argument(fmt::format("{}: unit {} is not one of --units", formatChange(c), c.unit));
          }
        }
      }
      agent.targetLatency = std::chrono::microseconds(targetLatencyUs);
      agent.waitForHardware = !noWait;
      agent.verify = !noVerify;
      agent.progressEvery = std::chrono::milliseconds(progressMs);
      const AgentReport report = runAgent(agent, std::cout);
      printAgentSummary(report, std::cout);
      if (!reportJson.empty()) std::ofstream(reportJson) << agentReportJson(report) << "\n";
      return report.mismatches == 0 ? 0 : 1;
    }
    if (*hwCmd) {
      hw.delay = std::chrono::microseconds(hwDelayUs);
      hw.spinFor = std::chrono::microseconds(hwSpinUs);
      hw.exitWhenIdle = std::chrono::milliseconds(hwIdleMs);
      hw.progressEvery = std::chrono::milliseconds(hwProgressMs);
      const HardwareReport report = runHardwareSide(hw, std::cout);
      uint64_t applied = 0;
      for (uint64_t a : report.applied) applied += a;
      fmt::print(std::cout, "hw: {} changes applied\n", applied);
      return 0;
    }
    if (*showCmd) {
      if (!showTable.empty()) {
        show.table = tableIndexOf(showTable);
        if (*show.table == kTableCount) throw std::invalid_argument("unknown table '" + showTable + "'");
      }
      if (showUnit >= 0) show.unit = uint16_t(showUnit);
      VeskTool::show(show, std::cout);
      return 0;
    }
  } catch (const std::exception& e) {
    fmt::print(std::cerr, "vesktap: {}\n", e.what());
    return 1;
  }
  return 0;
}
