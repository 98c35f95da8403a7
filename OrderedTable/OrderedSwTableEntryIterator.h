#pragma once

#include <cstddef>
#include <iterator>

#include "Nimbo/Ptr.h"

namespace Asic {

// A client's walk over the entries of one software table, as the table would hold them
// once everything pending is committed: its pending writes, then its committed entries
// that nothing pending hides. It holds the table, the walk's state and a copy of the
// current entry. Each increment asks the state for the next entry
// (IterState::maybeUpdateCurrentEntry()) and copies it; the walk is at its end when the
// state's valid flag is clear. The state keeps only keys between steps, so the table may
// change between two increments.
//
// It is its own range, so that a walk reads as a loop:
//
//   for (const auto& entry : table->entryIteratorConst()) ...
//
// begin() is a copy of the iterator, end() std::default_sentinel. An input iterator:
// copies share one state, so stepping one moves the walk of all (single pass).
// The table pointer is plain; whoever walks keeps the table alive. Single-threaded: the
// agent's event thread.
template <class ConstTable, class Entry, class Key, class IterState>
class OrderedSwTableEntryIterator {
 public:
  using value_type = Entry;
  using difference_type = std::ptrdiff_t;
  using iterator_concept = std::input_iterator_tag;

  OrderedSwTableEntryIterator() = default;
  // An iterator at the walk's first entry: the state takes its first step here.
  OrderedSwTableEntryIterator(ConstTable* swTable, Nimbo::Ptr<IterState> iterState)
      : swTable_(swTable), iterState_(std::move(iterState)) {
    ++*this;
  }

  ConstTable* swTable() const noexcept { return swTable_; }
  const Nimbo::Ptr<IterState>& iterState() const noexcept { return iterState_; }
  // The current entry; default-constructed at the end.
  const Entry& entry() const noexcept { return entry_; }
  const Key& key() const noexcept { return entry_.key(); }
  bool isEnd() const noexcept { return !iterState_ || !iterState_->state().valid(); }

  const Entry& operator*() const noexcept { return entry_; }
  const Entry* operator->() const noexcept { return &entry_; }
  OrderedSwTableEntryIterator& operator++() {
    if (iterState_) entry_ = iterState_->maybeUpdateCurrentEntry();
    return *this;
  }
  void operator++(int) { ++*this; }
  friend bool operator==(const OrderedSwTableEntryIterator& it, std::default_sentinel_t) noexcept {
    return it.isEnd();
  }

  OrderedSwTableEntryIterator begin() const { return *this; }
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  ConstTable* swTable_ = nullptr;
  Nimbo::Ptr<IterState> iterState_;
  Entry entry_{};
};

}  // namespace Asic
