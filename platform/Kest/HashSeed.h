#pragma once

#include <cstdint>

#include "Nimbo/Export.h"

namespace Kest {

// The process-wide hash seed: random for each process, so that hash order cannot be
// predicted from outside, unless VESK_HASH_SEED gives one (for reproducible runs).
VESK_EXPORT uint32_t hashSeed() noexcept;

}  // namespace Kest
