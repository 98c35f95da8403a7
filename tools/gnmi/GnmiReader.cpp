#include "tools/gnmi/GnmiReader.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <thread>
#include <unordered_map>

#include <fmt/format.h>

#include "Nimbo/Exception.h"
#include "tools/core/AgentCounters.h"
#include "tools/core/Json.h"
#include "tools/core/RecordColumns.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

// Changes read from a change log at one poll, at most: a long log is read over several.
constexpr size_t kReadAtOnce = 8192;

LeafValue leafValueOf(const Column& c, const void* record) {
  const char* fields = static_cast<const char*>(record) + c.offset;
  switch (c.field->text) {
    case Kest::FieldText::flag:
      return Kest::fieldNumber(fields, *c.field) != 0;
    case Kest::FieldText::decimal:
    case Kest::FieldText::hex:
    case Kest::FieldText::flagNames:
      return Kest::fieldNumber(fields, *c.field);
    default:
      return c.text(record);
  }
}

double percent(uint64_t used, uint64_t capacity) {
  return capacity == 0 ? 0.0 : 100.0 * double(used) / double(capacity);
}

}  // namespace

bool EntryChange::selectedBy(const PathSelector& selector, std::optional<Shown>& shown) const {
  if (!selector.has(PathSelector::entries) || !selector.selectsTable(table) ||
      !selector.selectsUnit(unit)) {
    return false;
  }
  for (const auto& wanted : selector.keyFields) {
    if (!shown) shown = show();
    const auto& fields = shown->keyFields;
    const auto field = std::find_if(fields.begin(), fields.end(),
                                    [&](const auto& f) { return f.first == wanted.first; });
    // A unit cleared reaches every entry of it.
    if (field != fields.end() ? field->second != wanted.second : kind != Kind::clearUnit)
      return false;
  }
  return true;
}

// One table type: its tree and its follower of the change log.
class GnmiReader::Table {
 public:
  virtual ~Table() = default;
  // Empty when `selector` fits this table, else why not.
  virtual std::string misfit(const PathSelector& selector) const = 0;
  virtual void snapshot(AgentMemory& memory, const PathSelector& selector,
                        std::vector<Node>& nodes) = 0;
  // Reads the new changes into `out`; a reason when the table must be sent anew instead.
  // `nextWalk`: when a walk of the configurations may start, shared by the tables.
  virtual std::optional<std::string> poll(AgentMemory& memory, std::vector<ChangePtr>& out,
                                          Clock::time_point& nextWalk) = 0;
  virtual Replay replay(AgentMemory* memory, uint64_t since) = 0;
  uint64_t position() const noexcept { return position_; }

 protected:
  void keep(const ChangePtr& change, size_t history) {
    kept_.push_back(change);
    while (kept_.size() > history) {
      keptFrom_ = kept_.front()->version;
      kept_.pop_front();
    }
  }
  void restartAt(uint64_t version) {
    position_ = keptFrom_ = version;
    kept_.clear();
  }

  bool seen_ = false;      // the change log was found once
  uint64_t position_ = 0;  // every change up to here is read
  uint64_t keptFrom_ = 0;  // every change after this one is in kept_
  std::deque<ChangePtr> kept_;
};

namespace {

template <class Traits>
class TableOf final : public GnmiReader::Table {
  using EntryKey = typename Traits::EntryKey;
  using LogEntry = typename Traits::LogEntry;
  using LogShardEntry = typename Traits::LogShardEntry;

 public:
  TableOf(size_t index, size_t history) : index_(index), history_(history) {}

  std::string misfit(const PathSelector& s) const override {
    for (const auto& [name, text] : s.keyFields) {
      if (!hasColumn(keyColumns(), name)) {
        return fmt::format("{} entries have no key field '{}': give {}", Traits::tableName, name,
                           names(keyColumns(), {}));
      }
    }
    if (s.parts == PathSelector::entries && !s.leaf.empty() && !hasColumn(entryColumns(), s.leaf) &&
        std::find(std::begin(kEntryLeaves), std::end(kEntryLeaves), s.leaf) ==
            std::end(kEntryLeaves)) {
      return fmt::format("{} entries have no leaf '{}': give {}", Traits::tableName, s.leaf,
                         names(entryColumns(), kEntryLeaves));
    }
    return {};
  }

