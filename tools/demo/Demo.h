#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace VeskTool {

struct DemoOptions {
  uint16_t units = 4;
  uint32_t keys = 10000;  // per table and unit
  uint64_t changes = 600000;
  uint64_t seed = 1;
  std::string exe;    // this program, to start the agent and hardware side with
  bool keep = false;  // keep the shared-memory root afterwards
};

// The whole story in one command, on a fresh shared-memory root: the hardware side starts,
// an agent writes a workload on all ten table types and several units and is killed with
// SIGKILL halfway, a second agent restores the tables and runs the workload to the end,
// and then the configuration, the change log, the hardware side's TCAM and what clients
// read must all agree. Prints a report; returns the exit code (non-zero on disagreement).
int runDemo(const DemoOptions& options, std::ostream& out);

}  // namespace VeskTool
