#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kest {

// The project's persistent hash: a multiply-fold hash in the style of wyhash (it uses
// wyhash's "mum" step, a 64x64->128-bit multiply whose halves are folded with xor, and its
// constants) over 16-byte blocks, an 8-byte block and a zero-padded tail, finished by a
// multiply with the length. It is not wyhash itself: the block and tail steps differ, so
// its values are its own, pinned by known answers in tests/platform/runtime/HashTest.cpp.
// Chosen for short keys (a TCAM key is 72 bytes: five multiplies). Stable across
// processes and builds: shared-memory collections store hashes and checksums computed with
// it, so any change here is a layout change (bump KestShard's layout version) and fails
// the known answers.
inline uint64_t mix64(uint64_t a, uint64_t b) noexcept {
  __uint128_t r = static_cast<__uint128_t>(a ^ 0xa0761d6478bd642fULL) * (b ^ 0xe7037ed1a0b428dbULL);
  return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
}

inline uint64_t hashBytes(const void* data, size_t len, uint64_t seed) noexcept {
  const auto* p = static_cast<const unsigned char*>(data);
  uint64_t h = seed ^ (len * 0x9e3779b97f4a7c15ULL);
  size_t i = 0;
  for (; i + 16 <= len; i += 16) {
    uint64_t a, b;
    std::memcpy(&a, p + i, 8);
    std::memcpy(&b, p + i + 8, 8);
    h = mix64(a ^ h, b ^ 0x8ebc6af09c88c6e3ULL);
  }
  if (i + 8 <= len) {
    uint64_t a;
    std::memcpy(&a, p + i, 8);
    h = mix64(a ^ h, 0x589965cc75374cc3ULL);
    i += 8;
  }
  if (i < len) {
    uint64_t a = 0;
    std::memcpy(&a, p + i, len - i);
    h = mix64(a ^ h, 0x1d8e4e27c47d124fULL);
  }
  return mix64(h, len);
}

// 32-bit form used for the keys' hash(seed) operations.
inline uint32_t hash32(const void* data, size_t len, uint32_t seed) noexcept {
  uint64_t h = hashBytes(data, len, seed);
  return static_cast<uint32_t>(h ^ (h >> 32));
}

}  // namespace Kest
