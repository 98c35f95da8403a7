// The persistent hash's values are part of the shared-memory layout: pinned here, so that
// a change to the hash (or to how a compiler builds it) cannot pass unnoticed.
#include <gtest/gtest.h>

#include <string_view>

#include "Kest/Hash.h"

namespace {

struct KnownAnswer {
  std::string_view input;
  uint64_t seed0;
  uint64_t seed5eed;
  uint32_t hash32seed7;
};

// Every path of the hash: empty, a tail only, one 8-byte block, one 16-byte block, a
// 16-byte block with a tail, and several blocks with an 8-byte block and a tail.
constexpr KnownAnswer kAnswers[] = {
    {"", 0x1ff5c2923a788d2cULL, 0x33a0b09ce3b7c841ULL, 0x6be63a72u},
    {"a", 0x04d9ac532c61369aULL, 0x6ed5dae72466c47dULL, 0x834833adu},
    {"abcdefgh", 0xa252446cbaab16b3ULL, 0xa710cf658b267068ULL, 0xd241f0a7u},
    {"0123456789abcdef", 0x33e4c99655dae31cULL, 0xe2b121626c5148f9ULL, 0xf1948679u},
    {"0123456789abcdefXYZ", 0x4b6053b157d32764ULL, 0xbf36f17af119b841ULL, 0x0b8edfb7u},
    {"The quick brown fox jumps over the lazy dog", 0xb39d2103997aa443ULL, 0xe408100333677a8fULL,
     0x02bde162u},
};

TEST(PersistentHash, GivesItsKnownAnswers) {
  for (const KnownAnswer& a : kAnswers) {
    EXPECT_EQ(Kest::hashBytes(a.input.data(), a.input.size(), 0), a.seed0) << '"' << a.input << '"';
    EXPECT_EQ(Kest::hashBytes(a.input.data(), a.input.size(), 0x5eed), a.seed5eed) << a.input;
    EXPECT_EQ(Kest::hash32(a.input.data(), a.input.size(), 7), a.hash32seed7) << a.input;
  }
}

}  // namespace
