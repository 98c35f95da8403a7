#pragma once

#include <cstdint>
#include <istream>
#include <string>
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
std::vector<Change> generateWorkload(const WorkloadSpec& spec);

// Reads a workload file, one change a line:
//   write <Table> <unit> <key> [variant]
//   remove <Table> <unit> <key>
//   removeAll <Table> <unit>
// Blank lines and lines starting with '#' are skipped. A malformed line throws
// std::invalid_argument naming its number and what is wrong; nothing is returned then.
std::vector<Change> parseWorkload(std::istream& in);
std::string formatChange(const Change& change);

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
