#include "KestShard/ShardMapBase.h"

#include "Kest/Log.h"
#include "Kest/Trace.h"

namespace Shard {
namespace {

VESK_LOG_MESSAGE(kCorruption, "SHARD_CORRUPTION_DETECTED", "Shared-memory collection damaged: %s",
                 "A record or header of a shared-memory collection failed its integrity check. "
                 "The operation went on as if the record were absent.",
                 "Compare the table with the hardware. If damage recurs, restart the agent so that "
                 "the collection is rebuilt.",
                 3);

// At most ten reports a second reach the system log; the rest are counted.
Kest::LogHandle& corruptionLog() {
  static auto* handle = new Kest::LogHandle(kCorruption, Nimbo::Duration::seconds(1), 10.0, 0, 0);
  return *handle;
}

// Made when the library loads, so that VESK_TRACE naming it is known before it traces.
Kest::TraceHandle& shardMapTrace = Kest::traceHandle("ShardMapBase");

}  // namespace

void ShardMapBase::doCorruptionDetected(const Nimbo::String& message) {
  ++corruptions_;
  corruptionCountInc();
  VESK_TRACE(shardMapTrace, 1, "ShardMapBase", "{}: {}", name_, message);
  Kest::log(corruptionLog(), name_ + ": " + message);
}

}  // namespace Shard
