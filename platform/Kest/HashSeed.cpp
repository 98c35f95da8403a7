#include "Kest/HashSeed.h"

#include <cstdio>
#include <cstdlib>
#include <random>

namespace Kest {
namespace {

uint32_t seedFromEnvironment() {
  const char* env = std::getenv("VESK_HASH_SEED");
  if (env && *env) {
    char* end = nullptr;
    const unsigned long long seed = std::strtoull(env, &end, 0);
    if (*end == '\0' && seed <= UINT32_MAX) return uint32_t(seed);
    std::fprintf(stderr, "VESK_HASH_SEED: ignoring \"%s\": expected a 32-bit number\n", env);
  }
  return uint32_t(std::random_device{}());
}

}  // namespace

uint32_t hashSeed() noexcept {
  static const uint32_t seed = seedFromEnvironment();
  return seed;
}

}  // namespace Kest
