#pragma once

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
template <class T, class V>
inline void storeRelease(T& word, V value) noexcept {
  __atomic_store_n(&word, static_cast<T>(value), __ATOMIC_RELEASE);
}
inline void fenceAcquire() noexcept { __atomic_thread_fence(__ATOMIC_ACQUIRE); }
inline void fenceRelease() noexcept { __atomic_thread_fence(__ATOMIC_RELEASE); }

}  // namespace KestShard
