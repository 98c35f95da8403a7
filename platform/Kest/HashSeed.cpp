#include "Kest/HashSeed.h"

#include <cstdlib>
#include <random>

namespace Kest {

uint32_t hashSeed() noexcept {
  static const uint32_t seed = [] {
    if (const char* env = std::getenv("VESK_HASH_SEED"); env && *env) {
      return uint32_t(std::strtoul(env, nullptr, 0));
    }
    return uint32_t(std::random_device{}());
  }();
  return seed;
}

}  // namespace Kest
