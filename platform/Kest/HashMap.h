#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "Kest/Hash.h"
#include "Kest/HashSeed.h"

namespace Kest {

// Hashes a key with its own hash(seed) when it has one, else its bytes (keys without
// padding only, or equal keys could hash apart).
template <class Key>
struct DefaultHasher {
  uint32_t operator()(const Key& key, uint32_t seed) const noexcept {
    if constexpr (requires {
                    { key.hash(seed) } -> std::convertible_to<uint32_t>;
                  }) {
      return key.hash(seed);
    } else {
      static_assert(std::has_unique_object_representations_v<Key>, "hash a padded key explicitly");
      return hash32(&key, sizeof key, seed);
    }
  }
};

// A salted hash map whose iteration order is the order of (hash, key), so that a key is a
// position: find(key) or findOrNext(key) and walk forward. The order depends only on the
// keys and the seed, never on the history of the map or on its size, which is what lets a
// walk that holds its place as a key survive any change: findAfter(lastKey) resumes it.
//
// Open addressing with linear probing, kept sorted: a key's home slot is the top bits of
// its hash, and each element sits at its home or, when that is taken, right after the
// element before it. Lookups stop at the first larger element; inserting shifts the rest
// of a run right, erasing shifts it back. At most 3/4 of the home slots are used; a run
// may spill past the last home into a tail that grows as needed. No allocation except on
// growth. The seed is hashSeed() exclusive-or the map's salt, mixed, so that two maps of
// one process, or one map in two processes, do not share an order.
//
// Keys need == and <, and copy without throwing (they are fixed-size records); values
// move without throwing. Iterators are invalidated by every insert of a new key and every
// erase, except the ones those calls return: hold a key across changes, not an iterator.
// Owned by value; single-threaded.
template <class Key, class Value, class Hasher = DefaultHasher<Key>>
class HashMap2018 {
  static_assert(std::is_nothrow_copy_constructible_v<Key>, "keys are moved by copying");
  static_assert(std::is_nothrow_move_constructible_v<Value>, "values must move without throwing");

 public:
  using Item = std::pair<const Key, Value>;

 private:
  struct Slot {
    uint32_t hash;
    uint32_t full;
    alignas(Item) unsigned char bytes[sizeof(Item)];
    Item& item() noexcept { return *std::launder(reinterpret_cast<Item*>(bytes)); }
    const Item& item() const noexcept {
      return *std::launder(reinterpret_cast<const Item*>(bytes));
    }
  };

  template <bool kConst>
  class IteratorBase {
    using Map = std::conditional_t<kConst, const HashMap2018, HashMap2018>;

   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Item;
    using difference_type = std::ptrdiff_t;
    using pointer = std::conditional_t<kConst, const Item*, Item*>;
    using reference = std::conditional_t<kConst, const Item&, Item&>;

    IteratorBase() = default;
    // An Iterator converts to a ConstIterator.
    template <bool kOther>
    requires(kConst && !kOther) IteratorBase(const IteratorBase<kOther>& o)
    noexcept : map_(o.map_), slot_(o.slot_) {}

    reference operator*() const noexcept { return map_->slots_.at(slot_).item(); }
    pointer operator->() const noexcept { return &**this; }
    IteratorBase& operator++() noexcept {
      slot_ = map_->nextFull(slot_ + 1);
      return *this;
    }
    IteratorBase operator++(int) noexcept {
      IteratorBase before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const IteratorBase& a, const IteratorBase& b) noexcept {
      return a.slot_ == b.slot_;
    }

   private:
    friend class HashMap2018;
    template <bool>
    friend class IteratorBase;
    IteratorBase(Map* map, size_t slot) : map_(map), slot_(slot) {}
    Map* map_ = nullptr;
    size_t slot_ = 0;
  };

