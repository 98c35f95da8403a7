#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kest/Hash.h"
#include "Kest/HashSeed.h"

namespace Kest {

// Hashes a key with its own hash(seed) when it has one, else its bytes.
template <class Key>
struct DefaultHasher {
  uint32_t operator()(const Key& key, uint32_t seed) const noexcept {
    if constexpr (requires { { key.hash(seed) } -> std::convertible_to<uint32_t>; }) {
      return key.hash(seed);
    } else {
      static_assert(std::has_unique_object_representations_v<Key>, "hash a padded key explicitly");
      return hash32(&key, sizeof key, seed);
    }
  }
};

// A salted hash map whose iteration order is the order of (hash, key): buckets are chosen
// by the hash's high bits and chains are sorted, so the order does not change when the
// table grows. That makes a key a position: find(key) or findOrNext(key) and walk forward,
// and iterators stay valid across inserts, growth and the erasure of other elements.
// The seed is the process's hashSeed() exclusive-or the map's salt. Keys need <=>.
// Owned by value; single-threaded.
template <class Key, class Value, class Hasher = DefaultHasher<Key>>
class HashMap2018 {
  struct Node {
    uint32_t hash;
    Node* next;
    std::pair<const Key, Value> item;
  };

 public:
  class Iterator {
   public:
    Iterator() = default;
    std::pair<const Key, Value>& operator*() const noexcept { return node_->item; }
    std::pair<const Key, Value>* operator->() const noexcept { return &node_->item; }
    Iterator& operator++() noexcept {
      node_ = map_->successor(node_);
      return *this;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) noexcept { return a.node_ == b.node_; }

   private:
    friend class HashMap2018;
    Iterator(const HashMap2018* map, Node* node) : map_(map), node_(node) {}
    const HashMap2018* map_ = nullptr;
    Node* node_ = nullptr;
  };

  explicit HashMap2018(uint32_t salt = 0) : seed_(hashSeed() ^ salt) {}
  HashMap2018(const HashMap2018&) = delete;
  HashMap2018& operator=(const HashMap2018&) = delete;
  ~HashMap2018() { clear(); }

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }

  Iterator begin() const noexcept { return Iterator(this, firstFrom(0)); }
  Iterator end() const noexcept { return Iterator(this, nullptr); }

  Iterator find(const Key& key) const noexcept {
    Node* n = lowerBound(hasher_(key, seed_), key);
    return Iterator(this, n && n->item.first == key ? n : nullptr);
  }
  // The element at `key`, or the one that would follow it.
  Iterator findOrNext(const Key& key) const noexcept {
    return Iterator(this, lowerBound(hasher_(key, seed_), key));
  }
  bool contains(const Key& key) const noexcept { return find(key) != end(); }

  // Inserts or replaces; returns the element and whether it is new.
  std::pair<Iterator, bool> insertOrReplace(const Key& key, Value value) {
    const uint32_t h = hasher_(key, seed_);
    Node** link = position(h, key);
    if (*link && (*link)->item.first == key) {
      (*link)->item.second = std::move(value);
      return {Iterator(this, *link), false};
    }
    Node* node = new Node{h, *link, {key, std::move(value)}};
    *link = node;
    if (++size_ > buckets_.size()) grow();
    return {Iterator(this, node), true};
  }

  bool erase(const Key& key) {
    Iterator it = find(key);
    if (it == end()) return false;
    erase(it);
    return true;
  }
  // Erases the element and returns the one after it.
  Iterator erase(Iterator it) {
    Node* node = it.node_;
    Node* next = successor(node);
    Node** link = &buckets_[bucketOf(node->hash)];
    while (*link != node) link = &(*link)->next;
    *link = node->next;
    delete node;
    --size_;
    return Iterator(this, next);
  }

  void clear() noexcept {
    for (Node*& head : buckets_) {
      while (head) delete std::exchange(head, head->next);
    }
    size_ = 0;
  }

  uint32_t seed() const noexcept { return seed_; }

 private:
  size_t bucketOf(uint32_t hash) const noexcept { return bits_ ? hash >> (32 - bits_) : 0; }

  static bool before(const Node* n, uint32_t hash, const Key& key) noexcept {
    return n->hash < hash || (n->hash == hash && n->item.first < key);
  }

  // The link where (hash, key) is or would be.
  Node** position(uint32_t hash, const Key& key) noexcept {
    Node** link = &buckets_[bucketOf(hash)];
    while (*link && before(*link, hash, key)) link = &(*link)->next;
    return link;
  }

  Node* lowerBound(uint32_t hash, const Key& key) const noexcept {
    size_t b = bucketOf(hash);
    for (Node* n = buckets_[b]; n; n = n->next) {
      if (!before(n, hash, key)) return n;
    }
    return firstFrom(b + 1);
  }

  Node* firstFrom(size_t bucket) const noexcept {
    for (; bucket < buckets_.size(); ++bucket) {
      if (buckets_[bucket]) return buckets_[bucket];
    }
    return nullptr;
  }

  Node* successor(const Node* node) const noexcept {
    return node->next ? node->next : firstFrom(bucketOf(node->hash) + 1);
  }

  // Doubles the buckets; each old chain splits, in order, into two adjacent new ones.
  void grow() {
    std::vector<Node*> old(buckets_.size() * 2, nullptr);
    old.swap(buckets_);
    ++bits_;
    std::vector<Node**> tails(buckets_.size());
    for (size_t b = 0; b < buckets_.size(); ++b) tails[b] = &buckets_[b];
    for (Node* head : old) {
      while (head) {
        Node* next = head->next;
        size_t b = bucketOf(head->hash);
        head->next = nullptr;
        *tails[b] = head;
        tails[b] = &head->next;
        head = next;
      }
    }
  }

  Hasher hasher_;
  uint32_t seed_;
  uint32_t bits_ = 0;
  size_t size_ = 0;
  std::vector<Node*> buckets_ = std::vector<Node*>(1, nullptr);
};

}  // namespace Kest
