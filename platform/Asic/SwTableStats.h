#pragma once

#include <cstdint>

#include "Nimbo/Ptr.h"
#include "Nimbo/Time.h"

namespace Asic {

// The counters of one software table: what its clients asked for and what the table did
// with it. Each counter `x` has a reader x() and xInc(n). Owned by the table (shared with
// the entry log by reference count); single-threaded.
class SwTableStats : public Nimbo::Node {
 public:
#define VESK_SW_TABLE_COUNTERS(X) \
  X(entryWriteCnt)                \
  X(entryRemoveCnt)               \
  X(commitCnt)                    \
  X(updateCnt)                    \
  X(tableClearCnt)                \
  X(suppressedWriteCnt)           \
  X(suppressCheckDiffCnt)

#define VESK_SW_TABLE_COUNTER_ACCESSORS(name)        \
  uint64_t name() const noexcept { return name##_; } \
  void name##Inc(uint64_t by) noexcept { name##_ += by; }
  VESK_SW_TABLE_COUNTERS(VESK_SW_TABLE_COUNTER_ACCESSORS)
#undef VESK_SW_TABLE_COUNTER_ACCESSORS

  // When the table last committed a change (UTC); the epoch before the first.
  Nimbo::Time lastCommitTime() const noexcept { return lastCommitTime_; }
  void lastCommitTimeIs(Nimbo::Time time) noexcept { lastCommitTime_ = time; }

 private:
#define VESK_SW_TABLE_COUNTER_FIELD(name) uint64_t name##_ = 0;
  VESK_SW_TABLE_COUNTERS(VESK_SW_TABLE_COUNTER_FIELD)
#undef VESK_SW_TABLE_COUNTER_FIELD
  Nimbo::Time lastCommitTime_;
};

}  // namespace Asic
