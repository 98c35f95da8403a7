#include "KestShard/CollectionControl.h"

#include <fmt/format.h>

#include "KestShard/Atomics.h"
#include "Nimbo/Exception.h"

namespace KestShard {

bool CollectionControl::wiped() const noexcept { return loadAcquire(segment_->header().wiped) != 0; }

void CollectionControl::clearWiped() {
  requireWriter("clearWiped");
  storeRelease(segment_->header().wiped, 0u);
}

uint64_t CollectionControl::scratchpad() const noexcept {
  return loadAcquire(segment_->header().scratchpad);
}

void CollectionControl::scratchpadIs(uint64_t value) {
  requireWriter("scratchpadIs");
  storeRelease(segment_->header().scratchpad, value);
}

void CollectionControl::requireWriter(const char* operation) const {
  if (!segment_->writable()) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("{} on {}: the collection is mounted read-only", operation, segment_->path()));
  }
}

}  // namespace KestShard
