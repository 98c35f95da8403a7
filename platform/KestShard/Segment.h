#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "KestShard/Directory.h"
#include "KestShard/SegmentLayout.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace KestShard {

// One collection file, mapped MAP_SHARED: read-write and exclusively locked for the single
// writer, read-only for readers. Creates, validates and (when unusable) recreates the file;
// reserves backing store chunk by chunk as the collection grows, so that memory follows the
// live records and a full filesystem is an error instead of a SIGBUS.
// Owned by the collection that mounted it; one thread at a time.
class VESK_EXPORT Segment : public Nimbo::Node {
 public:
  struct Identity {
    Nimbo::String collectionName;
    Nimbo::String typeName;
  };

  // Opens dir/name for writing, creating it when missing and recreating it (empty, wiped)
  // when it is unusable. `registered` says the namespace knows it existed before, so a
  // missing file was lost rather than never made. A file of another layout, capacity or
  // type, or of another owner, is refused; so is a symlink; so is a second writer.
  static Nimbo::Ptr<Segment> openWriter(const Directory& dir, const Nimbo::String& name,
                                        const Geometry& geometry, const Identity& identity,
                                        bool registered);
  // Opens dir/name read-only; it must exist and match.
  static Nimbo::Ptr<Segment> openReader(const Directory& dir, const Nimbo::String& name,
                                        const Geometry& geometry, const Identity& identity);
  ~Segment() override;

  SegmentHeader& header() const noexcept { return *reinterpret_cast<SegmentHeader*>(base_); }
  unsigned char* base() const noexcept { return base_; }
  const Geometry& geometry() const noexcept { return geometry_; }
  bool writable() const noexcept { return writable_; }
  // Throws Nimbo::InvalidArgumentException naming `operation` on a read-only mount.
  void requireWritable(const char* operation) const;
  const Nimbo::String& path() const noexcept { return path_; }
  // This open made the file (first mount, or recreation of a lost or unusable one).
  bool created() const noexcept { return created_; }

  // Whether the chunk holding `offset` has backing store. Pages of unreserved chunks are
  // never touched: they read as empty.
  bool reserved(uint64_t offset) const noexcept;
  // Reserves every chunk overlapping [offset, offset + len). Throws Nimbo::SystemException.
  void reserve(uint64_t offset, uint64_t len);
  // Gives back the chunks lying entirely inside [begin, end), unless the segment is pinned.
  void release(uint64_t begin, uint64_t end);
  // Reserves the whole file now and keeps it reserved: no growth or release on the write
  // path, at the price of memory for the full capacity.
  void pin();
  bool pinned() const noexcept { return pinned_; }
  // Backing store the file holds now, in bytes.
  uint64_t allocatedBytes() const;

  // Cheap check of the identity words an operation relies on; throws
  // Nimbo::CorruptionDetectedException naming the damage. A writer rewrites the identity
  // from its own copy before throwing, so the damage is reported once.
  void checkHeader() const;
  // Whether the process that last mounted this segment as its writer has exited (false
  // when unknown). Readers use it to tell a change left half done from one in progress.
  bool writerGone() const noexcept;

 private:
  void claimWriter();
  Segment(int fd, Nimbo::String path, const Geometry& geometry, bool writable);
  void mapFile();
  void initializeHeader(const Identity& identity, bool wiped);
  bool usable(const struct ::stat& st, Nimbo::String& why) const;
  void checkMatches(const Identity& identity) const;
  static Nimbo::Ptr<Segment> create(const Directory& dir, const Nimbo::String& name,
                                    const Geometry& geometry, const Identity& identity, bool wiped);

  int fd_;
  Nimbo::String path_;
  Geometry geometry_;
  bool writable_;
  bool created_ = false;
  bool pinned_ = false;
  unsigned char* base_ = nullptr;
  alignas(SegmentHeader) unsigned char identity_[kIdentityBytes + sizeof(uint64_t)] =
      {};  // taken at open
};

}  // namespace KestShard
