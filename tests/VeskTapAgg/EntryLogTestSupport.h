#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "Asic/GroupInterface.h"
#include "Asic/SwTableStats.h"
#include "Cairn/EntityManager.h"
#include "VeskTapAgg/EntryLog.h"
#include "support/TempShmRoot.h"
#include "types/TableTestSupport.h"

namespace VeskTest {

// The named entry-log class and factory of each table type, by its traits.
template <class Traits>
struct NamedEntryLog;
#define VESK_TEST_NAMED_ENTRY_LOG(Name, lower, ...)                      \
  template <>                                                            \
  struct NamedEntryLog<VeskTapAgg::Name##Traits> {                       \
    using Type = VeskTapAgg::Name##EntryLog;                             \
    static constexpr auto factory = &VeskTapAgg::lower##EntryLogFactory; \
  };
VESK_TAPAGG_TABLES(VESK_TEST_NAMED_ENTRY_LOG)
#undef VESK_TEST_NAMED_ENTRY_LOG

constexpr const char* kTestAgent = "VeskTapAggTest";

// Records every log entry the group interface announces.
struct LogEntryRecorder : Asic::LogEntryObserver {
  std::vector<std::pair<Asic::SwTableId, Asic::LogVersion>> seen;
  void onLogEntry(Asic::SwTableId table, Asic::LogVersion version) override {
    seen.emplace_back(table, version);
  }
};

// One agent's view of a table type's entry log: its state database, group interface and
// entry log, made on demand so that a test can fork before anything is mounted.
template <class Traits>
class EntryLogAgent {
 public:
  using EntryLog = typename NamedEntryLog<Traits>::Type;
  using EntryKey = typename Traits::EntryKey;
  using LogEntry = typename Traits::LogEntry;

  EntryLogAgent()
      : em(Nimbo::make<Cairn::EntityManager>(kTestAgent, true)),
        groupInterface(Nimbo::make<Asic::GroupInterface>()),
        stats(Nimbo::make<Asic::SwTableStats>()) {}

  EntryLog& log() {
    if (!log_)
      log_ = NamedEntryLog<Traits>::factory(Traits::tableId, em, groupInterface, kTestAgent);
    return *log_;
  }
  EntryLog& mounted(Asic::UnitId unit = Asic::UnitId(0), Asic::LogVersion purge = {}) {
    log().mountShardConfig(unit, purge);
    return *log_;
  }

  static EntryKey key(uint32_t n) {
    EntryKey k = patternedKey<EntryKey>(uint8_t(n));
    // Keys of more than 256 tests differ in their first word too.
    std::memcpy(static_cast<void*>(&k), &n, sizeof n);
    return k;
  }
  // The entry of key n; `variant` changes what an action table's entry does (an entry
  // table's entry is its key, so there it changes nothing).
  static LogEntry entry(uint32_t n, uint16_t variant = 0) {
    LogEntry e{};
    e.entryKey = key(n);
    if constexpr (requires { e.action; }) {
      e.action.vlanId = variant;
      e.action.counterId = 0xc0de0000u | n;  // makes the record's bytes unique in a file
    }
    return e;
  }

  Asic::LogVersion write(uint32_t n, uint16_t variant = 0, bool suppress = false,
                         Asic::UnitId unit = Asic::UnitId(0)) {
    return log().entryIs(entry(n, variant), {}, nullptr, unit, stats, suppress);
  }
  Asic::LogVersion del(uint32_t n, Asic::UnitId unit = Asic::UnitId(0)) {
    return log().entryDel(key(n), nullptr, unit);
  }
  std::vector<typename Traits::LogShardEntry> changes() {
    std::vector<typename Traits::LogShardEntry> all;
    log().tableEntryLog()->entryLogConfigColl().forEach([&](const auto& c) { all.push_back(c); });
    return all;
  }
  std::vector<uint64_t> changeVersions() {
    std::vector<uint64_t> versions;
    for (const auto& c : changes()) versions.push_back(c.logVersion.value());
    return versions;
  }
  std::filesystem::path collectionFile(const Nimbo::String& path, const char* collection) const {
    return std::filesystem::path(std::getenv("VESK_SHM_ROOT")) / "local" / kTestAgent / path /
           collection;
  }

  Nimbo::Ptr<Cairn::EntityManager> em;
  Nimbo::Ptr<Asic::GroupInterface> groupInterface;
  Nimbo::Ptr<Asic::SwTableStats> stats;

 private:
  Nimbo::Ptr<EntryLog> log_;
};

// Runs `body` in a child process and returns its exit status (a failed expectation in the
// child exits 1; a crash shows as a signal).
inline int inChild(const std::function<void()>& body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

// Flips the byte that follows `pattern` in the file, inside the record that holds it, so
// that the record fails its checksum.
inline bool damageRecordHolding(const std::filesystem::path& file, const void* pattern,
                                size_t size) {
  std::fstream f(file, std::ios::in | std::ios::out | std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  const size_t at = bytes.find(std::string(static_cast<const char*>(pattern), size));
  if (at == std::string::npos) return false;
  f.seekp(std::streamoff(at + size));
  f.put(char(bytes[at + size] ^ 0x40));
  return bool(f);
}

}  // namespace VeskTest
