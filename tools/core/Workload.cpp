#include "tools/core/Workload.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "tools/core/TableDispatch.h"

namespace VeskTool {

WorkloadGenerator::WorkloadGenerator(WorkloadSpec spec)
    : spec_(std::move(spec)), random_(spec_.seed) {
  if (spec_.tables.empty() || spec_.units.empty() || spec_.keys == 0) {
    throw std::invalid_argument("a workload needs at least one table, one unit and one key");
  }
}

bool WorkloadGenerator::next(Change& c) {
  if (given_ == spec_.changes) return false;
  ++given_;
  const uint64_t r = random_();
  c = Change{};
  c.table = spec_.tables[r % spec_.tables.size()];
  c.unit = spec_.units[(r >> 8) % spec_.units.size()];
  c.key = uint32_t((r >> 16) % spec_.keys);
  c.variant = uint16_t(r >> 48);
  const uint64_t pick = (r >> 40) % 100;
  if (spec_.removeAllEvery && random_() % spec_.removeAllEvery == 0) {
    c.kind = ChangeKind::removeAll;
    c.key = 0;
    c.variant = 0;
  } else if (pick < 10) {
    c.kind = ChangeKind::remove;
    c.variant = 0;
  }
  return true;
}

namespace {

// Where an error is: "<source>:<line>".
struct Place {
  const std::string& source;
  size_t line;
};

template <class... Args>
std::invalid_argument errorAt(const Place& at, fmt::format_string<Args...> format, Args&&... args) {
  return std::invalid_argument(fmt::format("{}:{}: {}", at.source, at.line,
                                           fmt::format(format, std::forward<Args>(args)...)));
}

template <class Int>
Int number(const std::string& word, Int max, const char* what, const Place& at) {
  uint64_t value = 0;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size() || value > max) {
    throw errorAt(at, "bad {} '{}' (a number from 0 to {})", what, echoed(word), max);
  }
  return Int(value);
}

// The next line of `in` into `text`, without its newline; false at the end. Never reads
// more than kMaxWorkloadLine characters of a line.
bool nextLine(std::istream& in, std::string& text, const Place& at) {
  char buffer[kMaxWorkloadLine + 1];
  in.getline(buffer, sizeof buffer);
  const auto read = size_t(in.gcount());
  if (in.bad()) throw errorAt(at, "read error: the file cannot be read to its end");
  if (in.fail() && !in.eof()) {
    throw errorAt(at, "line longer than {} characters (is this a workload file?)",
                  kMaxWorkloadLine);
  }
  if (read == 0 && in.eof()) return false;
  text.assign(buffer, in.eof() ? read : read - 1);  // without the newline
  if (text.find('\0') != std::string::npos)
    throw errorAt(at, "binary data (is this a workload file?)");
  return true;
}

}  // namespace

std::string echoed(std::string_view word) {
  if (word.size() <= kMaxEchoed) return std::string(word);
  return std::string(word.substr(0, kMaxEchoed)) + "...";
}

std::vector<Change> parseWorkload(std::istream& in, const std::string& source) {
  std::vector<Change> changes;
  std::string text;
  uint64_t bytes = 0;
  for (size_t line = 1;; ++line) {
    const Place at{source, line};
    if (!nextLine(in, text, at)) break;
    bytes += text.size() + 1;
    if (bytes > kMaxWorkloadBytes) {
      throw errorAt(at, "more than {} MiB of workload (split it into several runs)",
                    kMaxWorkloadBytes >> 20);
    }
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
      throw errorAt(at, "unknown change '{}' (write, remove or removeAll)", echoed(w[0]));
    }
    const bool variant = c.kind == ChangeKind::write && w.size() == 5;
    if (w.size() != expected && !variant) {
      throw errorAt(at, "expected '{}'",
                    c.kind == ChangeKind::write    ? "write <table> <unit> <key> [variant]"
                    : c.kind == ChangeKind::remove ? "remove <table> <unit> <key>"
                                                   : "removeAll <table> <unit>");
    }
    const size_t table = tableIndexOf(w[1]);
    if (table == kTableCount) {
      throw errorAt(at, "unknown table '{}' (tables: {})", echoed(w[1]), tableNameList());
    }
    c.table = uint8_t(table);
    c.unit = number<uint16_t>(w[2], UINT16_MAX, "unit id", at);
    if (expected == 4) c.key = number<uint32_t>(w[3], UINT32_MAX, "key", at);
    if (variant) c.variant = number<uint16_t>(w[4], UINT16_MAX, "variant", at);
    changes.push_back(c);
  }
  return changes;
}

std::vector<Change> readWorkloadFile(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    throw std::invalid_argument(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
  }
  if (!S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode)) {
    throw std::invalid_argument(fmt::format("{}: not a regular file (give a workload file)", path));
  }
  if (uint64_t(st.st_size) > kMaxWorkloadBytes) {
    throw std::invalid_argument(
        fmt::format("{}: {} MiB, more than the {} MiB a workload may have "
                    "(split it into several runs)",
                    path, uint64_t(st.st_size) >> 20, kMaxWorkloadBytes >> 20));
  }
  std::ifstream in(path);
  if (!in)
    throw std::invalid_argument(fmt::format("{}: cannot be read: {}", path, std::strerror(errno)));
  return parseWorkload(in, path);
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
