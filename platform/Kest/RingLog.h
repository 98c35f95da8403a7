#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Nimbo/Export.h"
#include "Nimbo/Time.h"

namespace Kest {

// A binary ring of the most recent events: fixed-size records (time, event id, up to four
// 64-bit arguments) written without formatting or allocation, overwriting the oldest when
// full, and turned into text only when dumped. Events are registered once by name with a
// {fmt} format for their arguments. Owned by value; single-threaded.
class VESK_EXPORT RingLog {
 public:
  struct Record {
    int64_t timeNs;
    uint32_t eventId;
    uint16_t argCount;
    uint16_t reserved;
    uint64_t args[4];
  };

  // capacity is rounded up to a power of two (at least 2).
  explicit RingLog(uint32_t capacity);

  // The id of an event, registered on first use (process-wide).
  static uint32_t eventIdFor(const std::string& name, const std::string& format);

  template <class... Args>
  void record(uint32_t eventId, Args... args) {
    static_assert(sizeof...(Args) <= 4, "a ring-log record holds at most four arguments");
    Record& r = slots_[next_++ & (slots_.size() - 1)];
    r.timeNs = now();
    r.eventId = eventId;
    r.argCount = uint16_t(sizeof...(Args));
    uint64_t values[] = {uint64_t(args)..., 0};
    for (size_t i = 0; i < sizeof...(Args); ++i) r.args[i] = values[i];
  }

  uint32_t capacity() const noexcept { return uint32_t(slots_.size()); }
  uint32_t size() const noexcept;
  // Records from the oldest kept to the newest.
  std::vector<Record> records() const;
  // One line per record: time, event name and its formatted arguments.
  void dump(std::FILE* out) const;
  static std::string text(const Record& record);

 private:
  static int64_t now() noexcept;
  std::vector<Record> slots_;
  uint64_t next_ = 0;
};

}  // namespace Kest
