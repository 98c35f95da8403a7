#pragma once

// A table type's entry log against a model of what TableEntryLog.h promises. Bytes are read
// as a run of operations on two units (write, entry delete, unit delete, cleanup, remount),
// applied to the entry log in shared memory and to the model, and every answer and every
// read is compared. Driven by TablesFuzz.cpp. Single-threaded.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "KestShard/Directory.h"
#include "KestSharedMem/EntityManager.h"
#include "VeskTapAgg/EntryLogTestSupport.h"

namespace VeskTest {

// The documented behaviour, on plain containers. Per (unit, key): the variant last written,
// the version of the last change and whether that change was a delete (a tombstone).
class EntryLogModel {
 public:
  struct Record {
    uint16_t variant = 0;
    uint64_t version = 0;
    bool deleted = false;
  };
  using Slot = std::pair<uint16_t, uint32_t>;  // unit, key

  // `variantsDiffer`: an action table's entries differ by their variant; an entry table's
  // entry is its key, so any two of one key are equal.
  explicit EntryLogModel(bool variantsDiffer) : variantsDiffer_(variantsDiffer) {}

  // A write takes the next version, except that with suppression a write equal to the
  // live entry answers with that entry's version and logs nothing.
  uint64_t write(uint16_t unit, uint32_t key, uint16_t variant, bool suppress) {
    const Record* stored = find(unit, key);
    if (suppress && stored && !stored->deleted &&
        (!variantsDiffer_ || stored->variant == variant)) {
      return stored->version;
    }
    records_[{unit, key}] = Record{variant, ++version_, false};
    changes_.insert(version_);
    return version_;
  }
  // A delete turns a record (a tombstone too) into a tombstone of the next version; a key
  // without a record logs nothing and answers 0.
  uint64_t erase(uint16_t unit, uint32_t key) {
    auto it = records_.find({unit, key});
    if (it == records_.end()) return 0;
    it->second.deleted = true;
    it->second.version = ++version_;
    changes_.insert(version_);
    return version_;
  }
  // A unit delete turns every live record of the unit into a tombstone of one new version.
  uint64_t eraseUnit(uint16_t unit) {
    ++version_;
    for (auto& [slot, record] : records_) {
      if (slot.first == unit && !record.deleted) record = Record{record.variant, version_, true};
    }
    changes_.insert(version_);
    return version_;
  }
  // The hardware side took every change up to `version`: those changes go, and so do the
  // tombstones they made (a record changed since keeps its newer version).
  void cleanup(uint64_t version) {
    changes_.erase(changes_.begin(), changes_.upper_bound(version));
    dropTombstonesUpTo(version);
  }
  // A remount keeps everything; mounting a unit with a version drops its tombstones at or
  // below it.
  void dropTombstonesUpTo(uint64_t version) {
    std::erase_if(records_,
                  [&](const auto& r) { return r.second.deleted && r.second.version <= version; });
  }

  const Record* find(uint16_t unit, uint32_t key) const {
    auto it = records_.find({unit, key});
    return it == records_.end() ? nullptr : &it->second;
  }
  uint32_t count(uint16_t unit, bool deleted) const {
    uint32_t n = 0;
    for (const auto& [slot, record] : records_)
      n += slot.first == unit && record.deleted == deleted;
    return n;
  }
  uint64_t version() const { return version_; }
  const std::set<uint64_t>& changes() const { return changes_; }

 private:
  bool variantsDiffer_;
  uint64_t version_ = 0;
  std::map<Slot, Record> records_;
  std::set<uint64_t> changes_;  // versions of the changes in the change log
};

// Runs the operations in `data` on the entry log of Traits' table type, under the current
// shared-memory root (whose namespace of the test agent it empties first), and on the
// model. Returns "" when they agree throughout, else the operation and the first read
// that differs.
//
// Each operation is one byte (its kind, the byte modulo 8) and its arguments:
//   0, 1  write      unit:bit 0  key:bits 1-4  suppress:bit 5, then variant:u8 (0 to 3)
//   2     delete     unit:bit 0  key:bits 1-4
//   3     unit delete unit:bit 0
//   4     cleanup    u8, a version from 0 to the newest (the hardware side takes only
//                    changes that exist)
//   5     remount    u8, bit 0 clear: mount the units with a version to purge up to
//   6     read one   unit:bit 0  key:bits 1-4
//   7     read all
template <class Traits>
class EntryLogDifferential {
 public:
  static constexpr uint16_t kUnits = 2;
  static constexpr uint32_t kKeys = 16;
  using Agent = EntryLogAgent<Traits>;

  static std::string run(const uint8_t* data, size_t size) {
    EntryLogDifferential d(data, size);
    return d.runAll();
  }

 private:
  EntryLogDifferential(const uint8_t* data, size_t size)
      : data_(data), size_(size), model_(requires(typename Traits::LogEntry e) { e.action; }) {}

  uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }

  std::string runAll() {
    unmount();
    // Empties the namespace, not its directory: the process's namespace object holds it open.
    const auto space =
        std::filesystem::path(KestShard::Directory::rootPath()) / "local" / kTestAgent;
    for (const auto& entry : std::filesystem::directory_iterator(space)) {
      std::filesystem::remove_all(entry);
    }
    mount(0);
    std::string mismatch;
    while (mismatch.empty() && at_ < size_) mismatch = step();
    if (mismatch.empty()) mismatch = readAll();
    unmount();
    return mismatch.empty() ? mismatch : fmt::format("after {}: {}", done_, mismatch);
  }

