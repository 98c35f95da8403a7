#pragma once

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "Nimbo/Export.h"

namespace Kest {

// A binary ring of the most recent events, for post-mortem reading of what a component
// did just before trouble. Records have a fixed size (time, event id, handle id, up to
// four 64-bit arguments) and are written without formatting or allocation; the newest
// overwrites the oldest once the ring is full. Events are registered once by name with a
// {fmt} format for their arguments, handles (who recorded) by name, so that a dump reads
// as text. Owned by value by the component that records; single-threaded. The name and
// handle registries are process-wide and may be used from any thread.
class VESK_EXPORT RingLog {
 public:
  static constexpr unsigned kMaxArgs = 4;

  struct Record {
    int64_t timeNs;  // UTC
    uint32_t eventId;
    uint16_t handleId;  // 0: none
    uint8_t argCount;
    uint8_t signedArgs;  // bit i: args[i] holds a two's-complement int64_t
    uint64_t args[kMaxArgs];
  };
  static_assert(sizeof(Record) == 48 && std::is_trivially_copyable_v<Record>);

  // Visits the kept records from the oldest to the newest. Invalidated by record().
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Record;
    using difference_type = std::ptrdiff_t;
    using pointer = const Record*;
    using reference = const Record&;

    Iterator() = default;
    const Record& operator*() const noexcept { return ring_->slot(seq_); }
    const Record* operator->() const noexcept { return &ring_->slot(seq_); }
    Iterator& operator++() noexcept {
      ++seq_;
      return *this;
    }
    Iterator operator++(int) noexcept { return Iterator(ring_, seq_++); }
    friend bool operator==(const Iterator& a, const Iterator& b) noexcept {
      return a.seq_ == b.seq_;
    }

   private:
    friend class RingLog;
    Iterator(const RingLog* ring, uint64_t seq) : ring_(ring), seq_(seq) {}
    const RingLog* ring_ = nullptr;
    uint64_t seq_ = 0;
  };

  // `capacity` must be a power of two, so that a slot is found with a mask.
  explicit RingLog(uint32_t capacity);

  // The id of the event `name`, registered on first use with the {fmt} `format` its
  // arguments are printed with (a later registration of the name keeps the first format).
  static uint32_t eventIdFor(std::string_view name, std::string_view format);
  // The id of the handle `name`, registered on first use; ids start at 1.
  static uint16_t handleIdFor(std::string_view name);

  // Appends a record of `eventId` with up to four integer or enum arguments.
  template <class... Args>
  void record(uint32_t eventId, Args... args) noexcept {
    recordFor(0, eventId, args...);
  }
  template <class... Args>
  void recordFor(uint16_t handleId, uint32_t eventId, Args... args) noexcept {
    static_assert(sizeof...(Args) <= kMaxArgs, "a ring-log record holds at most four arguments");
    static_assert((... && (std::is_integral_v<Args> || std::is_enum_v<Args>)),
                  "ring-log arguments are integers or enums");
    Record& r = slots_[next_++ & (capacity_ - 1)];
    r = Record{
        clockNs(),          eventId, handleId, uint8_t(sizeof...(Args)), signedMask<Args...>(),
        {uint64_t(args)...}};
  }

  uint32_t capacity() const noexcept { return capacity_; }
  uint32_t size() const noexcept;
  // Records ever written, including those overwritten since.
  uint64_t recorded() const noexcept { return next_; }
  Iterator begin() const noexcept { return Iterator(this, next_ - size()); }
  Iterator end() const noexcept { return Iterator(this, next_); }
  void clear() noexcept { next_ = 0; }

  // One line per kept record, oldest first: time, handle, event name and arguments.
  void dump(std::FILE* out) const;
  // A record's event name and formatted arguments: "restored: 10 entries for unit 7".
  static std::string text(const Record& record);

 private:
  static int64_t clockNs() noexcept;
  template <class... Args>
  static constexpr uint8_t signedMask() noexcept {
    uint8_t mask = 0, bit = 1;
    ((mask |= std::is_signed_v<Args> ? bit : 0, bit <<= 1), ...);
    return mask;
  }
  const Record& slot(uint64_t seq) const noexcept { return slots_[seq & (capacity_ - 1)]; }

  uint32_t capacity_;
  std::unique_ptr<Record[]> slots_;
  uint64_t next_ = 0;  // sequence number of the next record
};

}  // namespace Kest