  // The slot array with its own lifetime management, so that growth is exception-safe.
  class Slots {
   public:
    Slots() = default;
    explicit Slots(size_t length) : slots_(std::make_unique<Slot[]>(length)), length_(length) {}
    Slots(const Slots& o) : Slots(o.length_) {
      for (size_t i = 0; i < length_; ++i) {
        if (o.slots_[i].full) construct(i, o.slots_[i].hash, o.slots_[i].item());
      }
    }
    Slots(Slots&& o) noexcept : slots_(std::move(o.slots_)), length_(std::exchange(o.length_, 0)) {}
    Slots& operator=(Slots o) noexcept {
      std::swap(slots_, o.slots_);
      std::swap(length_, o.length_);
      return *this;
    }
    ~Slots() {
      for (size_t i = 0; i < length_; ++i) {
        if (slots_[i].full) std::destroy_at(&slots_[i].item());
      }
    }

    size_t length() const noexcept { return length_; }
    Slot& at(size_t i) noexcept { return slots_[i]; }
    const Slot& at(size_t i) const noexcept { return slots_[i]; }
    bool full(size_t i) const noexcept { return slots_[i].full; }

    template <class... Args>
    void construct(size_t i, uint32_t hash, Args&&... args) {
      std::construct_at(reinterpret_cast<Item*>(slots_[i].bytes), std::forward<Args>(args)...);
      slots_[i].hash = hash;
      slots_[i].full = 1;
    }
    void destroy(size_t i) noexcept {
      std::destroy_at(&slots_[i].item());
      slots_[i].full = 0;
    }
    // Moves the element of slot `from` into the empty slot `to`.
    void move(size_t from, size_t to) noexcept {
      construct(to, slots_[from].hash, std::move(slots_[from].item()));
      destroy(from);
    }

   private:
    std::unique_ptr<Slot[]> slots_;
    size_t length_ = 0;
  };

 public:
  using Iterator = IteratorBase<false>;
  using ConstIterator = IteratorBase<true>;

  explicit HashMap2018(uint32_t salt = 0, Hasher hasher = Hasher())
      : hasher_(std::move(hasher)), seed_(seedFor(hashSeed(), salt)) {}
  // The process seed exclusive-or the salt, mixed so that salts a bit apart give seeds
  // far apart.
  static uint32_t seedFor(uint32_t processSeed, uint32_t salt) noexcept {
    return uint32_t(mix64(processSeed ^ salt, 0x9e3779b97f4a7c15ULL));
  }
  HashMap2018(const HashMap2018&) = default;
  HashMap2018(HashMap2018&& o) noexcept
      : hasher_(std::move(o.hasher_)),
        seed_(o.seed_),
        bits_(std::exchange(o.bits_, 0)),
        size_(std::exchange(o.size_, 0)),
        slots_(std::move(o.slots_)) {}
  HashMap2018& operator=(HashMap2018 o) noexcept {
    swap(o);
    return *this;
  }
  void swap(HashMap2018& o) noexcept {
    std::swap(hasher_, o.hasher_);
    std::swap(seed_, o.seed_);
    std::swap(bits_, o.bits_);
    std::swap(size_, o.size_);
    std::swap(slots_, o.slots_);
  }

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  uint32_t seed() const noexcept { return seed_; }

  Iterator begin() noexcept { return Iterator(this, firstFull()); }
  Iterator end() noexcept { return Iterator(this, slots_.length()); }
  ConstIterator begin() const noexcept { return ConstIterator(this, firstFull()); }
  ConstIterator end() const noexcept { return ConstIterator(this, slots_.length()); }

  Iterator find(const Key& key) noexcept { return Iterator(this, slotOf(key)); }
  ConstIterator find(const Key& key) const noexcept { return ConstIterator(this, slotOf(key)); }
  bool contains(const Key& key) const noexcept { return slotOf(key) != slots_.length(); }

  // The element at `key` or, when the map does not hold it, the one that would follow it.
  Iterator findOrNext(const Key& key) noexcept { return Iterator(this, slotAtOrAfter(key)); }
  ConstIterator findOrNext(const Key& key) const noexcept {
    return ConstIterator(this, slotAtOrAfter(key));
  }
  // The element that follows `key`, whether or not the map holds it: where a walk that
  // last visited `key` goes on after the map changed.
  Iterator findAfter(const Key& key) noexcept { return Iterator(this, slotAfter(key)); }
  ConstIterator findAfter(const Key& key) const noexcept {
    return ConstIterator(this, slotAfter(key));
  }

