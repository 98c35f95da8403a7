#pragma once

#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <type_traits>
#include <utility>

#include "KestShard/KeyedStore.h"
#include "KestShard/VersionStore.h"
#include "Nimbo/Exception.h"

namespace KestShard {

// For a keyed collection that counts no marked records.
struct NoMark {};

// Typed views over the two engines. Record is a fixed-size, trivially copyable value;
// KeyOf is a stateless functor returning a reference to the key inside a record. Keys are
// hashed and compared by their bytes, so they must have no padding. MarkOf, when given,
// returns a reference to a one-byte mark (a bool, say) that the collection counts.
template <class Record, class KeyOf, class MarkOf = NoMark>
struct RecordTraits {
  using Key = std::remove_cvref_t<decltype(KeyOf{}(std::declval<const Record&>()))>;
  static_assert(std::is_trivially_copyable_v<Record>, "records live in shared memory as bytes");
  static_assert(std::has_unique_object_representations_v<Key>, "keys are compared as bytes");

  static RecordLayout layout() {
    static const Record probe{};
    const auto* base = reinterpret_cast<const unsigned char*>(&probe);
    const auto* key = reinterpret_cast<const unsigned char*>(&KeyOf{}(probe));
    RecordLayout layout{uint32_t(sizeof(Record)), uint32_t(key - base), uint32_t(sizeof(Key))};
    if constexpr (!std::is_same_v<MarkOf, NoMark>) {
      static_assert(sizeof(MarkOf{}(probe)) == 1, "a mark is one byte");
      layout.markOffset = uint32_t(reinterpret_cast<const unsigned char*>(&MarkOf{}(probe)) - base);
    }
    return layout;
  }
  static const unsigned char* bytes(const Record& r) {
    return reinterpret_cast<const unsigned char*>(&r);
  }
  static unsigned char* bytes(Record& r) { return reinterpret_cast<unsigned char*>(&r); }
  static const unsigned char* bytes(const Key& k) {
    return reinterpret_cast<const unsigned char*>(&k);
  }
};

// What both collections' iterators share: the current record, copied out of shared memory,
// and whether there is one. Compared with std::default_sentinel to test for the end.
template <class Record>
class RecordCursor {
 public:
  const Record& operator*() const noexcept { return record_; }
  const Record* operator->() const noexcept { return &record_; }
  bool valid() const noexcept { return valid_; }
  friend bool operator==(const RecordCursor& it, std::default_sentinel_t) noexcept {
    return !it.valid_;
  }

 protected:
  Record record_{};
  bool valid_ = false;
};

// Runs `step` (which moves `it`); a damaged record it meets is reported to `map` and
// false returned, `it` standing on the damaged record.
template <class Step>
bool stepReporting(Shard::ShardMapBase& map, Step&& step) {
  try {
    step();
    return true;
  } catch (const Nimbo::CorruptionDetectedException& e) {
    map.doCorruptionDetected(e.what());
    return false;
  }
}

// The walk of forEach: positions `it` with `start`, then visits whole records and steps
// past damaged ones (counted in `damaged`) to the end.
template <class Iterator, class Start, class Visit>
void walkReporting(Shard::ShardMapBase& map, Iterator& it, Start&& start, Visit& visit,
                   uint32_t& damaged) {
  bool whole = stepReporting(map, start);
  while (it.valid()) {
    if (whole)
      visit(*it);
    else
      ++damaged;
    whole = stepReporting(map, [&] { ++it; });
  }
}

// A keyed collection in shared memory. Owns a reference to its engine; single-threaded.
// Lookups and iteration throw Nimbo::CorruptionDetectedException for a damaged record;
// report it with map().doCorruptionDetected() and go on.
template <class Record, class KeyOf, class MarkOf = NoMark>
class KeyedCollection {
  using Traits = RecordTraits<Record, KeyOf, MarkOf>;

 public:
  using Key = typename Traits::Key;

  // Walks the collection in its order. A step that meets a damaged record throws, and the
  // iterator stands on the damaged record so that the next step goes past it.
  class Iterator : public RecordCursor<Record> {
    using RecordCursor<Record>::record_;
    using RecordCursor<Record>::valid_;

   public:
    Iterator() = default;
    Iterator& operator++() {
      Record next{};
      KeyedStore::Place place;
      try {
        valid_ = store_->after(place_, Traits::bytes(KeyOf{}(record_)), Traits::bytes(next), place);
      } catch (const Nimbo::CorruptionDetectedException&) {
        // Standing on the damaged record lets the next step go past it; damage that gave
        // no record to stand on (a broken chain) ends the walk.
        valid_ = store_->precedes(place_.hash, Traits::bytes(KeyOf{}(record_)), place.hash,
                                  Traits::bytes(KeyOf{}(next)));
        record_ = next;
        place_ = {place.hash, 0, 1};  // a damaged record: the next step seeks past its key
        throw;
      }
      if (valid_) {
        record_ = next;
        place_ = place;
      }
      return *this;
    }

   private:
    friend class KeyedCollection;
    explicit Iterator(const KeyedStore* store) : store_(store) {}
    template <class Step>
    void position(Step&& step) {
      try {
        valid_ = step(Traits::bytes(record_), place_);
      } catch (const Nimbo::CorruptionDetectedException&) {
        valid_ = true;
        place_ = {place_.hash, 0, 1};
        throw;
      }
    }
    const KeyedStore* store_ = nullptr;
    KeyedStore::Place place_;
  };

  explicit KeyedCollection(Nimbo::Ptr<KeyedStore> store) : store_(std::move(store)) {}

  static RecordLayout layout() { return Traits::layout(); }

