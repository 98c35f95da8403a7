#include "KestShard/Segment.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include <fmt/format.h>

#include "Kest/Hash.h"
#include "KestShard/Atomics.h"
#include "KestShard/Env.h"
#include "KestShard/SystemError.h"
#include "Nimbo/Exception.h"

namespace KestShard {
namespace {

uint64_t* allocationBits(unsigned char* base) {
  return reinterpret_cast<uint64_t*>(base + kPageSize);
}

uint64_t identityHash(const SegmentHeader& h) {
  return Kest::hashBytes(&h, kIdentityBytes, kSegmentMagic);
}

void copyName(char* dst, size_t size, const Nimbo::String& src) {
  std::memset(dst, 0, size);
  std::memcpy(dst, src.data(), std::min(src.size(), size - 1));
}

bool nameIs(const char* stored, size_t size, const Nimbo::String& expected) {
  return Nimbo::String(stored, strnlen(stored, size)) == expected.substr(0, size - 1);
}

// Opens the file and checks it is a regular file of ours that no one else can touch.
void checkOwnership(int fd, const Nimbo::String& path, struct ::stat& st) {
  if (Env::current().stat(fd, &st) != 0) throwSystemError("cannot stat", path, errno);
  if (!S_ISREG(st.st_mode)) {
    throw Nimbo::SystemException(fmt::format("refusing {}: not a regular file", path), EINVAL);
  }
  if (st.st_uid != ::geteuid()) {
    throw Nimbo::SystemException(
        fmt::format("refusing {}: owned by uid {}, not by this user", path, st.st_uid), EPERM);
  }
  if (st.st_mode & 077) {
    throw Nimbo::SystemException(
        fmt::format("refusing {}: accessible by group or others (mode {:o})", path,
                    st.st_mode & 07777),
        EPERM);
  }
}

int openExisting(const Directory& dir, const Nimbo::String& name, const Nimbo::String& path,
                 int flags) {
  int fd = Env::current().openAt(dir.fd(), name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0 && errno == ELOOP) throwSystemError("refusing symlink at", path, ELOOP);
  return fd;
}

}  // namespace

Segment::Segment(int fd, Nimbo::String path, const Geometry& geometry, bool writable)
    : fd_(fd), path_(std::move(path)), geometry_(geometry), writable_(writable) {}

Segment::~Segment() {
  if (base_) Env::current().unmap(base_, geometry_.fileSize);
  if (fd_ >= 0) Env::current().close(fd_);
}

void Segment::mapFile() {
  int prot = writable_ ? PROT_READ | PROT_WRITE : PROT_READ;
  void* p = Env::current().map(geometry_.fileSize, prot, fd_);
  if (p == MAP_FAILED || p == nullptr) throwSystemError("cannot map", path_, errno);
  base_ = static_cast<unsigned char*>(p);
}

bool Segment::usable(const struct ::stat& st, Nimbo::String& why) const {
  if (uint64_t(st.st_size) < 2 * kPageSize) {
    why = fmt::format("{} bytes, shorter than a header", st.st_size);
    return false;
  }
  void* p = Env::current().map(kPageSize, PROT_READ, fd_);
  if (p == MAP_FAILED || p == nullptr) throwSystemError("cannot map the header of", path_, errno);
  SegmentHeader h;
  std::memcpy(&h, p, sizeof h);
  Env::current().unmap(p, kPageSize);
  if (h.magic != kSegmentMagic)
    why = "bad magic";
  else if (h.layoutVersion != kLayoutVersion)
    why = fmt::format("layout version {}", h.layoutVersion);
  else if (h.identityCheck != identityHash(h))
    why = "header checksum mismatch";
  else if (h.fileSize != uint64_t(st.st_size))
    why = "file size differs from its header";
  if (!why.empty()) return false;
  if (h.formatWord != geometry_.formatWord || h.recordSize != geometry_.layout.recordSize ||
      h.keySize != geometry_.layout.keySize || h.kind != uint32_t(geometry_.kind)) {
    throw Nimbo::InvalidArgumentException(fmt::format(
        "refusing {}: it holds records of {} bytes with {}-byte keys (kind {}), this build "
        "expects {} bytes with {}-byte keys (kind {})",
        path_, h.recordSize, h.keySize, h.kind, geometry_.layout.recordSize,
        geometry_.layout.keySize, uint32_t(geometry_.kind)));
  }
  if (h.capacity != geometry_.capacity) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("refusing {}: capacity {} differs from the requested {}", path_, h.capacity,
                    geometry_.capacity));
  }
  return true;
}

