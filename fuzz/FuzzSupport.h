#pragma once

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Nimbo/Exception.h"

namespace VeskFuzz {

// What every fuzz target shares. Single-threaded, as libFuzzer runs a target.

// Stops the run with `what` when a property the code promises does not hold: libFuzzer
// then saves the input that broke it.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "vesk fuzz: %s\n", what);
  std::abort();
}

// Runs `step`; an error of the project's own (damage reported, a refused argument, a full
// collection, a failed system call) is an answer, not a finding.
template <class Step>
bool tolerate(Step&& step) {
  try {
    step();
    return true;
  } catch (const Nimbo::Exception&) {
    return false;
  }
}

// The fuzzer's bytes, read front to back; past the end every read is zero.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint16_t u16() { return uint16_t(byte() | byte() << 8); }
  const uint8_t* take(size_t& n) {
    n = std::min(n, size_ - std::min(at_, size_));
    const uint8_t* p = data_ + at_;
    at_ += n;
    return p;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

// A shared-memory root of this process's own (VESK_SHM_ROOT), removed at exit. Roots left
// by fuzzing processes that died (a crash, a timeout) are removed first. Messages the code
// under test logs are kept off stderr, which is the fuzzer's report.
inline const std::string& privateRoot() {
  // Never destroyed: the removal at exit runs after the statics are gone.
  static const std::string* root = [] {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
      const std::string name = entry.path().filename();
      if (name.rfind("vesk-fuzz-", 0) != 0) continue;
      const pid_t owner = pid_t(std::atol(name.c_str() + 10));
      if (owner > 0 && ::kill(owner, 0) != 0 && errno == ESRCH) {
        std::filesystem::remove_all(entry.path(), ignored);
      }
    }
    auto* path = new std::string("/dev/shm/vesk-fuzz-" + std::to_string(::getpid()));
    std::filesystem::remove_all(*path, ignored);
    ::setenv("VESK_SHM_ROOT", path->c_str(), 1);
    ::setenv("VESK_LOG_STDERR", "0", 1);
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(privateRoot(), ignored);
    });
    return path;
  }();
  return *root;
}

}  // namespace VeskFuzz
