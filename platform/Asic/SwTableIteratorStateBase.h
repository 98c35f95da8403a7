#pragma once

#include <cstdint>

#include "Asic/OrderedSwTable.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// Where a walk over one software table's entries stands between two steps: which phase it
// is in (the pending writes, then the unit's committed configuration), whether the last
// step produced an entry, and whether a resume key is set (the derived state keeps the key
// itself). Positions in collections are never kept, only keys, so a walk survives any
// change of the table between steps. The table pointer is plain: whoever walks keeps the
// table alive. Shared by reference count between an entry iterator and its copies;
// single-threaded: the agent's event thread.
class SwTableIteratorStateBase : public Nimbo::Node {
 public:
  // The state flags, one byte.
  class State {
   public:
    enum class Flag : uint8_t {
      valid = 1,             // the last step produced an entry
      inAddColl = 2,         // the walk is in the pending writes
      inTblCfg = 4,          // the walk is in the unit's committed configuration
      removeAllPending = 8,  // a remove-all was pending when the walk began
      bookmarkSet = 16,      // the resume key is set
    };

    constexpr State() = default;
    constexpr explicit State(uint8_t bits) : bits_(bits) {}

    constexpr uint8_t bits() const noexcept { return bits_; }
    constexpr bool flagHas(Flag flag) const noexcept { return (bits_ & uint8_t(flag)) != 0; }
    constexpr void flagIs(Flag flag, bool on) noexcept {
      bits_ = on ? uint8_t(bits_ | uint8_t(flag)) : uint8_t(bits_ & ~uint8_t(flag));
    }

    constexpr bool valid() const noexcept { return flagHas(Flag::valid); }
    constexpr void validIs(bool on) noexcept { flagIs(Flag::valid, on); }
    constexpr bool inAddColl() const noexcept { return flagHas(Flag::inAddColl); }
    constexpr void inAddCollIs(bool on) noexcept { flagIs(Flag::inAddColl, on); }
    constexpr bool inTblCfg() const noexcept { return flagHas(Flag::inTblCfg); }
    constexpr void inTblCfgIs(bool on) noexcept { flagIs(Flag::inTblCfg, on); }
    constexpr bool removeAllPending() const noexcept { return flagHas(Flag::removeAllPending); }
    constexpr void removeAllPendingIs(bool on) noexcept { flagIs(Flag::removeAllPending, on); }
    constexpr bool bookmarkSet() const noexcept { return flagHas(Flag::bookmarkSet); }
    constexpr void bookmarkSetIs(bool on) noexcept { flagIs(Flag::bookmarkSet, on); }

    friend constexpr bool operator==(State, State) = default;

   private:
    uint8_t bits_ = 0;
  };

  const State& state() const noexcept { return state_; }
  State& state() noexcept { return state_; }
  void stateIs(State state) noexcept { state_ = state; }

  const OrderedSwTable* swTable() const noexcept { return swTable_; }
  void swTableIs(const OrderedSwTable* swTable) noexcept { swTable_ = swTable; }

 protected:
  explicit SwTableIteratorStateBase(const OrderedSwTable* swTable) noexcept : swTable_(swTable) {}

 private:
  State state_;
  const OrderedSwTable* swTable_;
};

}  // namespace Asic
