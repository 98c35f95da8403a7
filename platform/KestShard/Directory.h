#pragma once

#include <string_view>
#include <vector>

#include "Nimbo/Export.h"
#include "Nimbo/String.h"

namespace KestShard {

// An open directory under the shared-memory root, reached component by component without
// following symbolic links, created 0700 where missing. Segments are opened relative to
// it, so a symlink planted anywhere below the root is refused rather than followed.
// Owns its descriptor; movable, not copyable; any thread, but not concurrently.
class VESK_EXPORT Directory {
 public:
  Directory() = default;
  Directory(Directory&& other) noexcept;
  Directory& operator=(Directory&& other) noexcept;
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory();

  // The root: $VESK_SHM_ROOT, else /dev/shm/vesk. Created 0700 if missing; refused when it
  // is a symlink, not a directory, owned by another user, or writable by group or others.
  static Directory root();
  static Nimbo::String rootPath();

  // The directory at a relative path below this one ("a/b/c"), created when `create`.
  // Throws Nimbo::InvalidArgumentException for a malformed path and
  // Nimbo::SystemException when a component is missing, a symlink or unsafe.
  Directory sub(std::string_view relativePath, bool create) const;

  // Names of the entries directly below this directory that satisfy the filter kind.
  std::vector<Nimbo::String> subdirectories() const;
  std::vector<Nimbo::String> files() const;

  // Whether the directory is still where it was opened and still safe to use: false once
  // it has been removed (a descriptor kept across a removal would write into nothing);
  // throws, as opening does, when it has become unsafe (another owner, group-writable).
  bool stillThere() const;

  int fd() const noexcept { return fd_; }
  const Nimbo::String& path() const noexcept { return path_; }

  // Splits and validates a relative path: components of [A-Za-z0-9._-], not "." or "..".
  static std::vector<Nimbo::String> components(std::string_view relativePath);

 private:
  Directory(int fd, Nimbo::String path) : fd_(fd), path_(std::move(path)) {}
  static Directory openChecked(int parentFd, const Nimbo::String& name, const Nimbo::String& path,
                               bool create);

  int fd_ = -1;
  Nimbo::String path_;
};

}  // namespace KestShard
