#pragma once

#include <cstdint>
#include <istream>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace VeskTool {

// One change a client asks of a table: write key number `key` (with `variant` of its
// entry), remove it, or remove every entry of the unit.
enum class ChangeKind : uint8_t { write, remove, removeAll };
struct Change {
  ChangeKind kind = ChangeKind::write;
  uint8_t table = 0;  // catalogue index
  uint16_t unit = 0;
  uint32_t key = 0;
  uint16_t variant = 0;
  friend bool operator==(const Change&, const Change&) = default;
};

// A generated workload: `changes` changes spread over `keys` keys of each table and unit,
// one in ten a remove and about one in `removeAllEvery` a remove-all, the same for the same
// seed.
struct WorkloadSpec {
  uint64_t seed = 1;
  std::vector<uint8_t> tables;
  std::vector<uint16_t> units;
  uint32_t keys = 10000;
  uint64_t changes = 100000;
  uint64_t removeAllEvery = 0;  // 0: none
};
// Makes a generated workload change by change, as it is asked for: its memory does not
// grow with the number of changes. Throws std::invalid_argument for a spec without a table,
// a unit or a key. A value type; one thread.
class WorkloadGenerator {
 public:
  explicit WorkloadGenerator(WorkloadSpec spec);
  // The next change into `change`; false once all of them were given.
  bool next(Change& change);

 private:
  WorkloadSpec spec_;
  std::mt19937_64 random_;
  uint64_t given_ = 0;
};

// Reads a workload, one change a line:
//   write <Table> <unit> <key> [variant]
//   remove <Table> <unit> <key>
//   removeAll <Table> <unit>
// Blank lines and lines starting with '#' are skipped. A malformed line, or one longer
// than kMaxWorkloadLine, throws std::invalid_argument as "<source>:<line>: what is wrong",
// echoing at most kMaxEchoed characters of a word; nothing is returned then. Reads at most
// kMaxWorkloadBytes, whatever the stream holds.
inline constexpr size_t kMaxWorkloadLine = 1024;
inline constexpr uint64_t kMaxWorkloadBytes = uint64_t(1) << 30;
std::vector<Change> parseWorkload(std::istream& in, const std::string& source);
// The workload of a file: a regular file (or a pipe) of at most kMaxWorkloadBytes; anything
// else, or a file that cannot be read to its end, throws std::invalid_argument naming it.
std::vector<Change> readWorkloadFile(const std::string& path);
std::string formatChange(const Change& change);

// A word of the user's, as an error message echoes it: at most kMaxEchoed characters, then
// "...".
inline constexpr size_t kMaxEchoed = 40;
std::string echoed(std::string_view word);

// What the tables hold after a run of changes: per table, (unit, key) -> variant.
class ExpectedState {
 public:
  explicit ExpectedState(size_t tables) : entries_(tables) {}
  void apply(const Change& change);
  static uint64_t slot(uint16_t unit, uint32_t key) { return uint64_t(unit) << 32 | key; }
  const std::unordered_map<uint64_t, uint16_t>& entries(size_t table) const {
    return entries_[table];
  }

 private:
  std::vector<std::unordered_map<uint64_t, uint16_t>> entries_;
};

}  // namespace VeskTool
