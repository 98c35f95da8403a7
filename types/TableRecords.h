#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Asic/LogVersion.h"
#include "Asic/UnitId.h"
#include "Nimbo/Export.h"
#include "types/RecordSchema.h"

namespace VeskTapAgg {

// What an action-table line does with a packet that hit its entry.
enum class ActionKind : uint8_t { forward = 0, redirect = 1, drop = 2, trap = 3 };
inline constexpr std::array<std::string_view, 4> kActionKindNames{"forward", "redirect", "drop",
                                                                  "trap"};

// The bits of TcamAction::flags, and their names by bit.
inline constexpr std::array<std::string_view, 6> kActionFlagNames{
    "count", "mirror", "truncate", "vlanPush", "vlanRewrite", "lag"};

// The action of one action-table line. Kind and flags are stored as bytes, not enums, so
// that every byte pattern read from shared memory is a value; the fields a flag does not
// enable stay zero.
#define VESK_FIELDS(F)                           \
  F(uint8_t, kind, named, kActionKindNames)      \
  F(uint8_t, flags, flagNames, kActionFlagNames) \
  F(uint16_t, vlanId, decimal)                   \
  F(uint32_t, redirectPort, decimal)             \
  F(uint16_t, truncateLength, decimal)           \
  F(uint16_t, reserved, hidden)                  \
  F(uint32_t, counterId, decimal)                \
  F(uint32_t, mirrorSession, decimal)            \
  F(uint32_t, reserved2, hidden)
struct VESK_EXPORT TcamAction {
  enum Flag : uint8_t {
    count = 1,         // counterId counts the hits
    mirror = 2,        // a copy goes to mirrorSession
    truncate = 4,      // cut to truncateLength bytes
    vlanPush = 8,      // push a tag with vlanId
    vlanRewrite = 16,  // rewrite the outer tag to vlanId
    lag = 32,          // redirectPort is a LAG id, not a port
  };
  VESK_RECORD(TcamAction, VESK_FIELDS);
  bool flagHas(Flag flag) const noexcept { return (flags & flag) != 0; }
};
#undef VESK_FIELDS

// The name of a record of a table type, from its key's name: the key of table "<T>" is
// "<T>EntryKey", and its other records are "<T>" followed by `suffix`.
template <class Key>
Nimbo::String tableRecordName(std::string_view suffix) {
  Nimbo::String name = Key::typeName();
  name.resize(name.size() - std::string_view("EntryKey").size());
  return name.append(suffix);
}

// The key of an action table: the line's index. Tag makes each table's key its own type.
#define VESK_FIELDS(F) F(uint32_t, index, decimal)
template <class Tag>
struct ActionKey {
  VESK_RECORD_FIELDS(ActionKey, VESK_FIELDS)
  VESK_RECORD_OPS(ActionKey);
  static Nimbo::String typeName() { return Nimbo::String(Tag::name) + "EntryKey"; }
};
#undef VESK_FIELDS

// The entry of an action table, and its persistent image in the entry log.
#define VESK_FIELDS(F) F(Key, entryKey, record) F(TcamAction, action, record)
template <class Key>
struct ActionEntry {
  VESK_RECORD_FIELDS(ActionEntry, VESK_FIELDS)
  VESK_RECORD_OPS(ActionEntry);
  static Nimbo::String typeName() { return tableRecordName<Key>("Entry"); }
  const Key& key() const noexcept { return entryKey; }
};
template <class Key>
struct ActionLogEntry {
  VESK_RECORD_FIELDS(ActionLogEntry, VESK_FIELDS)
  VESK_RECORD_OPS(ActionLogEntry);
  static Nimbo::String typeName() { return tableRecordName<Key>("LogEntry"); }
  const Key& key() const noexcept { return entryKey; }
};
#undef VESK_FIELDS

// The entry of an entry table is its whole TCAM line, which is its key; so is its image
// in the entry log.
#define VESK_FIELDS(F) F(Key, entryKey, record)
template <class Key>
struct MatchEntry {
  VESK_RECORD_FIELDS(MatchEntry, VESK_FIELDS)
  VESK_RECORD_OPS(MatchEntry);
  static Nimbo::String typeName() { return tableRecordName<Key>("Entry"); }
  const Key& key() const noexcept { return entryKey; }
};
template <class Key>
struct MatchLogEntry {
  VESK_RECORD_FIELDS(MatchLogEntry, VESK_FIELDS)
  VESK_RECORD_OPS(MatchLogEntry);
  static Nimbo::String typeName() { return tableRecordName<Key>("LogEntry"); }
  const Key& key() const noexcept { return entryKey; }
};
#undef VESK_FIELDS

// An entry's persistent image, and the entry an image stands for.
template <class Key>
ActionLogEntry<Key> logEntryOf(const ActionEntry<Key>& entry) noexcept {
  return {entry.entryKey, entry.action};
}
template <class Key>
ActionEntry<Key> entryOf(const ActionLogEntry<Key>& logEntry) noexcept {
  return {logEntry.entryKey, logEntry.action};
}
template <class Key>
MatchLogEntry<Key> logEntryOf(const MatchEntry<Key>& entry) noexcept {
  return {entry.entryKey};
}
template <class Key>
MatchEntry<Key> entryOf(const MatchLogEntry<Key>& logEntry) noexcept {
  return {logEntry.entryKey};
}

// Keys of resources (other tables' entries) an entry holds. No table here holds any.
#define VESK_FIELDS(F) F(uint32_t, reserved, hidden)
template <class Key>
struct NoResourceKeys {
  VESK_RECORD_FIELDS(NoResourceKeys, VESK_FIELDS)
  VESK_RECORD_OPS(NoResourceKeys);
  static Nimbo::String typeName() { return tableRecordName<Key>("ResourceKeys"); }
};
#undef VESK_FIELDS

// What a change-log record did: wrote its key, deleted its key, or deleted every entry of
// its unit (its key then left at the default).
enum class DeleteKind : uint8_t { write = 0, entryDelete = 1, unitDelete = 2 };
inline constexpr std::array<std::string_view, 3> kDeleteKindNames{"write", "delete", "deleteAll"};

// Records of the shared-memory collections. 64-bit fields are 4-byte aligned so that the
// records stay as small as their fields.
#pragma pack(push, 4)

// One entry of a unit's configuration: the entry as last written, with the version of the
// change that wrote (or deleted) it. A deleted entry stays as a tombstone until cleanup.
// Equality leaves the reserved bytes out.
#define VESK_FIELDS(F)                     \
  F(LogEntry, logEntry, record)            \
  F(ResourceKeys, rsrcKeys, record)        \
  F(Asic::LogVersion, logVersion, decimal) \
  F(bool, isDeleted, flag)                 \
  F(uint8_t[3], reserved, hidden)
template <class LogEntry, class ResourceKeys>
struct ConfigShardEntryOf {
  VESK_RECORD_FIELDS(ConfigShardEntryOf, VESK_FIELDS)
  static Nimbo::String typeName() {
    return tableRecordName<std::decay_t<decltype(std::declval<LogEntry>().key())>>(
        "ConfigShardEntry");
  }
  bool isEq(const ConfigShardEntryOf& o) const noexcept {
    return logEntry.isEq(o.logEntry) && rsrcKeys.isEq(o.rsrcKeys) && logVersion == o.logVersion &&
           isDeleted == o.isDeleted;
  }
  friend bool operator==(const ConfigShardEntryOf& a, const ConfigShardEntryOf& b) {
    return a.isEq(b);
  }
};
#undef VESK_FIELDS

// One change in a table type's change log, keyed by its version.
#define VESK_FIELDS(F)                            \
  F(Asic::LogVersion, logVersion, decimal)        \
  F(uint8_t, deleteKind, named, kDeleteKindNames) \
  F(uint8_t, reserved, hidden)                    \
  F(Asic::UnitId, unitId, decimal)                \
  F(Key, key, record)
template <class Key>
struct LogShardEntryOf {
  VESK_RECORD_FIELDS(LogShardEntryOf, VESK_FIELDS)
  static Nimbo::String typeName() { return tableRecordName<Key>("LogShardEntry"); }
  bool isEq(const LogShardEntryOf& o) const noexcept {
    return logVersion == o.logVersion && deleteKind == o.deleteKind && unitId == o.unitId &&
           key.isEq(o.key);
  }
  friend bool operator==(const LogShardEntryOf& a, const LogShardEntryOf& b) { return a.isEq(b); }
};
#undef VESK_FIELDS

#pragma pack(pop)

}  // namespace VeskTapAgg
