#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/core/Workload.h"

namespace VeskTool {

// Where the shared memory disagrees with what a workload left: configuration entries that
// differ from the workload's final state, TCAM lines that differ from the configuration,
// and change-log records the hardware side has not taken.
struct Agreement {
  uint64_t configEntries = 0;
  uint64_t tcamLines = 0;
  uint64_t configMismatches = 0;
  uint64_t tcamMismatches = 0;
  uint64_t untaken = 0;
  std::vector<std::string> examples;  // the first few disagreements, as text
  bool agrees() const { return configMismatches == 0 && tcamMismatches == 0 && untaken == 0; }
};

// Reads the agent's and the hardware side's shared memory (read-only) for `units`.
Agreement checkAgreement(const ExpectedState& expected, const std::vector<uint16_t>& units);

}  // namespace VeskTool
