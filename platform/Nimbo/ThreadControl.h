#pragma once

#include <atomic>

#include "Nimbo/Export.h"

namespace Nimbo {

// Process-wide switch between single-threaded and threaded mode. Reference counts are
// plain integers until the process declares a second thread; from then on they are atomic.
// Switch once, before the second thread starts; switching back is not supported.
class VESK_EXPORT ThreadControl {
 public:
  static bool threaded() noexcept { return threaded_.load(std::memory_order_relaxed); }
  static void threadedIs() noexcept { threaded_.store(true, std::memory_order_relaxed); }

 private:
  static std::atomic<bool> threaded_;
};

}  // namespace Nimbo
