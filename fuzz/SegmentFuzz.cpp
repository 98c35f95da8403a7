// Damaged collection files against the shared-memory layer.
//
// At start-up the project's own code makes a keyed collection and a version log of test
// records (with a fixed salt and clock, so that every run starts from the same bytes). An
// input is a list of patches laid over those two files:
//
//   flags:u8   bit 0 / bit 1: recompute the records' / the log's identity checksum after
//              patching, so that damaged identity words get past it; bits 4-7: n > 0 makes
//              the n-th reservation of backing store fail with ENOSPC
//   patches:   file:u8 (bit 0: the log) offset:u16 length:u8 (1 to 32 bytes) bytes
//
// Each file is written sparse, as a writer leaves it: only the chunks its allocation bits
// mark reserved hold pages. The files are then mounted read-only, walked and looked up;
// mounted as the writer (which may repair), walked, looked up, written to and erased from;
// and mounted as the writer once more. The project's errors are answers. A crash, a
// sanitizer report, a hang, a walk that does not end, a lookup that answers with another
// key's record, a record stored but not found as stored (or erased but still found) and a
// write to a chunk that was not reserved are findings.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "FuzzSupport.h"
#include "Kest/Hash.h"
#include "Kest/Log.h"
#include "KestShard/Env.h"
#include "KestShard/SegmentLayout.h"
#include "platform/shard/ShardTestSupport.h"

namespace {

using namespace ShardTest;
using KestShard::kChunkSize;
using KestShard::kPageSize;
using KestShard::SegmentHeader;
using VeskFuzz::require;
using VeskFuzz::tolerate;

constexpr const char* kPath = "seg";
constexpr uint32_t kCapacity = 1024;   // both collections: two chunks each
constexpr uint32_t kStored = 40;       // ids 0 to 39 were stored, 10 to 14 erased again
constexpr uint32_t kIds = 80;          // ids looked up
constexpr uint64_t kLogVersions = 80;  // versions looked up; 1 to 60 were appended
constexpr uint32_t kMaxWalk = 4 * (kCapacity + 1);  // a writer's walk may run twice

// The system's calls with a fixed clock, and a reservation of backing store that fails
// once, at a call the input picks.
class FuzzEnv final : public KestShard::EnvWrapper {
 public:
  FuzzEnv() : EnvWrapper(KestShard::Env::system()) {}
  int64_t nowNs() override { return 1700000000000000000; }
  int reserve(int fd, off_t offset, off_t len) override {
    if (failAt_ != 0 && ++calls_ == failAt_) return ENOSPC;
    return target().reserve(fd, offset, len);
  }
  void failReserveAt(uint32_t call) {
    failAt_ = call;
    calls_ = 0;
  }

