#include "KestShard/CollectionControl.h"

#include "KestShard/Atomics.h"

namespace KestShard {

bool CollectionControl::wiped() const noexcept {
  return loadAcquire(segment_->header().wiped) != 0;
}

void CollectionControl::clearWiped() {
  segment_->requireWritable("clearWiped");
  storeRelease(segment_->header().wiped, 0u);
}

uint64_t CollectionControl::scratchpad() const noexcept {
  return loadAcquire(segment_->header().scratchpad);
}

void CollectionControl::scratchpadIs(uint64_t value) {
  segment_->requireWritable("scratchpadIs");
  storeRelease(segment_->header().scratchpad, value);
}

}  // namespace KestShard
