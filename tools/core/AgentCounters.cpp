#include "tools/core/AgentCounters.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "KestShard/Directory.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

// The file, in 64-bit words: a header, the unit numbers, then per table type its Table,
// then per table type and unit its Unit. The magic carries the layout's version.
constexpr const char* kFileName = "agent.counters";
constexpr uint64_t kMagic = 0x56534b434e545202;  // "VSKCNTR", version 2
enum Header : size_t {
  kMagicWord,
  kPidWord,
  kStartWord,
  kTablesWord,
  kUnitsWord,
  kRestoredWord,
  kRestoreMicrosWord,
  kHeaderWords
};

constexpr size_t kTableWords = sizeof(AgentCounters::Table) / sizeof(uint64_t);
constexpr size_t kUnitWords = sizeof(AgentCounters::Unit) / sizeof(uint64_t);
static_assert(sizeof(AgentCounters::Table) == kTableWords * sizeof(uint64_t));
static_assert(sizeof(AgentCounters::Unit) == kUnitWords * sizeof(uint64_t));
static_assert(std::atomic_ref<uint64_t>::is_always_lock_free);

size_t tableWord(size_t units, size_t table) { return kHeaderWords + units + table * kTableWords; }
size_t unitWord(size_t units, size_t table, size_t index) {
  return tableWord(units, kTableCount) + (table * units + index) * kUnitWords;
}
size_t fileBytes(size_t units) { return unitWord(units, kTableCount, 0) * sizeof(uint64_t); }

// When process `pid` started, in clock ticks after boot (/proc/<pid>/stat): with the pid,
// it names a process even after the pid is reused. Nothing when no such process runs (a
// zombie has ended).
std::optional<uint64_t> processStart(pid_t pid) {
  // Read with read(2): the file of a process that ends while it is read fails with ESRCH,
  // which an ifstream would throw as an ios failure.
  const int fd = ::open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::array<char, 1024> buffer;
  const ssize_t got = ::read(fd, buffer.data(), buffer.size());
  ::close(fd);
  if (got <= 0) return std::nullopt;
  const std::string stat(buffer.data(), size_t(got));
  const size_t name = stat.rfind(')');
  if (name == std::string::npos) return std::nullopt;
  std::istringstream fields(stat.substr(name + 1));
  std::string state, skipped;
  fields >> state;  // field 3
  for (int field = 4; field < 22; ++field) fields >> skipped;
  uint64_t start = 0;
  if (!(fields >> start) || state == "Z" || state == "X") return std::nullopt;
  return start;
}

uint64_t load(const uint64_t* words, size_t word) {
  return std::atomic_ref(const_cast<uint64_t&>(words[word])).load(std::memory_order_relaxed);
}

template <class Counters>
Counters loadCounters(const uint64_t* words, size_t first) {
  std::array<uint64_t, sizeof(Counters) / sizeof(uint64_t)> values;
  for (size_t i = 0; i < values.size(); ++i) values[i] = load(words, first + i);
  return std::bit_cast<Counters>(values);
}

}  // namespace

AgentCounters::AgentCounters(std::vector<uint16_t> units) : units_(std::move(units)) {
  std::sort(units_.begin(), units_.end());
  units_.erase(std::unique(units_.begin(), units_.end()), units_.end());
  const auto root = KestShard::Directory::root();
  const std::string fresh = std::string(kFileName) + ".new";
  const auto failed = [&](const std::string& file, int error) {
    return std::runtime_error(
        fmt::format("cannot publish the agent's counters in {}/{}: {} (remove it if it is not a "
                    "file)",
                    root.path(), file, std::strerror(error)));
  };
  const int fd =
      ::openat(root.fd(), fresh.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) throw failed(fresh, errno);
  bytes_ = fileBytes(units_.size());
  void* map = MAP_FAILED;
  if (::ftruncate(fd, off_t(bytes_)) == 0)
    map = ::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int error = errno;
  ::close(fd);
  if (map == MAP_FAILED) {
    ::unlinkat(root.fd(), fresh.c_str(), 0);
    throw failed(fresh, error);
  }
  words_ = static_cast<uint64_t*>(map);
  store(kPidWord, uint64_t(::getpid()));
  store(kStartWord, processStart(::getpid()).value_or(0));
  store(kTablesWord, kTableCount);
  store(kUnitsWord, units_.size());
  for (size_t i = 0; i < units_.size(); ++i) store(kHeaderWords + i, units_[i]);
  store(kMagicWord, kMagic);
  if (::renameat(root.fd(), fresh.c_str(), root.fd(), kFileName) != 0) {
    const int error = errno;
    ::unlinkat(root.fd(), fresh.c_str(), 0);
    ::munmap(map, bytes_);
    throw failed(kFileName, error);
  }
}

AgentCounters::~AgentCounters() { ::munmap(words_, bytes_); }

void AgentCounters::restoreIs(uint64_t entries, double ms) {
  store(kRestoredWord, entries);
  store(kRestoreMicrosWord, uint64_t(ms * 1000));
}

void AgentCounters::tableIs(size_t table, const Table& counters) {
  const auto values = std::bit_cast<std::array<uint64_t, kTableWords>>(counters);
  const size_t first = tableWord(units_.size(), table);
  for (size_t i = 0; i < kTableWords; ++i) store(first + i, values[i]);
}

void AgentCounters::unitIs(size_t table, uint16_t unit, const Unit& counters) {
  const size_t index =
      size_t(std::lower_bound(units_.begin(), units_.end(), unit) - units_.begin());
  const auto values = std::bit_cast<std::array<uint64_t, kUnitWords>>(counters);
  const size_t first = unitWord(units_.size(), table, index);
  for (size_t i = 0; i < kUnitWords; ++i) store(first + i, values[i]);
}

std::optional<AgentCounters::Snapshot> AgentCounters::read() {
  const std::string path = std::string(KestShard::Directory::rootPath()) + "/" + kFileName;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw std::runtime_error(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
  }
  struct stat st {};
  const bool usable = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                      size_t(st.st_size) >= kHeaderWords * sizeof(uint64_t);
  void* map =
      usable ? ::mmap(nullptr, size_t(st.st_size), PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
  const int error = errno;
  ::close(fd);
  if (!usable) return std::nullopt;
  if (map == MAP_FAILED)
    throw std::runtime_error(fmt::format("cannot read {}: {}", path, std::strerror(error)));
  const auto unmap = [&](void*) { ::munmap(map, size_t(st.st_size)); };
  const std::unique_ptr<void, decltype(unmap)> mapped(map, unmap);
  const auto* words = static_cast<const uint64_t*>(map);

  const uint64_t units = load(words, kUnitsWord);
  if (load(words, kMagicWord) != kMagic || load(words, kTablesWord) != kTableCount ||
      units > 65536 || fileBytes(units) > size_t(st.st_size)) {
    return std::nullopt;
  }
  Snapshot s;
  s.pid = pid_t(load(words, kPidWord));
  s.running = s.pid > 0 && processStart(s.pid) == load(words, kStartWord);
  s.restoredEntries = load(words, kRestoredWord);
  s.restoreMs = double(load(words, kRestoreMicrosWord)) / 1000;
  for (size_t i = 0; i < units; ++i) s.units.push_back(uint16_t(load(words, kHeaderWords + i)));
  for (size_t t = 0; t < kTableCount; ++t) {
    s.tables.push_back(loadCounters<Table>(words, tableWord(units, t)));
    for (size_t i = 0; i < units; ++i)
      s.unitCounters.push_back(loadCounters<Unit>(words, unitWord(units, t, i)));
  }
  return s;
}

}  // namespace VeskTool
