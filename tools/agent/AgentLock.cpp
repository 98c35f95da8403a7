#include "tools/agent/AgentLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "KestShard/Directory.h"

namespace VeskTool {

AgentLock::AgentLock() {
  const auto root = KestShard::Directory::root();
  const std::string path = root.path() + "/agent.pid";
  fd_ = ::openat(root.fd(), "agent.pid", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    throw std::runtime_error(fmt::format("cannot open {}: {} (remove it if it is not a file)", path,
                                         std::strerror(errno)));
  }
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    char text[32] = {};
    const ssize_t n = ::pread(fd_, text, sizeof text - 1, 0);
    ::close(fd_);
    fd_ = -1;
    if (error != EWOULDBLOCK) {
      throw std::runtime_error(fmt::format("cannot lock {}: {}", path, std::strerror(error)));
    }
    std::string pid(text, size_t(std::max<ssize_t>(n, 0)));
    pid = pid.substr(0, pid.find_first_not_of("0123456789"));
    throw std::runtime_error(
        fmt::format("another agent (pid {}) holds {}; stop it or set VESK_SHM_ROOT",
                    pid.empty() ? "unknown" : pid, root.path()));
  }
  // Should the pid not be written, only a second agent's message lacks it: the lock holds.
  const std::string pid = std::to_string(::getpid());
  const bool written =
      ::ftruncate(fd_, 0) == 0 && ::pwrite(fd_, pid.data(), pid.size(), 0) == ssize_t(pid.size());
  static_cast<void>(written);
}

AgentLock::~AgentLock() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace VeskTool