 private:
  uint32_t failAt_ = 0;
  uint32_t calls_ = 0;
};

FuzzEnv& env() {
  static FuzzEnv instance;
  return instance;
}

std::string fileOf(const char* collection) {
  return VeskFuzz::privateRoot() + "/local/agent/" + kPath + "/" + collection;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <class Word>
void put(std::string& image, size_t offset, Word value) {
  std::memcpy(image.data() + offset, &value, sizeof value);
}

void sealIdentity(std::string& image) {
  put(image, offsetof(SegmentHeader, identityCheck),
      Kest::hashBytes(image.data(), KestShard::kIdentityBytes, KestShard::kSegmentMagic));
}

bool chunkReserved(const std::string& bitmapPage, uint64_t chunk) {
  return (uint8_t(bitmapPage[chunk / 8]) >> (chunk % 8)) & 1;
}

// Writes the header chunk and the chunks the image's allocation bits mark reserved.
void writeSparse(const std::string& path, const std::string& image) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  require(fd >= 0 && ::ftruncate(fd, off_t(image.size())) == 0, "cannot write a segment file");
  const std::string bits = image.substr(kPageSize, kPageSize);
  for (uint64_t c = 0; c * kChunkSize < image.size(); ++c) {
    if (c != 0 && !chunkReserved(bits, c)) continue;
    const size_t n = std::min<size_t>(kChunkSize, image.size() - c * kChunkSize);
    require(::pwrite(fd, image.data() + c * kChunkSize, n, off_t(c * kChunkSize)) == ssize_t(n),
            "cannot write a segment file");
  }
  ::close(fd);
}

// The writer reserves a chunk before it writes to it, so that a full filesystem is an error
// and not a SIGBUS: a chunk marked free holds nothing but zeros. (Reads of a free chunk,
// which tmpfs backs with pages of zeros, are not seen here.)
void requireNoWritesToFreeChunks(const std::string& path) {
  const std::string image = readFile(path);
  if (image.size() < 2 * kPageSize) return;
  const std::string bits = image.substr(kPageSize, kPageSize);
  for (uint64_t c = 1; c * kChunkSize < image.size(); ++c) {
    if (chunkReserved(bits, c)) continue;
    const size_t end = std::min<size_t>(image.size(), (c + 1) * kChunkSize);
    require(image.find_first_not_of('\0', c * kChunkSize) >= end,
            "the writer wrote to a chunk it had not reserved");
  }
}

void lookAtRecords(const Records& records) {
  uint32_t visits = 0;
  tolerate([&] {
    records.forEach([&](const Record&) {
      require(++visits <= kMaxWalk, "a walk of the records does not end");
    });
  });
  tolerate([&] {
    uint32_t steps = 0;
    for (auto it = records.at(Record::of(kStored / 2, 0).key); it != records.end();) {
      require(++steps <= kMaxWalk, "an iteration of the records does not end");
      tolerate([&] { ++it; });
    }
  });
  for (uint32_t id = 0; id < kIds; ++id) {
    const Key key = Record::of(id, 0).key;
    tolerate([&] {
      const auto found = records.find(key);
      require(!found || found->key == key, "a lookup answered with another key's record");
    });
  }
}

void lookAtLog(const Log& log) {
  uint64_t previous = 0;
  uint32_t visits = 0;
  tolerate([&] {
    log.forEach([&](const LogRecord& r) {
      require(++visits <= kMaxWalk, "a walk of the log does not end");
      require(visits == 1 || r.version > previous, "a walk of the log is not in version order");
      previous = r.version;
    });
  });
  uint64_t newest = 0;
  tolerate([&] { newest = log.newestVersion(); });
  for (uint64_t v = 0; v < kLogVersions; ++v) {
    for (uint64_t version : {v, newest - v}) {
      tolerate([&] {
        const auto found = log.find(version);
        require(!found || found->version == version, "a lookup answered with another version");
      });
    }
  }
}

void storeRecord(Records& records, const Record& r) {
  if (!tolerate([&] { records.insertOrReplace(r); })) return;
  tolerate([&] {
    const auto found = records.find(r.key);
    require(found && *found == r, "a record just stored is not found as stored");
  });
}

void eraseRecord(Records& records, uint32_t id) {
  const Key key = Record::of(id, 0).key;
  if (!tolerate([&] { records.erase(key); })) return;
  tolerate([&] { require(!records.find(key), "a record just erased is still found"); });
}

void storeLog(Log& log, const LogRecord& r) {
  if (!tolerate([&] { log.insertOrReplace(r); })) return;
  tolerate([&] {
    const auto found = log.find(r.version);
    require(found && std::memcmp(&*found, &r, sizeof r) == 0,
            "a log record just stored is not found as stored");
  });
}

void eraseLog(Log& log, uint64_t version) {
  if (!tolerate([&] { log.erase(version); })) return;
  tolerate([&] { require(!log.find(version), "a log record just erased is still found"); });
}

void write(TestShard& shard) {
  for (uint32_t id : {1u, kStored + 5, 100u, 101u}) storeRecord(shard.records, Record::of(id, 7));
  for (uint32_t id : {2u, 101u, kStored + 20}) eraseRecord(shard.records, id);
  uint64_t newest = 0, oldest = 0;
  tolerate([&] { newest = shard.log.newestVersion(); });
  tolerate([&] {
    auto first = shard.log.begin();
    if (first != shard.log.end()) oldest = first->version;
  });
  storeLog(shard.log, LogRecord::of(newest + 1));
  storeLog(shard.log, LogRecord::of(newest + 2));
  if (oldest != 0) {
    LogRecord changed = LogRecord::of(oldest + 1);
    changed.kind = 99;
    storeLog(shard.log, changed);
    eraseLog(shard.log, oldest);
  }
}

// Mounts the test shard (its collections at their capacity), runs `use` on it and unmounts.
template <class Use>
void session(KestShard::KestShardType type, Use&& use) {
  Nimbo::Ptr<TestShard> shard;
  if (tolerate([&] { shard = mountTestShard(kPath, kCapacity, kCapacity, type); }) && shard) {
    use(*shard);
  }
  shard.reset();
  unmount(kPath);
}

struct Images {
  std::string records;
  std::string log;
};

// The two files as the project's code makes them, from the same bytes in every run.
Images makeImages() {
  session(KestShard::KestShardType::writer, [](TestShard&) {});
  for (const char* collection : {"records", "log"}) {
    std::string header = readFile(fileOf(collection)).substr(0, kPageSize);
    put(header, offsetof(SegmentHeader, salt), uint64_t(0x5eed0ddba11c0deULL));
    sealIdentity(header);
    std::fstream(fileOf(collection), std::ios::in | std::ios::out | std::ios::binary)
        .write(header.data(), kPageSize);
  }
  session(KestShard::KestShardType::writer, [](TestShard& shard) {
    for (uint32_t id = 0; id < kStored; ++id) shard.records.insertOrReplace(Record::of(id, 1));
    for (uint32_t id = 0; id < 5; ++id) shard.records.insertOrReplace(Record::of(id, 2));
    for (uint32_t id = 10; id < 15; ++id) shard.records.erase(Record::of(id, 0).key);
    for (uint64_t v = 1; v <= 60; ++v) shard.log.insertOrReplace(LogRecord::of(v));
    for (uint64_t v = 1; v <= 20; ++v) shard.log.erase(v);
    shard.log.erase(30);
    LogRecord replaced = LogRecord::of(40);
    replaced.kind = 7;
    shard.log.insertOrReplace(replaced);
  });
  return {readFile(fileOf("records")), readFile(fileOf("log"))};
}

// A process id that no process has: readers trust a change left half done by a writer
// that is gone, instead of waiting out their patience for one that lives.
pid_t deadPid() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ::waitpid(child, nullptr, 0);
  return child;
}

