#pragma once

#include "Nimbo/Export.h"

namespace KestShard {

// Word-sized loads and stores on shared memory. The writer publishes each step of a change
// with a release store; readers in other processes load with acquire. Works on read-only
// mappings, which std::atomic_ref cannot take.
template <class T>
inline T loadAcquire(const T& word) noexcept {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
template <class T>
inline T loadRelaxed(const T& word) noexcept {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
// The fault seam's kill point: when a test sets it, it is called before every store that
// publishes a step of a writer's change, so that a test can stop the writer at any one of
// them. Null in every real process: one predictable branch.
VESK_EXPORT extern void (*publishHook)() noexcept;

template <class T, class V>
inline void storeRelease(T& word, V value) noexcept {
  if (publishHook) [[unlikely]]
    publishHook();
  __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELEASE);
}
inline void fenceAcquire() noexcept { __atomic_thread_fence(__ATOMIC_ACQUIRE); }
inline void fenceRelease() noexcept { __atomic_thread_fence(__ATOMIC_RELEASE); }

}  // namespace KestShard
