#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace VeskTest {

// The program under test: the one built with the tests, or VESKTAP_EXE, to run the same
// tests against another build.
inline const char* vesktapExe() {
  const char* exe = getenv("VESKTAP_EXE");
  return exe && *exe ? exe : VESKTAP_EXE;
}

// The vesktap program run as a user runs it, its output kept in files.
class Vesktap {
 public:
  explicit Vesktap(std::vector<std::string> args) {
    static int counter = 0;
    const std::string base =
        "/tmp/vesk-cli-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
    outPath_ = base + ".out";
    errPath_ = base + ".err";
    pid_ = fork();
    if (pid_ == 0) {
      dup2(open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
      dup2(open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
      std::vector<char*> argv{const_cast<char*>(vesktapExe())};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(vesktapExe(), argv.data());
      _exit(127);
    }
  }
  ~Vesktap() {
    if (!waited_) {
      kill(pid_, SIGKILL);
      wait();
    }
    unlink(outPath_.c_str());
    unlink(errPath_.c_str());
  }
  // Waits for the program; its exit code, or kDiedBy + the signal that killed it (apart
  // from the 128 + signal a program exits with when it stops cleanly on one).
  static constexpr int kDiedBy = 256;
  int wait() {
    if (!waited_) {
      int status = 0;
      waitpid(pid_, &status, 0);
      code_ = WIFEXITED(status) ? WEXITSTATUS(status) : kDiedBy + WTERMSIG(status);
      waited_ = true;
    }
    return code_;
  }
  void signal(int sig) const { kill(pid_, sig); }
  pid_t pid() const { return pid_; }
  std::string out() const { return read(outPath_); }
  std::string err() const { return read(errPath_); }
  // Waits until stdout or stderr holds `text`; false if the program ended first, or had
  // not written it after `seconds`.
  bool awaitOutput(const std::string& text, int seconds = 30) {
    const auto written = [&] {
      return out().find(text) != std::string::npos || err().find(text) != std::string::npos;
    };
    for (int i = 0; i < seconds * 100; ++i) {
      if (written()) return true;
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        waited_ = true;
        return written();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

 private:
  static std::string read(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  pid_t pid_ = -1;
  std::string outPath_, errPath_;
  bool waited_ = false;
  int code_ = -1;
};

// The CPU time a running process has used so far, in seconds, summed over its threads. The
// scheduler's own count (schedstat, in nanoseconds) is exact; the clock-tick counts of
// /proc/PID/stat are samples that a loaded machine skews by whole ticks.
inline double cpuSeconds(pid_t pid) {
  unsigned long long nanoseconds = 0;
  std::error_code error;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream in(task.path() / "schedstat");
    unsigned long long onCpu = 0;
    if (in >> onCpu) nanoseconds += onCpu;
  }
  return double(nanoseconds) / 1e9;
}

// How often a running process has gone to sleep so far (its voluntary context switches,
// summed over its threads): a process that polls wakes at every poll.
inline uint64_t sleepsSoFar(pid_t pid) {
  uint64_t sleeps = 0;
  std::error_code error;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream in(task.path() / "status");
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0) sleeps += std::stoull(line.substr(24));
    }
  }
  return sleeps;
}

// The memory a running process holds now (VmRSS), in bytes.
inline uint64_t residentBytes(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoull(line.substr(6)) * 1024;  // in kB
  }
  return 0;
}

// A fresh shared-memory root (VESK_SHM_ROOT) for one test case, inherited by the programs
// it starts and removed afterwards.
class FreshRoot {
 public:
  explicit FreshRoot(const char* prefix) {
    std::string dir = "/dev/shm/";
    dir.append(prefix).append("-XXXXXX");
    if (!mkdtemp(dir.data())) throw std::runtime_error("cannot make a directory under /dev/shm");
    path_ = dir;
    setenv("VESK_SHM_ROOT", path_.c_str(), 1);
  }
  ~FreshRoot() {
    unsetenv("VESK_SHM_ROOT");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  FreshRoot(const FreshRoot&) = delete;
  FreshRoot& operator=(const FreshRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Runs vesktap to its end.
struct Run {
  int code;
  std::string out, err;
};
inline Run run(std::vector<std::string> args) {
  Vesktap v(std::move(args));
  const int code = v.wait();
  return {code, v.out(), v.err()};
}

// Passes when `part` is in `text`; a failure shows the whole text.
inline ::testing::AssertionResult contains(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "\"" << part << "\" is not in:\n" << text;
}

}  // namespace VeskTest