void Segment::checkMatches(const Identity& identity) const {
  const SegmentHeader& h = header();
  if (!nameIs(h.collectionName, kNameSize, identity.collectionName) ||
      !nameIs(h.typeName, kTypeNameSize, identity.typeName)) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("refusing {}: it holds collection '{}' of type '{}', not '{}' of type '{}'",
                    path_, Nimbo::String(h.collectionName, strnlen(h.collectionName, kNameSize)),
                    Nimbo::String(h.typeName, strnlen(h.typeName, kTypeNameSize)),
                    identity.collectionName, identity.typeName));
  }
}

void Segment::initializeHeader(const Identity& identity, bool wiped) {
  SegmentHeader& h = header();
  std::memset(&h, 0, sizeof h);
  h.magic = kSegmentMagic;
  h.layoutVersion = kLayoutVersion;
  h.kind = uint32_t(geometry_.kind);
  h.formatWord = geometry_.formatWord;
  h.recordSize = geometry_.layout.recordSize;
  h.keyOffset = geometry_.layout.keyOffset;
  h.keySize = geometry_.layout.keySize;
  h.markOffset = geometry_.layout.markOffset;
  h.slotSize = geometry_.slotSize;
  h.capacity = geometry_.capacity;
  h.bucketCount = geometry_.bucketCount;
  h.fileSize = geometry_.fileSize;
  h.salt = std::random_device{}() | (uint64_t(std::random_device{}()) << 32);
  h.createdNs = Env::current().nowNs();
  copyName(h.collectionName, kNameSize, identity.collectionName);
  copyName(h.typeName, kTypeNameSize, identity.typeName);
  h.identityCheck = identityHash(h);
  h.wiped = wiped ? 1 : 0;
}

Nimbo::Ptr<Segment> Segment::create(const Directory& dir, const Nimbo::String& name,
                                    const Geometry& geometry, const Identity& identity,
                                    bool wiped) {
  Env& env = Env::current();
  const Nimbo::String path = dir.path() + "/" + name;
  const Nimbo::String tmpName = name + ".new";
  env.unlinkAt(dir.fd(), tmpName.c_str(), 0);  // left by a writer that died while creating
  int fd = env.openAt(dir.fd(), tmpName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      0600);
  if (fd < 0) throwSystemError("cannot create", path, errno);
  Nimbo::Ptr<Segment> seg(new Segment(fd, path, geometry, true));
  try {
    if (env.lock(fd, LOCK_EX | LOCK_NB) != 0) throwSystemError("cannot lock", path, errno);
    if (env.truncate(fd, off_t(geometry.fileSize)) != 0)
      throwSystemError("cannot size", path, errno);
    // The first chunk holds the header and the allocation bits themselves: it is reserved
    // before any of its pages is touched, since on a full tmpfs even reading a page that
    // has no backing store raises SIGBUS.
    if (int error = env.reserve(fd, 0, kChunkSize); error != 0) {
      throw Nimbo::SystemException(
          fmt::format("cannot create {}: {} (free space on its filesystem, or set VESK_SHM_ROOT "
                      "to a larger one)",
                      path, std::strerror(error)),
          error);
    }
    seg->mapFile();
    seg->initializeHeader(identity, wiped);
    allocationBits(seg->base_)[0] |= 1;
    if (env.renameAt(dir.fd(), tmpName.c_str(), name.c_str()) != 0) {
      throwSystemError("cannot install", path, errno);
    }
  } catch (...) {
    env.unlinkAt(dir.fd(), tmpName.c_str(), 0);
    throw;
  }
  seg->created_ = true;
  std::memcpy(seg->identity_, seg->base_, sizeof seg->identity_);
  seg->claimWriter();
  return seg;
}

Nimbo::Ptr<Segment> Segment::openWriter(const Directory& dir, const Nimbo::String& name,
                                        const Geometry& geometry, const Identity& identity,
                                        bool registered) {
  const Nimbo::String path = dir.path() + "/" + name;
  int fd = openExisting(dir, name, path, O_RDWR);
  if (fd < 0) {
    if (errno != ENOENT) throwSystemError("cannot open", path, errno);
    return create(dir, name, geometry, identity, registered);
  }
  Nimbo::Ptr<Segment> seg(new Segment(fd, path, geometry, true));
  struct ::stat st {};
  checkOwnership(fd, path, st);
  if (Env::current().lock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      throw Nimbo::SystemException(fmt::format("{} is already mounted by another writer", path),
                                   EBUSY);
    }
    throwSystemError("cannot lock", path, errno);
  }
  Nimbo::String why;
  if (!seg->usable(st, why)) {
    seg.reset();  // drops the lock on the unusable file before it is replaced
    return create(dir, name, geometry, identity, true);
  }
  seg->mapFile();
  seg->checkMatches(identity);
  std::memcpy(seg->identity_, seg->base_, sizeof seg->identity_);
  seg->claimWriter();
  return seg;
}

