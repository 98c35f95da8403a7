#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace VeskTest {

// A fresh shared-memory root for one test (VESK_SHM_ROOT), removed afterwards.
class TempShmRoot {
 public:
  TempShmRoot() {
    static std::atomic<int> counter{0};
    path_ = "/dev/shm/vesk-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    std::filesystem::remove_all(path_);
    ::setenv("VESK_SHM_ROOT", path_.c_str(), 1);
  }
  ~TempShmRoot() { std::filesystem::remove_all(path_); }
  TempShmRoot(const TempShmRoot&) = delete;
  TempShmRoot& operator=(const TempShmRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace VeskTest
