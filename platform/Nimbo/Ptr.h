#pragma once

#include <atomic>
#include <cstdint>
#include <typeinfo>
#include <utility>

#include "Nimbo/ThreadControl.h"

namespace Kest {
class TypeData;
}

namespace Nimbo {

// Base of every reference-counted object. The count lives in the object; Ptr<T> holds one
// reference. Counts change plainly in single-threaded mode and atomically once
// ThreadControl::threadedIs() has been called. lastUserGone() runs when the count drops to
// zero; the default deletes the object. typeData() is how the framework inspects any
// object: a class that offers introspection returns its type record (Kest/TypeData.h).
class Node {
 public:
  Node() = default;
  Node(const Node&) : refs_(0) {}
  Node& operator=(const Node&) { return *this; }
  virtual ~Node() = default;

  uint32_t references() const noexcept { return refs_; }
  // The record of this object's class; null for a class that offers no introspection.
  virtual const Kest::TypeData* typeData() const { return nullptr; }

  void newRef() const noexcept {
    if (ThreadControl::threaded()) {
      std::atomic_ref<uint32_t>(refs_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++refs_;
    }
  }
  void delRef() const noexcept {
    uint32_t left;
    if (ThreadControl::threaded()) {
      left = std::atomic_ref<uint32_t>(refs_).fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = --refs_;
    }
    if (left == 0) const_cast<Node*>(this)->lastUserGone();
  }

 protected:
  virtual void lastUserGone() { delete this; }

 private:
  mutable uint32_t refs_ = 0;
};

// Counted reference to a Node-derived object; null when empty.
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) { acquire(); }
  Ptr(const Ptr& o) noexcept : p_(o.p_) { acquire(); }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& o)
  noexcept : p_(o.ptr()) { acquire(); }
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& o)
  noexcept : p_(o.release()) {}
  ~Ptr() { reset(); }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  void reset() noexcept {
    if (p_) std::exchange(p_, nullptr)->delRef();
  }
  // Gives up the reference without dropping it; the caller now owns it.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

 private:
  void acquire() const noexcept {
    if (p_) p_->newRef();
  }
  T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

// dynamic_cast<T*>(p), the common case first: an object of exactly class T is known by its
// type_info, one comparison, where dynamic_cast walks the class hierarchy.
template <class T, class U>
T* downCast(U* p) {
  if constexpr (requires { static_cast<T*>(p); }) {
    if (p && typeid(*p) == typeid(T)) return static_cast<T*>(p);
  }
  return dynamic_cast<T*>(p);
}

template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& p) {
  return Ptr<T>(downCast<T>(p.ptr()));
}

}  // namespace Nimbo
