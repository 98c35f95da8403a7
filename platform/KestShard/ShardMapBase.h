#pragma once

#include <cstdint>

#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Shard {

// Base of every mounted shared-memory collection: where damage found in it is reported.
// Operations that meet a damaged record throw Nimbo::CorruptionDetectedException; the
// caller hands the message to doCorruptionDetected(), which counts it, traces it and writes
// it to the system log, and goes on with a default record. Single-threaded.
class VESK_EXPORT ShardMapBase : public Nimbo::Node {
 public:
  explicit ShardMapBase(Nimbo::String name) : name_(std::move(name)) {}

  void doCorruptionDetected(const Nimbo::String& message);
  // Reports found by this process since the mount.
  uint64_t corruptionsDetected() const noexcept { return corruptions_; }
  const Nimbo::String& name() const noexcept { return name_; }

 protected:
  // Lets the shared header keep a count across processes (writers only).
  virtual void corruptionCountInc() {}

 private:
  Nimbo::String name_;
  uint64_t corruptions_ = 0;
};

}  // namespace Shard