  // Inserts or replaces the value of `key`; returns the element and whether it is new.
  std::pair<Iterator, bool> insertOrReplace(const Key& key, Value value) {
    const uint32_t hash = hashOf(key);
    size_t slot = probe(hash, key);
    if (holds(slot, hash, key)) {
      slots_.at(slot).item().second = std::move(value);
      return {Iterator(this, slot), false};
    }
    return {Iterator(this, insertAt(slot, hash, Key(key), std::move(value))), true};
  }

  // Asks for the cache line of `key`'s home slot now, for an insert or a lookup a little
  // later: a caller with many keys to place overlaps their misses.
  void prefetch(const Key& key) const noexcept {
    if (slots_.length() != 0) __builtin_prefetch(&slots_.at(homeOf(hashOf(key))));
  }

  bool erase(const Key& key) noexcept {
    const size_t slot = slotOf(key);
    if (slot == slots_.length()) return false;
    eraseSlot(slot);
    return true;
  }
  // Erases the element and returns the one after it.
  Iterator erase(ConstIterator it) noexcept { return Iterator(this, eraseSlot(it.slot_)); }

  // Empties the map and gives its memory back.
  void clear() noexcept {
    slots_ = Slots();
    bits_ = 0;
    size_ = 0;
  }
  // Makes room for `count` elements, so that inserting them does not grow the map.
  void reserve(size_t count) {
    uint32_t bits = std::max(bits_, kMinBits);
    while (maxSize(bits) < count) ++bits;
    if (bits != bits_) relayout(bits);
  }

 private:
  static constexpr uint32_t kMinBits = 3;

  static size_t maxSize(uint32_t bits) noexcept { return bits ? (size_t(3) << bits) / 4 : 0; }
  static size_t tailFor(uint32_t bits) noexcept { return 8 + (size_t(1) << bits) / 16; }

  // Fibonacci hashing spreads a weak hasher's low bits into the top bits used as home.
  uint32_t hashOf(const Key& key) const noexcept {
    return uint32_t(hasher_(key, seed_)) * 0x9e3779b1u;
  }
  static size_t homeIn(uint32_t hash, uint32_t bits) noexcept {
    return bits ? hash >> (32 - bits) : 0;
  }
  size_t homeOf(uint32_t hash) const noexcept { return homeIn(hash, bits_); }

  // Keys without padding are equal exactly when their bytes are: one memcmp instead of a
  // field-by-field comparison of a wide record. The order stays the key's own.
  static bool sameKey(const Key& a, const Key& b) noexcept {
    if constexpr (std::has_unique_object_representations_v<Key>) {
      return std::memcmp(&a, &b, sizeof(Key)) == 0;
    } else {
      return a == b;
    }
  }
  // Whether the element in `slot` comes before (hash, key) in the map's order.
  bool before(size_t slot, uint32_t hash, const Key& key) const noexcept {
    const Slot& s = slots_.at(slot);
    return s.hash < hash ||
           (s.hash == hash && !sameKey(s.item().first, key) && s.item().first < key);
  }
  bool holds(size_t slot, uint32_t hash, const Key& key) const noexcept {
    if (slot == slots_.length() || !slots_.full(slot)) return false;
    const Slot& s = slots_.at(slot);
    return s.hash == hash && sameKey(s.item().first, key);
  }
  // The slot where (hash, key) is, or where it belongs: the first from its home that is
  // empty or holds a larger element. The length when that is past the last slot.
  size_t probe(uint32_t hash, const Key& key) const noexcept {
    size_t slot = homeOf(hash);
    while (slot < slots_.length() && slots_.full(slot) && before(slot, hash, key)) ++slot;
    return std::min(slot, slots_.length());
  }
  size_t nextFull(size_t slot) const noexcept {
    while (slot < slots_.length() && !slots_.full(slot)) ++slot;
    return std::min(slot, slots_.length());
  }
  size_t nextEmpty(size_t slot) const noexcept {
    while (slot < slots_.length() && slots_.full(slot)) ++slot;
    return slot;
  }