  std::optional<Record> find(const Key& key) const {
    Record r;
    if (!store_->find(Traits::bytes(key), Traits::bytes(r))) return std::nullopt;
    return r;
  }
  bool contains(const Key& key) const { return find(key).has_value(); }
  void prefetch(const Key& key, bool record) const noexcept {
    store_->prefetch(Traits::bytes(key), record);
  }
  void insertOrReplace(const Record& record) { store_->insertOrReplace(Traits::bytes(record)); }
  bool erase(const Key& key) { return store_->erase(Traits::bytes(key)); }
  uint32_t count() const noexcept { return store_->count(); }
  // The records whose mark is set.
  uint32_t markedCount() const noexcept { return store_->markedCount(); }

  Iterator begin() const {
    Iterator it(store_.ptr());
    it.position(firstStep());
    return it;
  }
  // Positioned at `key`, or at the record that follows where it would be.
  Iterator at(const Key& key) const {
    Iterator it(store_.ptr());
    it.position([&](unsigned char* out, KeyedStore::Place& place) {
      return store_->atOrAfter(Traits::bytes(key), out, place);
    });
    return it;
  }
  std::default_sentinel_t end() const noexcept { return {}; }

  // Visits every record in collection order. `visit` may change the collection: the walk
  // holds its place by key. A damaged record is reported to doCorruptionDetected and
  // skipped; a damaged chain is reported and ends the walk. A walk that reached more or
  // fewer records than the collection counts, with nothing changed meanwhile, met a damaged
  // index: a reader reports it, the writer rebuilds the index and walks again (so `visit`
  // may see a record twice then).
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (int pass = 0; pass < 2; ++pass) {
      const uint64_t generation = store_->generation();
      uint32_t visited = 0;
      auto counting = [&](const Record& r) {
        ++visited;
        visit(r);
      };
      Iterator it(store_.ptr());
      walkReporting(
          *store_, it, [&] { it.position(firstStep()); }, counting, visited);
      if (!store_->walkMissed(visited, generation)) return;
    }
  }

  Shard::ShardMapBase& map() const noexcept { return *store_; }
  const Nimbo::Ptr<CollectionControl>& control() const noexcept { return store_->control(); }
  KeyedStore& store() const noexcept { return *store_; }

 private:
  auto firstStep() const {
    return
        [this](unsigned char* out, KeyedStore::Place& place) { return store_->first(out, place); };
  }

  Nimbo::Ptr<KeyedStore> store_;
};

// A collection keyed by a 64-bit version (any trivially copyable 8-byte key), iterated in
// version order. Versions must grow; see VersionStore.
template <class Record, class KeyOf>
class VersionCollection {
  using Traits = RecordTraits<Record, KeyOf>;

 public:
  using Key = typename Traits::Key;
  static_assert(sizeof(Key) == sizeof(uint64_t), "a version key is 64 bits");

  class Iterator : public RecordCursor<Record> {
    using RecordCursor<Record>::record_;
    using RecordCursor<Record>::valid_;

   public:
    Iterator() = default;
    Iterator& operator++() {
      Record next{};
      try {
        valid_ = store_->after(version(record_), Traits::bytes(next));
      } catch (const Nimbo::CorruptionDetectedException&) {
        valid_ = version(next) > version(record_);  // else no record to stand on: the end
        record_ = next;
        throw;
      }
      if (valid_) record_ = next;
      return *this;
    }

   private:
    friend class VersionCollection;
    explicit Iterator(const VersionStore* store) : store_(store) {}
    template <class Step>
    void position(Step&& step) {
      try {
        valid_ = step(Traits::bytes(record_));
      } catch (const Nimbo::CorruptionDetectedException&) {
        valid_ = true;
        throw;
      }
    }
    const VersionStore* store_ = nullptr;
  };

  explicit VersionCollection(Nimbo::Ptr<VersionStore> store) : store_(std::move(store)) {}

  static RecordLayout layout() { return Traits::layout(); }
  static uint64_t version(const Key& key) {
    uint64_t v;
    std::memcpy(&v, &key, sizeof v);
    return v;
  }
  static uint64_t version(const Record& r) { return version(KeyOf{}(r)); }

  std::optional<Record> find(const Key& key) const {
    Record r;
    if (!store_->find(version(key), Traits::bytes(r))) return std::nullopt;
    return r;
  }
  bool contains(const Key& key) const { return find(key).has_value(); }
  void insertOrReplace(const Record& record) { store_->insertOrReplace(Traits::bytes(record)); }
  bool erase(const Key& key) { return store_->erase(version(key)); }
  uint32_t count() const noexcept { return store_->count(); }
  // The newest version appended and not yet passed by the oldest; 0 when none.
  uint64_t newestVersion() const { return store_->newestVersion(); }

  Iterator begin() const {
    Iterator it(store_.ptr());
    it.position(firstStep());
    return it;
  }
  Iterator at(const Key& key) const {
    Iterator it(store_.ptr());
    it.position([&](unsigned char* out) { return store_->atOrAfter(version(key), out); });
    return it;
  }
  std::default_sentinel_t end() const noexcept { return {}; }

  // Visits every record in version order; `visit` may delete records. A damaged record is
  // reported to doCorruptionDetected and skipped.
  template <class Visit>
  void forEach(Visit&& visit) const {
    Iterator it(store_.ptr());
    uint32_t damaged = 0;
    walkReporting(
        *store_, it, [&] { it.position(firstStep()); }, visit, damaged);
  }

  Shard::ShardMapBase& map() const noexcept { return *store_; }
  const Nimbo::Ptr<CollectionControl>& control() const noexcept { return store_->control(); }
  VersionStore& store() const noexcept { return *store_; }

 private:
  auto firstStep() const {
    return [this](unsigned char* out) { return store_->first(out); };
  }

  Nimbo::Ptr<VersionStore> store_;
};

}  // namespace KestShard
