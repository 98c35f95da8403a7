#pragma once

#include <cstdint>
#include <deque>
#include <utility>

namespace Nimbo {

// A first-in-first-out queue whose elements carry consecutive 32-bit serial indices. A
// queue that never held an element starts at index 1; indices wrap around 2^32 and are
// compared in serial-number arithmetic (a difference below 2^31 counts as forward).
// Owned by value; single-threaded.
template <class T>
class RQueue {
 public:
  RQueue() = default;
  // A queue whose first element will carry `firstIndex` (e.g. to resume a numbering).
  explicit RQueue(uint32_t firstIndex) : frontIndex_(firstIndex) {}

  // Appends at the back; returns the new element's index.
  uint32_t enq(T value) {
    items_.push_back(std::move(value));
    return backIndex();
  }
  // Removes the front and returns it (a default T when empty).
  T deq() {
    if (items_.empty()) return T();
    T front = std::move(items_.front());
    items_.pop_front();
    ++frontIndex_;
    return front;
  }
  T front() const { return items_.empty() ? T() : items_.front(); }
  T back() const { return items_.empty() ? T() : items_.back(); }
  // The element at `index`; a default T when the queue does not hold it.
  T at(uint32_t index) const { return has(index) ? items_[uint32_t(index - frontIndex_)] : T(); }
  bool has(uint32_t index) const noexcept {
    if (items_.empty()) return false;
    const uint32_t ahead = index - frontIndex_;  // wraps
    const uint32_t behind = backIndex() - index;
    return ahead < (1u << 31) && behind < (1u << 31);
  }
  uint32_t frontIndex() const noexcept { return frontIndex_; }
  // Index of the newest element (frontIndex() - 1 when empty).
  uint32_t backIndex() const noexcept { return uint32_t(frontIndex_ + items_.size() - 1); }
  size_t size() const noexcept { return items_.size(); }
  bool empty() const noexcept { return items_.empty(); }
  void delAll() {
    frontIndex_ = uint32_t(frontIndex_ + items_.size());
    items_.clear();
  }

 private:
  std::deque<T> items_;
  uint32_t frontIndex_ = 1;
};

}  // namespace Nimbo
