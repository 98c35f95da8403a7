#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>

#include "types/TableTypes.h"

namespace VeskTest {

// The traits of the ten table types, as a gtest type list made from the catalogue.
template <class First, class... Rest>
struct DropFirst {
  using type = ::testing::Types<Rest...>;
};
#define VESK_TEST_TRAITS(Name, ...) , VeskTapAgg::Name##Traits
using AllTables = DropFirst<void VESK_TAPAGG_TABLES(VESK_TEST_TRAITS)>::type;
#undef VESK_TEST_TRAITS

// The ten types share one template, so behaviour is checked on the reference entry table
// and one action table (its entry holds more than its key); AllTables is for what differs.
using BehaviourTables =
    ::testing::Types<VeskTapAgg::DefaultFwdTcamEntryTraits, VeskTapAgg::DefaultFwdTcamActionTraits>;

// A key whose every byte differs from its neighbours', made from a seed.
template <class Key>
Key patternedKey(uint8_t seed) {
  Key key{};
  auto* bytes = reinterpret_cast<unsigned char*>(&key);
  for (size_t i = 0; i < sizeof key; ++i) bytes[i] = uint8_t(seed + i * 7 + 1);
  return key;
}

template <class Record>
bool allBytesZero(const Record& r) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&r);
  for (size_t i = 0; i < sizeof r; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

// A shared-memory path as entity managers take it: relative, '/'-separated, every
// component of [A-Za-z0-9._-] and neither "." nor "..".
inline bool validShmPath(const std::string& path) {
  static const std::regex component("[A-Za-z0-9._-]+");
  size_t begin = 0;
  while (true) {
    const size_t slash = path.find('/', begin);
    const std::string part = path.substr(begin, slash - begin);
    if (!std::regex_match(part, component) || part == "." || part == "..") return false;
    if (slash == std::string::npos) return true;
    begin = slash + 1;
  }
}

}  // namespace VeskTest
