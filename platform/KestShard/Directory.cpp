#include "KestShard/Directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "KestShard/Env.h"
#include "KestShard/SystemError.h"
#include "Nimbo/Exception.h"

namespace KestShard {
namespace {

constexpr size_t kMaxComponent = 128;

bool validComponent(std::string_view c) {
  if (c.empty() || c.size() > kMaxComponent || c == "." || c == "..") return false;
  for (char ch : c) {
    bool ok = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
              ch == '.' || ch == '_' || ch == '-';
    if (!ok) return false;
  }
  return true;
}

void checkSafe(const struct ::stat& st, const Nimbo::String& path) {
  if (!S_ISDIR(st.st_mode)) {
    throw Nimbo::SystemException(fmt::format("{} is not a directory", path), ENOTDIR);
  }
  if (st.st_uid != ::geteuid()) {
    throw Nimbo::SystemException(
        fmt::format("refusing {}: owned by uid {}, not by this user", path, st.st_uid), EPERM);
  }
  if (st.st_mode & (S_IWGRP | S_IWOTH)) {
    throw Nimbo::SystemException(fmt::format("refusing {}: writable by group or others (mode {:o})",
                                             path, st.st_mode & 07777),
                                 EPERM);
  }
}

}  // namespace

Directory::Directory(Directory&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

Directory& Directory::operator=(Directory&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) Env::current().close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    path_ = std::move(other.path_);
  }
  return *this;
}

Directory::~Directory() {
  if (fd_ >= 0) Env::current().close(fd_);
}

Nimbo::String Directory::rootPath() {
  const char* env = std::getenv("VESK_SHM_ROOT");
  Nimbo::String path = (env && *env) ? env : "/dev/shm/vesk";
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

Directory Directory::root() {
  Nimbo::String path = rootPath();
  if (path.empty() || path[0] != '/') {
    throw Nimbo::InvalidArgumentException(
        fmt::format("shared-memory root '{}' must be an absolute path", path));
  }
  size_t slash = path.rfind('/');
  Nimbo::String parent = slash == 0 ? "/" : path.substr(0, slash);
  Nimbo::String name = path.substr(slash + 1);
  int parentFd =
      Env::current().openAt(AT_FDCWD, parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (parentFd < 0)
    throwSystemError("cannot open the parent of the shared-memory root", parent, errno);
  try {
    Directory root = openChecked(parentFd, name, path, true);
    Env::current().close(parentFd);
    return root;
  } catch (...) {
    Env::current().close(parentFd);
    throw;
  }
}

Directory Directory::openChecked(int parentFd, const Nimbo::String& name, const Nimbo::String& path,
                                 bool create) {
  Env& env = Env::current();
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  int fd = env.openAt(parentFd, name.c_str(), flags, 0);
  if (fd < 0 && errno == ENOENT && create) {
    if (env.mkdirAt(parentFd, name.c_str(), 0700) != 0 && errno != EEXIST) {
      throwSystemError("cannot create directory", path, errno);
    }
    fd = env.openAt(parentFd, name.c_str(), flags, 0);
  }
  if (fd < 0) {
    int error = errno;
    if (error == ELOOP || error == ENOTDIR)
      throwSystemError("refusing (symlink or not a directory)", path, error);
    throwSystemError("cannot open directory", path, error);
  }
  Directory dir(fd, path);
  struct ::stat st {};
  if (env.stat(fd, &st) != 0) throwSystemError("cannot stat", path, errno);
  checkSafe(st, path);
  return dir;
}

bool Directory::stillThere() const {
  struct ::stat st {};
  if (fd_ < 0 || Env::current().stat(fd_, &st) != 0 || st.st_nlink == 0) return false;
  checkSafe(st, path_);
  return true;
}

std::vector<Nimbo::String> Directory::components(std::string_view relativePath) {
  std::vector<Nimbo::String> parts;
  size_t start = 0;
  while (start <= relativePath.size()) {
    size_t end = relativePath.find('/', start);
    if (end == std::string_view::npos) end = relativePath.size();
    std::string_view part = relativePath.substr(start, end - start);
    if (!validComponent(part)) {
      throw Nimbo::InvalidArgumentException(fmt::format(
          "malformed shared-memory path '{}': components must be non-empty [A-Za-z0-9._-] names "
          "(at most {} characters), not '.' or '..'",
          relativePath, kMaxComponent));
    }
    parts.emplace_back(part);
    start = end + 1;
  }
  return parts;
}

Directory Directory::sub(std::string_view relativePath, bool create) const {
  std::vector<Nimbo::String> parts = components(relativePath);
  Directory current = openChecked(fd_, parts[0], path_ + "/" + parts[0], create);
  for (size_t i = 1; i < parts.size(); ++i) {
    current = openChecked(current.fd_, parts[i], current.path_ + "/" + parts[i], create);
  }
  return current;
}

namespace {

std::vector<Nimbo::String> listEntries(int fd, unsigned char wanted) {
  std::vector<Nimbo::String> names;
  int dupFd = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dupFd < 0) return names;
  DIR* dir = ::fdopendir(dupFd);
  if (!dir) {
    ::close(dupFd);
    return names;
  }
  while (dirent* e = ::readdir(dir)) {
    std::string_view name = e->d_name;
    if (e->d_type == wanted && validComponent(name)) names.emplace_back(name);
  }
  ::closedir(dir);
  return names;
}

}  // namespace

std::vector<Nimbo::String> Directory::subdirectories() const { return listEntries(fd_, DT_DIR); }

std::vector<Nimbo::String> Directory::files() const { return listEntries(fd_, DT_REG); }

}  // namespace KestShard