  std::string step() {
    const uint8_t op = next();
    const uint8_t x = (op % 8 == 4 || op % 8 == 5) ? 0 : next();
    const auto unit = uint16_t(x & 1);
    const uint32_t key = (x >> 1) & (kKeys - 1);
    const Asic::UnitId unitId(unit);
    switch (op % 8) {
      case 0:
      case 1: {
        const bool suppress = (x >> 5) & 1;
        const auto variant = uint16_t(next() % 4);
        done_ = fmt::format("write unit {} key {} variant {}{}", unit, key, variant,
                            suppress ? " suppressed" : "");
        const uint64_t got = agent_->write(key, variant, suppress, unitId).value();
        return compare("the write's version", got, model_.write(unit, key, variant, suppress));
      }
      case 2: {
        done_ = fmt::format("delete unit {} key {}", unit, key);
        return compare("the delete's version", agent_->del(key, unitId).value(),
                       model_.erase(unit, key));
      }
      case 3: {
        done_ = fmt::format("unit delete {}", unit);
        return compare("the unit delete's version", agent_->log().tableDel(nullptr, unitId).value(),
                       model_.eraseUnit(unit));
      }
      case 4: {
        const uint64_t version = next() % (model_.version() + 1);
        done_ = fmt::format("cleanup to {}", version);
        agent_->log().cleanupEntryLog(Asic::LogVersion(version));
        model_.cleanup(version);
        return readAll();
      }
      case 5: {
        const uint8_t y = next();
        const uint64_t purge = y & 1 ? 0 : (y >> 1) % (model_.version() + 2);
        done_ = fmt::format("remount purging up to {}", purge);
        unmount();
        mount(purge);
        if (purge != 0) model_.dropTombstonesUpTo(purge);
        return readAll();
      }
      case 6:
        done_ = fmt::format("read unit {} key {}", unit, key);
        return readOne(unit, key);
      default:
        done_ = "read all";
        return readAll();
    }
  }

  std::string readOne(uint16_t unit, uint32_t key) {
    const auto& log = agent_->log();
    const Asic::UnitId unitId(unit);
    const auto* expected = model_.find(unit, key);
    const bool live = expected && !expected->deleted;
    const auto entry = live ? Agent::entry(key, expected->variant) : typename Traits::LogEntry{};
    const auto where = fmt::format(" of unit {} key {}", unit, key);
    std::string m = compare("entryHas" + where, log.entryHas(Agent::key(key), unitId), live);
    if (m.empty() && !(log.entry(Agent::key(key), unitId) == entry)) {
      m = "entry" + where + " differs from the model's";
    }
    if (m.empty()) {
      m = compare("entryLogVersion" + where, log.entryLogVersion(Agent::key(key), unitId).value(),
                  expected ? expected->version : 0);
    }
    return m;
  }

  std::string readAll() {
    const auto& log = agent_->log();
    std::string m = compare("tableVersion", log.tableVersion().value(), model_.version());
    for (uint16_t unit = 0; m.empty() && unit < kUnits; ++unit) {
      m = compare(fmt::format("entrys of unit {}", unit), log.entrys(Asic::UnitId(unit)),
                  model_.count(unit, false));
      if (m.empty()) {
        m = compare(fmt::format("entrysInDeletion of unit {}", unit),
                    log.entrysInDeletion(Asic::UnitId(unit)), model_.count(unit, true));
      }
      for (uint32_t key = 0; m.empty() && key < kKeys; ++key) m = readOne(unit, key);
    }
    const std::vector<uint64_t> expected(model_.changes().begin(), model_.changes().end());
    if (m.empty() && agent_->changeVersions() != expected) {
      m = fmt::format("the change log holds versions {}, the model {}",
                      fmt::join(agent_->changeVersions(), ","), fmt::join(expected, ","));
    }
    return m;
  }

  template <class A, class B>
  static std::string compare(const std::string& what, A got, B expected) {
    if (got == A(expected)) return {};
    return fmt::format("{} is {}, the model says {}", what, got, expected);
  }

  // A restarted agent: a new entry log over the collections found in shared memory, its
  // units mounted with `purge` (0: none).
  void mount(uint64_t purge) {
    agent_.emplace();
    for (uint16_t unit = 0; unit < kUnits; ++unit)
      agent_->mounted(Asic::UnitId(unit), Asic::LogVersion(purge));
  }
  // Drops the entry log and closes its collections, as the end of the agent's process does.
  void unmount() {
    agent_.reset();
    auto shm = KestSharedMem::EntityManager::getEntityManager(kTestAgent, true);
    shm->entityDel(Traits::Constants::tableEntryLogShardPath());
    for (uint16_t unit = 0; unit < kUnits; ++unit)
      shm->entityDel(Traits::Constants::configShardPath(Asic::UnitId(unit)));
  }

  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
  EntryLogModel model_;
  std::optional<Agent> agent_;
  std::string done_ = "mounting";
};

}  // namespace VeskTest
