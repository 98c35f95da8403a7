#include "Kest/TraceSetting.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace Kest {
namespace {

constexpr unsigned kLevels = 32;

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

bool parseLevel(std::string_view s, unsigned& level) {
  auto [end, error] = std::from_chars(s.data(), s.data() + s.size(), level);
  return !s.empty() && error == std::errc() && end == s.data() + s.size() && level < kLevels;
}

// "N" or "A-B" into mask bits; false when malformed.
bool parseRange(std::string_view s, uint32_t& mask) {
  unsigned lo, hi;
  const size_t dash = s.find('-');
  if (dash == std::string_view::npos) {
    if (!parseLevel(s, lo)) return false;
    hi = lo;
  } else if (!parseLevel(s.substr(0, dash), lo) || !parseLevel(s.substr(dash + 1), hi) || lo > hi) {
    return false;
  }
  for (unsigned level = lo; level <= hi; ++level) mask |= 1u << level;
  return true;
}

// "N", "A-B" or "N+M+..." into a mask; false when malformed.
bool parseLevels(std::string_view s, uint32_t& mask) {
  mask = 0;
  for (size_t start = 0;;) {
    const size_t plus = std::min(s.find('+', start), s.size());
    if (!parseRange(s.substr(start, plus - start), mask)) return false;
    if (plus == s.size()) return true;
    start = plus + 1;
  }
}

}  // namespace

TraceSetting TraceSetting::parse(std::string_view text) {
  TraceSetting setting;
  for (size_t start = 0; start <= text.size();) {
    const size_t comma = std::min(text.find(',', start), text.size());
    setting.add(trimmed(text.substr(start, comma - start)));
    start = comma + 1;
  }
  return setting;
}

void TraceSetting::add(std::string_view item) {
  if (item.empty()) return;  // "A/1,,B/2" or a trailing comma: nothing meant, nothing wrong
  const size_t slash = item.rfind('/');
  uint32_t mask = 0;
  if (slash == std::string_view::npos || slash == 0 || !parseLevels(item.substr(slash + 1), mask)) {
    malformed_.emplace_back(item);
    return;
  }
  items_.push_back({std::string(item.substr(0, slash)), mask});
}

std::vector<std::string> TraceSetting::names() const {
  std::vector<std::string> names;
  for (const Item& item : items_) {
    if (item.name != "*") names.push_back(item.name);
  }
  return names;
}

uint32_t TraceSetting::maskFor(std::string_view handleName) const noexcept {
  uint32_t mask = 0;
  for (const Item& item : items_) {
    if (item.name == "*" || item.name == handleName) mask |= item.mask;
  }
  return mask;
}

void TraceSetting::reportMalformed(std::string_view source) const {
  for (const std::string& item : malformed_) {
    std::fprintf(stderr,
                 "%.*s: ignoring \"%s\": expected Name/N, Name/A-B or Name/N+M+... with levels "
                 "0 to 31\n",
                 int(source.size()), source.data(), item.c_str());
  }
}

}  // namespace Kest