// Readers that find a change left half done ask whether its writer still lives.
void Segment::claimWriter() {
  storeRelease(header().writerPid, uint32_t(::getpid()));
  storeRelease(header().writerMountedNs, Env::current().nowNs());
}

bool Segment::writerGone() const noexcept {
  const auto pid = pid_t(loadAcquire(header().writerPid));
  return pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH;
}

Nimbo::Ptr<Segment> Segment::openReader(const Directory& dir, const Nimbo::String& name,
                                        const Geometry& geometry, const Identity& identity) {
  const Nimbo::String path = dir.path() + "/" + name;
  int fd = openExisting(dir, name, path, O_RDONLY);
  if (fd < 0) throwSystemError("cannot open", path, errno);
  Nimbo::Ptr<Segment> seg(new Segment(fd, path, geometry, false));
  struct ::stat st {};
  checkOwnership(fd, path, st);
  Nimbo::String why;
  if (!seg->usable(st, why)) {
    throw Nimbo::CorruptionDetectedException(fmt::format("{} is unusable: {}", path, why));
  }
  seg->mapFile();
  seg->checkMatches(identity);
  std::memcpy(seg->identity_, seg->base_, sizeof seg->identity_);
  return seg;
}

void Segment::requireWritable(const char* operation) const {
  if (!writable_) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("{} on {}: the collection is mounted read-only", operation, path_));
  }
}

bool Segment::reserved(uint64_t offset) const noexcept {
  uint64_t chunk = offset / kChunkSize;
  return (loadAcquire(allocationBits(base_)[chunk / 64]) >> (chunk % 64)) & 1;
}

void Segment::reserve(uint64_t offset, uint64_t len) {
  if (len == 0) return;
  uint64_t* bits = allocationBits(base_);
  for (uint64_t c = offset / kChunkSize; c <= (offset + len - 1) / kChunkSize; ++c) {
    if ((loadRelaxed(bits[c / 64]) >> (c % 64)) & 1) continue;
    int error = Env::current().reserve(fd_, off_t(c * kChunkSize), kChunkSize);
    if (error != 0) {
      throw Nimbo::SystemException(
          fmt::format("cannot grow {} (reserving {} bytes at offset {}): {}", path_, kChunkSize,
                      c * kChunkSize, std::strerror(error)),
          error);
    }
    __atomic_fetch_or(&bits[c / 64], uint64_t(1) << (c % 64), __ATOMIC_RELEASE);
    Env::current().populate(base_ + c * kChunkSize, kChunkSize);
  }
}

void Segment::pin() {
  reserve(0, geometry_.fileSize);
  pinned_ = true;
}

void Segment::release(uint64_t begin, uint64_t end) {
  if (pinned_) return;
  uint64_t* bits = allocationBits(base_);
  for (uint64_t c = (begin + kChunkSize - 1) / kChunkSize; (c + 1) * kChunkSize <= end; ++c) {
    if (!((loadRelaxed(bits[c / 64]) >> (c % 64)) & 1)) continue;
    // Clear the bit first: a writer stopped in between leaves a reserved chunk marked free,
    // which is merely reserved again later, never a free chunk marked reserved.
    __atomic_fetch_and(&bits[c / 64], ~(uint64_t(1) << (c % 64)), __ATOMIC_RELEASE);
    Env::current().release(fd_, off_t(c * kChunkSize), kChunkSize);
  }
}

uint64_t Segment::allocatedBytes() const {
  struct ::stat st {};
  if (Env::current().stat(fd_, &st) != 0) throwSystemError("cannot stat", path_, errno);
  return uint64_t(st.st_blocks) * 512;
}

void Segment::checkHeader() const {
  const SegmentHeader& h = header();
  const auto& copy = *reinterpret_cast<const SegmentHeader*>(identity_);
  const char* damaged = nullptr;
  if (loadRelaxed(h.magic) != copy.magic)
    damaged = "magic";
  else if (loadRelaxed(h.formatWord) != copy.formatWord)
    damaged = "format word";
  else if (loadRelaxed(h.capacity) != copy.capacity)
    damaged = "capacity";
  else if (loadRelaxed(h.identityCheck) != copy.identityCheck)
    damaged = "identity checksum";
  if (!damaged) [[likely]]
    return;
  if (writable_) std::memcpy(base_, identity_, sizeof identity_);
  throw Nimbo::CorruptionDetectedException(
      fmt::format("header of {} damaged ({}){}", path_, damaged,
                  writable_ ? "; rewritten from the writer's copy" : ""));
}

}  // namespace KestShard
