#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>

#include "Nimbo/Assert.h"

namespace Nimbo {

// A first-in-first-out queue whose elements carry consecutive 32-bit serial indices, so
// that a client can name a queued element (a resolver entry, a log version) by number.
// A queue that never held an element starts at index 1, which leaves 0 free to mean
// "none". Indices wrap around 2^32 and are compared in serial-number arithmetic: a
// difference below 2^31 counts as forward, which is why a queue never holds 2^31 elements.
// Accessors return a default T (a null Ptr) for an element the queue does not hold.
// Owned by value by its user; single-threaded.
template <class T>
class RQueue {
 public:
  RQueue() = default;
  // A queue whose first element will carry `firstIndex`, e.g. to resume a numbering.
  explicit RQueue(uint32_t firstIndex) : frontIndex_(firstIndex) {}

  // Appends at the back; returns the new element's index. A queue that cannot grow stops
  // the process (std::terminate on the std::bad_alloc): a handle dropped from it would
  // leave its client unanswered for ever.
  uint32_t enq(T value) noexcept {
    VESK_ASSERT(items_.size() < kHalfRange - 1);
    items_.push_back(std::move(value));
    return backIndex();
  }
  // Removes the front element and returns it.
  T deq() {
    if (items_.empty()) return T();
    T front = std::move(items_.front());
    items_.pop_front();
    ++frontIndex_;
    return front;
  }
  void delAll() {
    frontIndex_ += uint32_t(items_.size());
    items_.clear();
  }

  T front() const { return items_.empty() ? T() : items_.front(); }
  T back() const { return items_.empty() ? T() : items_.back(); }
  T at(uint32_t index) const { return has(index) ? items_[offsetOf(index)] : T(); }

  // Whether `index` lies between the front's and the back's index (inclusive).
  bool has(uint32_t index) const noexcept {
    return !items_.empty() && !serialBefore(index, frontIndex_) &&
           !serialBefore(backIndex(), index);
  }
  uint32_t frontIndex() const noexcept { return frontIndex_; }
  // The newest element's index; frontIndex() - 1 when empty, i.e. the last index handed out.
  uint32_t backIndex() const noexcept { return frontIndex_ + uint32_t(items_.size()) - 1; }
  size_t size() const noexcept { return items_.size(); }
  bool empty() const noexcept { return items_.empty(); }

 private:
  static constexpr uint32_t kHalfRange = 1u << 31;

  // a comes before b when b is less than half the index range ahead of a.
  static bool serialBefore(uint32_t a, uint32_t b) noexcept {
    const uint32_t ahead = b - a;
    return ahead != 0 && ahead < kHalfRange;
  }
  size_t offsetOf(uint32_t index) const noexcept { return uint32_t(index - frontIndex_); }

  std::deque<T> items_;
  uint32_t frontIndex_ = 1;
};

}  // namespace Nimbo
