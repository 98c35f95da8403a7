#include "Workload.h"

namespace VeskPeers {

namespace {

// splitmix64: small, fast, and the same sequence on every platform and library.
struct SplitMix64 {
  uint64_t state;
  uint64_t next() noexcept {
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  // Uniform in [0, n), by the high bits of a 64x64 product.
  uint32_t below(uint32_t n) noexcept { return uint32_t((__uint128_t(next()) * n) >> 64); }
  // Uniform in [0, 1).
  double unit() noexcept { return double(next() >> 11) * 0x1.0p-53; }
};

}  // namespace

Key Workload::keyOf(uint32_t i) noexcept {
  Key k{};
  k.priority = i;
  k.ingressPort = {1 + i % 48, 0xffffffffu};
  k.vlan = {uint16_t(1 + i % 4094), 0x0fff};
  k.etherType = {0x0800, 0xffff};
  k.dstIp = {0x0a000000u | (i * 2654435761u >> 8), 0xffffffffu};
  k.srcIp = {0xc0a80000u | (i & 0xffff), 0xffff0000u};
  k.ipProtocol = {6, 0xff};
  k.l4DstPort = {uint16_t(1024 + i % 60000), 0xffff};
  k.actionIndex = i % 1024;
  return k;
}

Workload::Workload(uint64_t changes, uint32_t keys, double deleteShare, uint64_t seed) {
  keys_.reserve(keys);
  entries_.reserve(keys);
  for (uint32_t i = 0; i < keys; ++i) {
    keys_.push_back(keyOf(i));
    entries_.push_back(Entry{keys_.back()});
  }
  std::vector<uint64_t> live((keys + 63) / 64, 0);
  ops_.reserve(changes);
  SplitMix64 rng{seed};
  for (uint64_t n = 0; n < changes; ++n) {
    uint32_t i = rng.below(keys);
    uint64_t bit = uint64_t(1) << (i % 64);
    uint64_t& word = live[i / 64];
    bool isDelete = rng.unit() < deleteShare;
    if (isDelete && !(word & bit)) {
      isDelete = false;
      ++turned_;
    }
    if (isDelete) {
      word &= ~bit;
      ops_.push_back({i, Kind::erase});
    } else {
      word |= bit;
      ops_.push_back({i, Kind::write});
      ++writes_;
    }
  }
  for (uint64_t word : live) liveAtEnd_ += uint64_t(__builtin_popcountll(word));
}

}  // namespace VeskPeers