const Images* templates = nullptr;
pid_t gone = 0;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  VeskFuzz::privateRoot();
  KestShard::Env::currentIs(&env());
  templates = new Images(makeImages());
  gone = deadPid();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  VeskFuzz::Bytes in(data, size);
  const uint8_t flags = in.byte();
  Images images = *templates;
  while (!in.empty()) {
    std::string& image = in.byte() & 1 ? images.log : images.records;
    const size_t offset = in.u16();
    size_t length = (in.byte() & 31) + 1;
    const uint8_t* bytes = in.take(length);
    if (offset >= image.size()) continue;
    length = std::min(length, image.size() - offset);
    std::memcpy(image.data() + offset, bytes, length);
  }
  if (flags & 1) sealIdentity(images.records);
  if (flags & 2) sealIdentity(images.log);
  for (std::string* image : {&images.records, &images.log}) {
    put(*image, offsetof(SegmentHeader, writerPid), uint32_t(gone));
  }
  writeSparse(fileOf("records"), images.records);
  writeSparse(fileOf("log"), images.log);

  Kest::LogCapture quiet;
  session(KestShard::KestShardType::reader, [](TestShard& shard) {
    lookAtRecords(shard.records);
    lookAtLog(shard.log);
  });
  env().failReserveAt(flags >> 4);
  session(KestShard::KestShardType::writer, [](TestShard& shard) {
    lookAtRecords(shard.records);
    lookAtLog(shard.log);
    write(shard);
    lookAtRecords(shard.records);
    lookAtLog(shard.log);
  });
  session(KestShard::KestShardType::writer, [](TestShard& shard) {
    lookAtRecords(shard.records);
    lookAtLog(shard.log);
  });
  env().failReserveAt(0);
  requireNoWritesToFreeChunks(fileOf("records"));
  requireNoWritesToFreeChunks(fileOf("log"));
  return 0;
}
