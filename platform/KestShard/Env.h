#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "Nimbo/Export.h"

namespace KestShard {

// The one seam between the shared-memory layer and the operating system: every file, map,
// space-reservation and clock call of KestShard goes through the process's current Env.
// Tests install an EnvWrapper that fails a chosen call to exercise each error path.
// Calls return what the system call returns (-1 with errno set; reserve() returns an
// error number like posix_fallocate). Process-wide; install before mounting anything.
class VESK_EXPORT Env {
 public:
  virtual ~Env() = default;

  virtual int openAt(int dirFd, const char* name, int flags, mode_t mode) = 0;
  virtual int mkdirAt(int dirFd, const char* name, mode_t mode) = 0;
  virtual int renameAt(int dirFd, const char* from, const char* to) = 0;
  virtual int unlinkAt(int dirFd, const char* name, int flags) = 0;
  virtual int stat(int fd, struct ::stat* out) = 0;
  virtual int truncate(int fd, off_t size) = 0;
  // Reserves backing store so that later writes to the range cannot fault on a full
  // filesystem. Returns 0 or an error number.
  virtual int reserve(int fd, off_t offset, off_t len) = 0;
  // Gives the backing store of a range back; the range reads as zeros afterwards.
  virtual int release(int fd, off_t offset, off_t len) = 0;
  virtual int lock(int fd, int operation) = 0;
  virtual void* map(size_t len, int prot, int fd) = 0;
  virtual int unmap(void* addr, size_t len) = 0;
  // Maps the pages of a reserved range writable now, in one call, rather than one fault per
  // page later. Advisory: a failure is not an error.
  virtual int populate(void* addr, size_t len) = 0;
  virtual int close(int fd) = 0;
  // Wall-clock time in nanoseconds since the epoch (UTC).
  virtual int64_t nowNs() = 0;

  static Env& current() noexcept;
  // Installs env as the current one (nullptr restores the system's); returns the previous.
  static Env* currentIs(Env* env) noexcept;
  static Env& system() noexcept;
};

// Forwards every call to a target; derive and override the calls to intercept.
class VESK_EXPORT EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env& target) : target_(target) {}

  int openAt(int d, const char* n, int f, mode_t m) override { return target_.openAt(d, n, f, m); }
  int mkdirAt(int d, const char* n, mode_t m) override { return target_.mkdirAt(d, n, m); }
  int renameAt(int d, const char* a, const char* b) override { return target_.renameAt(d, a, b); }
  int unlinkAt(int d, const char* n, int f) override { return target_.unlinkAt(d, n, f); }
  int stat(int fd, struct ::stat* out) override { return target_.stat(fd, out); }
  int truncate(int fd, off_t size) override { return target_.truncate(fd, size); }
  int reserve(int fd, off_t o, off_t l) override { return target_.reserve(fd, o, l); }
  int release(int fd, off_t o, off_t l) override { return target_.release(fd, o, l); }
  int lock(int fd, int op) override { return target_.lock(fd, op); }
  void* map(size_t len, int prot, int fd) override { return target_.map(len, prot, fd); }
  int unmap(void* addr, size_t len) override { return target_.unmap(addr, len); }
  int populate(void* addr, size_t len) override { return target_.populate(addr, len); }
  int close(int fd) override { return target_.close(fd); }
  int64_t nowNs() override { return target_.nowNs(); }

  Env& target() const noexcept { return target_; }

 private:
  Env& target_;
};

}  // namespace KestShard