  void snapshot(AgentMemory& memory, const PathSelector& s, std::vector<Node>& nodes) override {
    const auto log = memory.changeLog<Traits>();
    if (!log) return;  // the agent has not used this table type
    if (s.has(PathSelector::tableState)) {
      const auto taken = memory.hardwareTaken(Traits::tableId);
      const uint64_t takenVersion = taken ? taken->value() : 0;
      nodes.push_back(
          {appendState(tablePath(Traits::tableName)),
           {{"tableId", fmt::format("{}", Traits::tableId)},
            {"committedVersion", log->tableVersion},
            {"hardwareTakenVersion", takenVersion},
            {"hardwareLag", log->tableVersion - std::min(log->tableVersion, takenVersion)},
            {"changeLogRecords", log->records},
            {"changeLogCapacity", uint64_t(log->capacity)},
            {"changeLogUsedPercent", percent(log->records, log->capacity)},
            {"oldestVersion", log->oldestVersion}}});
    }
    if (!s.has(PathSelector::unitState) && !s.has(PathSelector::entries)) return;
    for (Asic::UnitId unit : memory.units<Traits>()) {
      if (!s.selectsUnit(unit.value())) continue;
      const bool withEntries = s.has(PathSelector::entries);
      Node state{appendState(unitPath(Traits::tableName, unit.value())), {}};
      try {
        const auto contents = unitContents(memory, unit, withEntries);
        if (!contents) continue;
        if (s.has(PathSelector::unitState)) {
          const uint64_t used = contents->liveEntries + contents->tombstones;
          state.leaves = {
              {"entries", contents->liveEntries},
              {"tombstones", contents->tombstones},
              {"capacity", uint64_t(contents->capacity)},
              {"usedPercent", percent(used, contents->capacity)},
              {"level", std::string(capacityLevel(double(used) / double(contents->capacity)))},
              {"warningPercent", uint64_t(70)},
              {"criticalPercent", uint64_t(85)}};
          if (contents->tcamError) {
            state.leaves.push_back({"error", "TCAM: " + *contents->tcamError});
          } else {
            if (contents->tcamLines) {
              state.leaves.push_back({"tcamLines", *contents->tcamLines});
              state.leaves.push_back({"tcamAppliedVersion", contents->tcamAppliedVersion->value()});
            }
            state.leaves.push_back({"notInHardware", contents->notInHardware});
          }
          nodes.push_back(std::move(state));
        }
        for (const auto& e : contents->entries) {
          const auto keyFields = keyFieldsOf(e.logEntry.key());
          if (!keyMatches(keyFields, s)) continue;
          // A stream may hold it now, even when its change is not read yet: its delete is
          // told then, whatever happens to that change.
          if (seen_) live_.try_emplace(Id(unit.value(), e.logEntry.key()), epoch_);
          nodes.push_back(
              entryNode(unit.value(), keyFields, e.logEntry, e.version.value(), e.inHardware));
        }
      } catch (const Nimbo::Exception& e) {
        if (!s.has(PathSelector::unitState)) continue;
        state.leaves = {{"error", e.what()}};
        nodes.push_back(std::move(state));
      }
    }
  }

