// Any bytes against the workload parser. A workload it accepts must have no line longer
// than the limit and must read back the same from its own formatting; one it refuses must
// be refused with std::invalid_argument, in one line of bounded length. Anything else
// (another exception, a crash, a sanitizer report, a hang) is a finding.

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "tools/core/TableDispatch.h"
#include "tools/core/Workload.h"

namespace {

using VeskFuzz::require;

size_t longestLine(std::string_view text) {
  size_t longest = 0;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    longest = std::max(longest, end - begin);
    begin = end + 1;
  }
  return longest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<VeskTool::Change> changes;
  try {
    std::istringstream in(text);
    changes = VeskTool::parseWorkload(in, "fuzz");
  } catch (const std::invalid_argument& e) {
    const std::string_view what = e.what();
    require(what.find_first_of("\r\n") == std::string_view::npos, "an error is not one line");
    // Bounded whatever the input: a cut echo, and for an unknown table the list of names.
    require(what.size() <= 256 + VeskTool::tableNameList().size(),
            "an error echoes too much of its input");
    return 0;
  }
  require(longestLine(text) <= VeskTool::kMaxWorkloadLine, "a line over the limit was accepted");
  std::string formatted;
  for (const VeskTool::Change& c : changes) formatted += VeskTool::formatChange(c) + "\n";
  std::istringstream again(formatted);
  require(VeskTool::parseWorkload(again, "formatted") == changes,
          "a workload does not read back the same from its formatting");
  return 0;
}
