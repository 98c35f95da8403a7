#include "KestShard/ShardMapBase.h"

#include <cstdio>

namespace Shard {

void ShardMapBase::doCorruptionDetected(const Nimbo::String& message) {
  ++corruptions_;
  corruptionCountInc();
  std::fprintf(stderr, "corruption detected in %s: %s\n", name_.c_str(), message.c_str());
}

}  // namespace Shard