  std::optional<std::string> poll(AgentMemory& memory, std::vector<ChangePtr>& out,
                                  Clock::time_point& nextWalk) override {
    const auto read = memory.changesAfter<Traits>(position_, kReadAtOnce);
    if (!read) return std::nullopt;  // not used yet
    if (!seen_) {
      // Streams start from what is there now; earlier changes come from the log itself.
      startAt(memory, read->tableVersion);
      seen_ = true;
      return std::nullopt;
    }
    if (read->tableVersion < position_) {
      const std::string why = fmt::format(
          "the table's version went back from {} to {}: its memory was cleared or made anew",
          position_, read->tableVersion);
      startAt(memory, read->tableVersion);
      return why;
    }
    bool gap = false;
    for (const LogShardEntry& c : read->changes) {
      if (c.logVersion.value() > read->tableVersion) break;  // read at the next poll
      gap = c.logVersion.value() != position_ + 1;
      if (gap) break;
      if (ChangePtr change = changeOf(memory, c, superseded_)) {
        std::optional<Id> id;
        if (change->kind != EntryChange::Kind::clearUnit) id.emplace(change->unit, c.key);
        // The delete of an entry never told (its write was overwritten before it was read)
        // is not told either.
        if (change->kind != EntryChange::Kind::remove || live_.contains(*id)) tell(change, id, out);
      }
      position_ = c.logVersion.value();
    }
    // Versions committed that the log no longer holds were taken by the hardware side and
    // cleaned up before they were read: what they did is read from the configurations.
    // Walks take at most a quarter of the reader's time: until the next may start, the
    // table waits at its gap.
    const auto start = Clock::now();
    if ((gap || recheck_ ||
         (position_ < read->tableVersion && read->changes.size() < kReadAtOnce)) &&
        start >= nextWalk) {
      auto why = catchUp(memory, read->tableVersion, out);
      const auto end = Clock::now();
      nextWalk = end + 3 * (end - start);
      if (why) {
        startAt(memory, read->tableVersion);
        return why;
      }
    }
    return std::nullopt;
  }

  Replay replay(AgentMemory* memory, uint64_t since) override {
    Replay r;
    if (since > position_) {
      r.resync = fmt::format("version {} is beyond the newest of {}, {}", since, Traits::tableName,
                             position_);
      return r;
    }
    if (seen_ && since >= keptFrom_) {
      for (const ChangePtr& c : kept_) {
        if (c->version > since) r.changes.push_back(c);
      }
      return r;
    }
    // Before what this target kept: the agent's change log may still hold it (changes the
    // hardware side has not taken yet).
    std::optional<LoggedChanges<Traits>> read;
    if (memory) read = memory->changesAfter<Traits>(since, position_ - since);
    if (!read || read->changes.empty() || read->changes.front().logVersion.value() != since + 1) {
      r.resync = fmt::format(
          "the change log of {} no longer holds version {} (it starts at {}; this target keeps "
          "changes from {}): the hardware side has taken them",
          Traits::tableName, since + 1, read ? read->oldestVersion : 0, keptFrom_ + 1);
      return r;
    }
    Superseded superseded;
    uint64_t next = since + 1;
    for (const LogShardEntry& c : read->changes) {
      if (c.logVersion.value() > position_) break;
      if (c.logVersion.value() != next++) {
        r.changes.clear();
        r.resync =
            fmt::format("the change log of {} lacks version {}", Traits::tableName, next - 1);
        return r;
      }
      if (ChangePtr change = changeOf(*memory, c, superseded)) r.changes.push_back(change);
    }
    // The rest up to the follower's position is what it kept.
    for (const ChangePtr& c : kept_) {
      if (c->version >= next) r.changes.push_back(c);
    }
    return r;
  }