  // An empty map answers without hashing the key or touching its slots, which a map that
  // held many keys keeps (a pending-change map between batches): no cache miss, no scan.
  size_t firstFull() const noexcept { return size_ == 0 ? slots_.length() : nextFull(0); }
  size_t slotOf(const Key& key) const noexcept {
    if (size_ == 0) return slots_.length();
    const uint32_t hash = hashOf(key);
    const size_t slot = probe(hash, key);
    return holds(slot, hash, key) ? slot : slots_.length();
  }
  size_t slotAtOrAfter(const Key& key) const noexcept {
    return size_ == 0 ? slots_.length() : nextFull(probe(hashOf(key), key));
  }
  size_t slotAfter(const Key& key) const noexcept {
    if (size_ == 0) return slots_.length();
    const uint32_t hash = hashOf(key);
    const size_t slot = probe(hash, key);
    return nextFull(holds(slot, hash, key) ? slot + 1 : slot);
  }

  // Inserts the new element, which belongs in `slot`; returns where it ended up. Takes
  // its own copy of the key: the caller's may live in a slot that moves.
  size_t insertAt(size_t slot, uint32_t hash, Key key, Value value) {
    if (size_ + 1 > maxSize(bits_)) {
      relayout(std::max(bits_ + 1, kMinBits));
      slot = probe(hash, key);
    }
    slot = makeRoom(hash, key, slot);
    slots_.construct(slot, hash, std::move(key), std::move(value));
    ++size_;
    return slot;
  }

  // Empties `slot`, where (hash, key) belongs, by shifting the run from there one slot to
  // the right; lengthens the tail first when the run reaches the end (a relayout always
  // leaves a tail behind the last element). Returns the slot.
  size_t makeRoom(uint32_t hash, const Key& key, size_t slot) {
    size_t empty = nextEmpty(slot);
    if (empty == slots_.length()) {
      relayout(bits_);
      slot = probe(hash, key);
      empty = nextEmpty(slot);
    }
    for (; empty > slot; --empty) slots_.move(empty - 1, empty);
    return slot;
  }

  // Removes the element in `slot`, pulls back the elements behind it that are not at
  // their home, and returns the slot of the element that followed it.
  size_t eraseSlot(size_t slot) noexcept {
    slots_.destroy(slot);
    --size_;
    for (size_t next = slot + 1;
         next < slots_.length() && slots_.full(next) && homeOf(slots_.at(next).hash) < next;
         ++next) {
      slots_.move(next, next - 1);
    }
    return nextFull(slot);
  }

  // Moves every element to a table of 2^bits homes. Elements keep their order, each at
  // its new home or right after the one before it; the tail is at least what that needs.
  void relayout(uint32_t bits) {
    const size_t length = std::max(size_t(1) << bits, placedLength(bits)) + tailFor(bits);
    Slots fresh(length);
    size_t nextFree = 0;
    for (size_t i = nextFull(0); i < slots_.length(); i = nextFull(i + 1)) {
      const size_t to = std::max(homeIn(slots_.at(i).hash, bits), nextFree);
      fresh.construct(to, slots_.at(i).hash, std::move(slots_.at(i).item()));
      slots_.destroy(i);
      nextFree = to + 1;
    }
    slots_ = std::move(fresh);
    bits_ = bits;
  }
  // The slots the elements would span in a table of 2^bits homes.
  size_t placedLength(uint32_t bits) const noexcept {
    size_t nextFree = 0;
    for (size_t i = nextFull(0); i < slots_.length(); i = nextFull(i + 1)) {
      nextFree = std::max(homeIn(slots_.at(i).hash, bits), nextFree) + 1;
    }
    return nextFree;
  }

  Hasher hasher_;
  uint32_t seed_;
  uint32_t bits_ = 0;  // log2 of the number of home slots; 0 before the first insert
  size_t size_ = 0;
  Slots slots_;
};

}  // namespace Kest
