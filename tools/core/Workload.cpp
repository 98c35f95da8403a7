#include "tools/core/Workload.h"

#include <charconv>
#include <random>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "tools/core/TableDispatch.h"

namespace VeskTool {

std::vector<Change> generateWorkload(const WorkloadSpec& spec) {
  if (spec.tables.empty() || spec.units.empty() || spec.keys == 0) {
    throw std::invalid_argument("a workload needs at least one table, one unit and one key");
  }
  std::mt19937_64 random(spec.seed);
  std::vector<Change> changes;
  changes.reserve(spec.changes);
  for (uint64_t i = 0; i < spec.changes; ++i) {
    const uint64_t r = random();
    Change c;
    c.table = spec.tables[r % spec.tables.size()];
    c.unit = spec.units[(r >> 8) % spec.units.size()];
    c.key = uint32_t((r >> 16) % spec.keys);
    c.variant = uint16_t(r >> 48);
    const uint64_t pick = (r >> 40) % 100;
    if (spec.removeAllEvery && random() % spec.removeAllEvery == 0) {
      c.kind = ChangeKind::removeAll;
      c.key = 0;
      c.variant = 0;
    } else if (pick < 10) {
      c.kind = ChangeKind::remove;
      c.variant = 0;
    }
    changes.push_back(c);
  }
  return changes;
}

namespace {

template <class Int>
Int number(const std::string& word, Int max, const char* what, size_t line) {
  uint64_t value = 0;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size() || value > max) {
    throw std::invalid_argument(
        fmt::format("line {}: bad {} '{}' (a number from 0 to {})", line, what, word, max));
  }
  return Int(value);
}

}  // namespace

std::vector<Change> parseWorkload(std::istream& in) {
  std::vector<Change> changes;
  std::string text;
  for (size_t line = 1; std::getline(in, text); ++line) {
    std::istringstream words(text);
    std::vector<std::string> w;
    for (std::string word; words >> word;) w.push_back(word);
    if (w.empty() || w[0][0] == '#') continue;
    Change c;
    size_t expected = 0;
    if (w[0] == "write") {
      c.kind = ChangeKind::write;
      expected = 4;
    } else if (w[0] == "remove") {
      c.kind = ChangeKind::remove;
      expected = 4;
    } else if (w[0] == "removeAll") {
      c.kind = ChangeKind::removeAll;
      expected = 3;
    } else {
      throw std::invalid_argument(fmt::format(
          "line {}: unknown change '{}' (write, remove or removeAll)", line, w[0]));
    }
    const bool variant = c.kind == ChangeKind::write && w.size() == 5;
    if (w.size() != expected && !variant) {
      throw std::invalid_argument(fmt::format(
          "line {}: expected '{}'", line,
          c.kind == ChangeKind::write    ? "write <table> <unit> <key> [variant]"
          : c.kind == ChangeKind::remove ? "remove <table> <unit> <key>"
                                         : "removeAll <table> <unit>"));
    }
    const size_t table = tableIndexOf(w[1]);
    if (table == kTableCount) {
      throw std::invalid_argument(fmt::format("line {}: unknown table '{}'", line, w[1]));
    }
    c.table = uint8_t(table);
    c.unit = number<uint16_t>(w[2], UINT16_MAX, "unit id", line);
    if (expected == 4) c.key = number<uint32_t>(w[3], UINT32_MAX, "key", line);
    if (variant) c.variant = number<uint16_t>(w[4], UINT16_MAX, "variant", line);
    changes.push_back(c);
  }
  return changes;
}

std::string formatChange(const Change& c) {
  const std::string_view table = VeskTapAgg::kCatalogue[c.table].name;
  switch (c.kind) {
    case ChangeKind::write:
      return fmt::format("write {} {} {} {}", table, c.unit, c.key, c.variant);
    case ChangeKind::remove:
      return fmt::format("remove {} {} {}", table, c.unit, c.key);
    case ChangeKind::removeAll:
      return fmt::format("removeAll {} {}", table, c.unit);
  }
  return {};
}

void ExpectedState::apply(const Change& c) {
  auto& entries = entries_[c.table];
  switch (c.kind) {
    case ChangeKind::write:
      entries[slot(c.unit, c.key)] = c.variant;
      break;
    case ChangeKind::remove:
      entries.erase(slot(c.unit, c.key));
      break;
    case ChangeKind::removeAll:
      std::erase_if(entries, [&](const auto& e) { return uint16_t(e.first >> 32) == c.unit; });
      break;
  }
}

}  // namespace VeskTool