 private:
  static const std::vector<Column>& keyColumns() {
    static const auto columns = columnsOf(VeskTapAgg::typeRecordOf<EntryKey>());
    return columns;
  }
  static const std::vector<Column>& entryColumns() {
    static const auto columns = columnsOf(VeskTapAgg::typeRecordOf<typename Traits::Entry>());
    return columns;
  }
  // A record the agent is writing right now reads as damaged for that moment: read again
  // before the unit is told as damaged.
  static std::optional<UnitContents<Traits>> unitContents(AgentMemory& memory, Asic::UnitId unit,
                                                          bool withEntries) {
    for (int attempt = 1;; ++attempt) {
      try {
        return memory.unit<Traits>(unit, withEntries);
      } catch (const Nimbo::Exception&) {
        if (attempt == 5) throw;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    }
  }
  static bool hasColumn(const std::vector<Column>& columns, std::string_view name) {
    return std::any_of(columns.begin(), columns.end(),
                       [&](const Column& c) { return c.name == name; });
  }
  static std::string names(const std::vector<Column>& columns,
                           std::span<const std::string_view> more) {
    std::string list;
    for (std::string_view n : more) list.append(list.empty() ? "" : ", ").append(n);
    for (const Column& c : columns) list.append(list.empty() ? "" : ", ").append(c.name);
    return list;
  }
  static gnmi::Path appendState(gnmi::Path path) {
    path.add_elem()->set_name("state");
    return path;
  }

  static std::vector<std::pair<std::string, std::string>> keyFieldsOf(const EntryKey& key) {
    std::vector<std::pair<std::string, std::string>> fields;
    for (const Column& c : keyColumns()) fields.emplace_back(c.name, c.text(&key));
    return fields;
  }
  static bool keyMatches(const std::vector<std::pair<std::string, std::string>>& keyFields,
                         const PathSelector& s) {
    for (const auto& [name, text] : s.keyFields) {
      for (const auto& [n, t] : keyFields) {
        if (n == name && t != text) return false;
      }
    }
    return true;
  }

  static Node entryNode(uint16_t unit,
                        const std::vector<std::pair<std::string, std::string>>& keyFields,
                        const LogEntry& logEntry, uint64_t version,
                        std::optional<bool> inHardware) {
    Node node{entryPath(Traits::tableName, unit, keyFields), {}};
    node.leaves.push_back({"version", version});
    if (inHardware) node.leaves.push_back({"inHardware", *inHardware});
    const auto entry = VeskTapAgg::entryOf(logEntry);
    for (const Column& c : entryColumns()) node.leaves.push_back({c.name, leafValueOf(c, &entry)});
    return node;
  }

  // An entry: its unit and key, as bytes (hashed and compared as such). The hash is made
  // once and kept: the standard map does not keep it for a hash it takes for a cheap one,
  // and would hash the bytes of every entry it passes in a bucket's chain again.
  struct Id {
    std::array<char, sizeof(uint16_t) + sizeof(EntryKey)> bytes;
    size_t hash;
    Id(uint16_t unit, const EntryKey& key) {
      std::memcpy(bytes.data(), &unit, sizeof unit);
      std::memcpy(bytes.data() + sizeof unit, &key, sizeof key);
      hash = std::hash<std::string_view>()(std::string_view(bytes.data(), bytes.size()));
    }
    uint16_t unit() const {
      uint16_t u;
      std::memcpy(&u, bytes.data(), sizeof u);
      return u;
    }
    EntryKey key() const {
      EntryKey k;
      std::memcpy(&k, bytes.data() + sizeof(uint16_t), sizeof k);
      return k;
    }
    bool operator==(const Id& o) const { return hash == o.hash && bytes == o.bytes; }
  };
  struct IdHash {
    size_t operator()(const Id& id) const noexcept { return id.hash; }
  };
  // Changes whose values were overwritten before they were read, by entry.
  using Superseded = std::unordered_map<Id, uint32_t, IdHash>;

  // Makes a change's key fields and node from its bytes.
  static EntryChange::Shown render(const EntryChange& c) {
    EntryChange::Shown shown;
    if (c.kind == EntryChange::Kind::clearUnit) {
      shown.node.path = unitPath(Traits::tableName, c.unit);
      shown.node.path.add_elem()->set_name("entries");
    } else if (c.kind == EntryChange::Kind::write) {
      LogEntry logEntry;
      std::memcpy(&logEntry, c.bytes.data(), sizeof logEntry);
      shown.keyFields = keyFieldsOf(logEntry.key());
      shown.node = entryNode(c.unit, shown.keyFields, logEntry, c.version, std::nullopt);
    } else {
      EntryKey key;
      std::memcpy(&key, c.bytes.data(), sizeof key);
      shown.keyFields = keyFieldsOf(key);
      shown.node.path = entryPath(Traits::tableName, c.unit, shown.keyFields);
    }
    return shown;
  }

  // The change of log record `c`; null when its value was overwritten since (it is then
  // counted in the next change of its entry).
  ChangePtr changeOf(AgentMemory& memory, const LogShardEntry& c, Superseded& superseded) {
    const uint16_t unit = c.unitId.value();
    const auto kind = VeskTapAgg::DeleteKind(c.deleteKind);
    if (kind == VeskTapAgg::DeleteKind::unitDelete) {
      auto change = std::make_shared<EntryChange>();
      change->table = index_;
      change->version = c.logVersion.value();
      change->unit = unit;
      change->kind = EntryChange::Kind::clearUnit;
      change->render = &render;
      std::erase_if(superseded, [&](const auto& s) { return s.first.unit() == unit; });
      return change;
    }
    const Id id(unit, c.key);
    std::optional<typename Traits::ConfigShardEntry> record;
    if (kind == VeskTapAgg::DeleteKind::write) {
      record = memory.configRecord<Traits>(c.unitId, c.key);
      if (!record || record->isDeleted || record->logVersion != c.logVersion) {
        ++superseded[id];
        return nullptr;
      }
    }
    uint32_t duplicates = 0;
    if (const auto it = superseded.find(id); it != superseded.end()) {
      duplicates = it->second;
      superseded.erase(it);
    }
    return entryChange(unit, c.logVersion.value(), c.key, record ? &record->logEntry : nullptr,
                       duplicates);
  }

  // A write of `logEntry` to its entry, or with none the delete of entry `key`.
  ChangePtr entryChange(uint16_t unit, uint64_t version, const EntryKey& key,
                        const LogEntry* logEntry, uint32_t duplicates = 0) {
    auto change = std::make_shared<EntryChange>();
    change->table = index_;
    change->version = version;
    change->unit = unit;
    change->duplicates = duplicates;
    change->render = &render;
    if (logEntry) {
      change->bytes.assign(reinterpret_cast<const char*>(logEntry), sizeof *logEntry);
    } else {
      change->kind = EntryChange::Kind::remove;
      change->bytes.assign(reinterpret_cast<const char*>(&key), sizeof key);
    }
    return change;
  }

  // Sends `change` (to entry `id`; none for a unit cleared) and keeps live_ as the streams
  // now hold the table.
  void tell(const ChangePtr& change, const std::optional<Id>& id, std::vector<ChangePtr>& out) {
    switch (change->kind) {
      case EntryChange::Kind::write:
        live_[*id] = epoch_;
        break;
      case EntryChange::Kind::remove:
        live_.erase(*id);
        break;
      case EntryChange::Kind::clearUnit:
        std::erase_if(live_, [&](const auto& l) { return l.first.unit() == change->unit; });
        break;
    }
    out.push_back(change);
    keep(change, history_);
  }

  // Calls `visit(unit, record)` for every configuration record of every unit. A record the
  // agent is writing right now reads as damaged for that moment: the walk is made again
  // before the damage is thrown.
  template <class Visit>
  static void walkConfigurations(AgentMemory& memory, Visit visit) {
    for (Asic::UnitId unit : memory.units<Traits>()) {
      for (int attempt = 1;; ++attempt) {
        try {
          memory.forEachConfigRecord<Traits>(
              unit, [&](const typename Traits::ConfigShardEntry& r) { visit(unit.value(), r); });
          break;
        } catch (const Nimbo::Exception&) {
          if (attempt == 5) throw;
          std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
      }
    }
  }

  // Follows the table from `version` on, with live_ as the configurations hold it there.
  void startAt(AgentMemory& memory, uint64_t version) {
    Live live;
    walkConfigurations(memory, [&](uint16_t unit, const auto& r) {
      if (!r.isDeleted && r.logVersion.value() <= version) {
        live.emplace(Id(unit, r.logEntry.key()), epoch_);
      }
    });
    live_ = std::move(live);
    restartAt(version);
    superseded_.clear();
    recheck_ = false;
  }

  // Tells the changes up to `tableVersion` that the change log dropped before they were
  // read, as the configurations show them, in version order: every entry written since
  // position_ as a write with its version; every entry the streams hold that is gone now
  // as a delete, with its version while its tombstone lasts. A delete whose tombstone went
  // too takes a version of the gap that no other change took (the newest first): its own
  // is not known, and so each change keeps a version of its own (but the deletes of a
  // remove-all, which share theirs) and a collector resumes exactly after any of them.
  // Entries gone beyond the gap's free versions were deleted while the walk ran: they wait
  // for the next poll, which reads their deletes or walks again. When nothing was committed
  // meanwhile they are a unit's remove-all (many deletes, one version), and the reason for
  // a resync is returned instead. Writes
  // overwritten in between are not known. A walk that meets damage throws and changes
  // nothing; the next poll tries again.
  std::optional<std::string> catchUp(AgentMemory& memory, uint64_t tableVersion,
                                     std::vector<ChangePtr>& out) {
    struct Found {
      uint64_t version;
      uint16_t unit;
      bool deleted;
      LogEntry logEntry;
    };
    std::vector<Found> found;
    // Entries of live_ still there are marked with this walk's epoch; the rest are gone.
    const uint32_t epoch = epoch_ + 1;
    std::vector<typename Live::iterator> marked;
    walkConfigurations(memory, [&](uint16_t unit, const auto& r) {
      const uint64_t v = r.logVersion.value();
      // Written while this walk ran (read at a later poll): the entry is not gone either.
      if (!r.isDeleted || v > tableVersion) {
        if (const auto it = live_.find(Id(unit, r.logEntry.key())); it != live_.end()) {
          marked.push_back(it);
        }
      }
      if (v > position_ && v <= tableVersion) {
        found.push_back({v, unit, bool(r.isDeleted), r.logEntry});
      }
    });
    std::sort(found.begin(), found.end(),
              [](const Found& a, const Found& b) { return a.version < b.version; });
    std::vector<uint64_t> versions;
    for (const Found& f : found) versions.push_back(f.version);
    struct Told {
      uint64_t version;
      Id id;
      const LogEntry* written;  // null for a delete
    };
    std::vector<Told> told;
    for (const Found& f : found) {
      const Id id(f.unit, f.logEntry.key());
      if (!f.deleted) {
        told.push_back({f.version, id, &f.logEntry});
      } else if (const auto it = live_.find(id); it != live_.end()) {
        marked.push_back(it);  // gone, with a version known
        told.push_back({f.version, id, nullptr});
      }
    }
    for (const auto& it : marked) it->second = epoch;
    std::vector<Id> gone;
    for (const auto& [id, mark] : live_) {
      if (mark != epoch) gone.push_back(id);
    }
    // Versions of the gap taken by records found (a remove-all's tombstones share one).
    const size_t taken = size_t(std::unique(versions.begin(), versions.end()) - versions.begin());
    const size_t free = tableVersion - position_ - taken;
    const size_t goneBefore = gone.size();
    if (gone.size() > free) {
      // Entries deleted while the walk ran (after tableVersion), their tombstones cleaned
      // already, are gone too: they wait for the read of those versions. Without such
      // versions the gap deleted more entries than it had versions: a remove-all.
      const auto log = memory.changeLog<Traits>();
      if (!log || log->tableVersion == tableVersion) {
        recheck_ = false;
        return fmt::format(
            "{} entries of {} were deleted between versions {} and {} and the change log no "
            "longer says when (a unit's remove-all)",
            gone.size(), Traits::tableName, position_ + 1, tableVersion);
      }
      gone.erase(gone.begin() + std::ptrdiff_t(free), gone.end());
    }
    // The rest are looked at again at the next poll, gap or not.
    recheck_ = gone.size() < goneBefore;
    uint64_t next = tableVersion;  // the newest version not yet given
    auto used = versions.rbegin() + std::ptrdiff_t(versions.size() - taken);
    for (const Id& id : gone) {
      for (; used != versions.rend() && *used >= next; ++used) {
        if (*used == next) --next;
      }
      told.push_back({next--, id, nullptr});
    }
    epoch_ = epoch;
    std::sort(told.begin(), told.end(),
              [](const Told& a, const Told& b) { return a.version < b.version; });
    for (const Told& t : told) {
      tell(entryChange(t.id.unit(), t.version, t.id.key(), t.written), t.id, out);
    }
    position_ = tableVersion;
    superseded_.clear();
    return std::nullopt;
  }

  size_t index_;
  size_t history_;
  Superseded superseded_;
  // The entries the streams hold as live at position_, each with the epoch of the catch-up
  // that last found it (or told it): the configurations alone do not show an entry whose
  // delete was cleaned up with its tombstone.
  using Live = std::unordered_map<Id, uint32_t, IdHash>;
  Live live_;
  uint32_t epoch_ = 0;
  bool recheck_ = false;  // entries gone were left for the next poll's walk
};

}  // namespace

GnmiReader::GnmiReader(size_t history) : history_(history) {
  forEachTable([&]<class Traits>(size_t t) {
    tables_.push_back(std::make_unique<TableOf<Traits>>(t, history_));
  });
}

GnmiReader::~GnmiReader() = default;

AgentMemory* GnmiReader::memory() {
  // A new agent may have made its memory anew: then it is opened anew too (it keeps its
  // mounts of the logs and configurations, read at every change). Looked at every 100 ms,
  // not at every poll: the look reads files.
  const auto now = Clock::now();
  if (!memory_ || now >= nextAgentLook_) {
    nextAgentLook_ = now + std::chrono::milliseconds(100);
    const auto counters = AgentCounters::read();
    const int pid = counters ? int(counters->pid) : 0;
    if (memory_ && pid != agentPid_) memory_.reset();
    agentPid_ = pid;
  }
  if (!memory_) {
    try {
      memory_ = std::make_unique<AgentMemory>(AgentMemory::Mounts::kept);
    } catch (const NoAgentMemoryError&) {
      return nullptr;
    }
  }
  return memory_.get();
}

void GnmiReader::check(const PathSelector& s) const {
  std::string why;
  for (size_t t = 0; t < tables_.size(); ++t) {
    if (!s.selectsTable(t)) continue;
    why = tables_[t]->misfit(s);
    if (why.empty()) return;
  }
  if (s.parts == PathSelector::agentState) return;
  throw GnmiError(grpc::StatusCode::INVALID_ARGUMENT, why);
}

std::vector<Node> GnmiReader::snapshot(const PathSelector& s) {
  std::vector<Node> nodes;
  AgentMemory* m = memory();
  if (s.has(PathSelector::agentState)) {
    const auto counters = AgentCounters::read();
    const bool running = counters && counters->running;
    nodes.push_back({agentStatePath(),
                     {{"status", std::string(!m        ? "absent"
                                             : running ? "running"
                                                       : "stopped")},
                      {"running", running},
                      {"pid", uint64_t(counters ? counters->pid : 0)},
                      {"restoredEntries", counters ? counters->restoredEntries : 0},
                      {"restoreMs", counters ? counters->restoreMs : 0.0}}});
  }
  if (!m) return nodes;
  for (size_t t = 0; t < tables_.size(); ++t) {
    if (s.selectsTable(t) && tables_[t]->misfit(s).empty()) tables_[t]->snapshot(*m, s, nodes);
  }
  return nodes;
}

GnmiReader::Poll GnmiReader::poll() {
  Poll p;
  AgentMemory* m = memory();
  if (!m) return p;
  const size_t first = firstPolled_;
  for (size_t i = 0; i < tables_.size(); ++i) {
    const size_t t = (first + i) % tables_.size();
    const Clock::time_point walkBefore = nextWalk_;
    try {
      if (auto why = tables_[t]->poll(*m, p.changes, nextWalk_))
        p.resyncs.emplace_back(t, std::move(*why));
    } catch (const Nimbo::Exception&) {
      // A record being written or damage: read again at the next poll.
    }
    if (nextWalk_ != walkBefore) firstPolled_ = (t + 1) % tables_.size();
  }
  return p;
}

Replay GnmiReader::replay(size_t table, uint64_t since) {
  return tables_.at(table)->replay(memory(), since);
}

uint64_t GnmiReader::position(size_t table) const { return tables_.at(table)->position(); }

}  // namespace VeskTool
