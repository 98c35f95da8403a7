#pragma once

#include <cstdint>

#include "Nimbo/Export.h"

namespace Kest {

// The process-wide hash seed under every salted in-memory hash map: random for each
// process, so that nobody outside can choose keys that collide, unless the environment
// variable VESK_HASH_SEED gives one (decimal or 0x-hex), so that a run, its iteration
// orders included, can be reproduced. Read once; any thread.
VESK_EXPORT uint32_t hashSeed() noexcept;

}  // namespace Kest
