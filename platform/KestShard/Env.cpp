#include "KestShard/Env.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace KestShard {
namespace {

class SystemEnv final : public Env {
 public:
  int openAt(int d, const char* n, int f, mode_t m) override { return ::openat(d, n, f, m); }
  int mkdirAt(int d, const char* n, mode_t m) override { return ::mkdirat(d, n, m); }
  int renameAt(int d, const char* a, const char* b) override { return ::renameat(d, a, d, b); }
  int unlinkAt(int d, const char* n, int f) override { return ::unlinkat(d, n, f); }
  int stat(int fd, struct ::stat* out) override { return ::fstat(fd, out); }
  int truncate(int fd, off_t size) override { return ::ftruncate(fd, size); }
  int reserve(int fd, off_t o, off_t l) override { return ::posix_fallocate(fd, o, l); }
  int release(int fd, off_t o, off_t l) override {
    return ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, o, l) == 0 ? 0 : errno;
  }
  int lock(int fd, int op) override { return ::flock(fd, op); }
  void* map(size_t len, int prot, int fd) override {
    return ::mmap(nullptr, len, prot, MAP_SHARED, fd, 0);
  }
  int unmap(void* addr, size_t len) override { return ::munmap(addr, len); }
  int populate(void* addr, size_t len) override {
    return ::madvise(addr, len, MADV_POPULATE_WRITE);
  }
  int close(int fd) override { return ::close(fd); }
  int64_t nowNs() override {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
  }
};

Env* currentEnv = nullptr;

}  // namespace

Env& Env::system() noexcept {
  // Never destroyed: segments still mounted at exit close through it.
  static SystemEnv* env = new SystemEnv;
  return *env;
}

Env& Env::current() noexcept { return currentEnv ? *currentEnv : system(); }

Env* Env::currentIs(Env* env) noexcept {
  Env* previous = currentEnv;
  currentEnv = env;
  return previous;
}

}  // namespace KestShard
