#pragma once

#include <cstdint>

#include "Asic/Ids.h"
#include "types/RecordFormat.h"

namespace VeskTapAgg {

// What an action-table line does with a packet that hit its entry.
enum class ActionKind : uint8_t { forward = 0, redirect = 1, drop = 2, trap = 3 };

struct TcamAction {
  enum Flag : uint8_t { count = 1, mirror = 2, truncate = 4, vlanPush = 8, vlanRewrite = 16 };

  uint8_t kind;            // ActionKind
  uint8_t flags;           // Flag bits
  uint16_t vlanId;         // pushed or rewritten VLAN
  uint32_t redirectPort;   // port or LAG id for redirect
  uint16_t truncateLength;
  uint16_t reserved;
  uint32_t counterId;
  uint32_t mirrorSession;
  uint32_t reserved2;
  VESK_RECORD_OPS(TcamAction);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "kind={} flags={:#x} vlan={} port={} truncate={} counter={} mirror={}",
                          kind, flags, vlanId, redirectPort, truncateLength, counterId,
                          mirrorSession);
  }
};

// The key of an action table: the line's index. Tag makes each table's key its own type.
template <class Tag>
struct ActionKey {
  uint32_t index;
  VESK_RECORD_OPS(ActionKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}Key(index={})", Tag::name, index);
  }
};

// The entry of an action table, and its persistent image in the entry log.
template <class Key>
struct ActionEntry {
  Key entryKey;
  TcamAction action;
  const Key& key() const noexcept { return entryKey; }
  VESK_RECORD_OPS(ActionEntry);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{} -> {}", entryKey, action);
  }
};
template <class Key>
struct ActionLogEntry {
  Key entryKey;
  TcamAction action;
  const Key& key() const noexcept { return entryKey; }
  VESK_RECORD_OPS(ActionLogEntry);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{} -> {}", entryKey, action);
  }
};

// The entry of an entry table is its whole TCAM line, which is its key; so is its image
// in the entry log.
template <class Key>
struct MatchEntry {
  Key entryKey;
  const Key& key() const noexcept { return entryKey; }
  VESK_RECORD_OPS(MatchEntry);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}", entryKey);
  }
};
template <class Key>
struct MatchLogEntry {
  Key entryKey;
  const Key& key() const noexcept { return entryKey; }
  VESK_RECORD_OPS(MatchLogEntry);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}", entryKey);
  }
};

// Keys of resources (other tables' entries) an entry holds. No table here holds any.
template <class Key>
struct NoResourceKeys {
  uint32_t reserved;
  VESK_RECORD_OPS(NoResourceKeys);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{{}}");
  }
};

// What a delete in the change log removed.
enum class DeleteKind : uint8_t { write = 0, entry = 1, unit = 2 };

// Records of the shared-memory collections. 64-bit fields are 4-byte aligned so that the
// records stay as small as their fields.
#pragma pack(push, 4)

// One entry of a unit's configuration: the entry as last written, with the version of the
// change that wrote (or deleted) it. A deleted entry stays as a tombstone until cleanup.
template <class LogEntry, class ResourceKeys>
struct ConfigShardEntryOf {
  LogEntry logEntry;
  ResourceKeys rsrcKeys;
  Asic::LogVersion logVersion;
  bool isDeleted;
  uint8_t reserved[3];
  bool isEq(const ConfigShardEntryOf& o) const noexcept {
    return logEntry.isEq(o.logEntry) && rsrcKeys.isEq(o.rsrcKeys) && logVersion == o.logVersion &&
           isDeleted == o.isDeleted;
  }
  friend bool operator==(const ConfigShardEntryOf& a, const ConfigShardEntryOf& b) {
    return a.isEq(b);
  }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{} v{}{}", logEntry, logVersion, isDeleted ? " deleted" : "");
  }
};

// One change in a table type's change log, keyed by its version.
template <class Key>
struct LogShardEntryOf {
  Asic::LogVersion logVersion;
  uint8_t deleteKind;  // DeleteKind
  uint8_t reserved;
  Asic::UnitId unitId;
  Key key;
  bool isEq(const LogShardEntryOf& o) const noexcept {
    return logVersion == o.logVersion && deleteKind == o.deleteKind && unitId == o.unitId &&
           key.isEq(o.key);
  }
  friend bool operator==(const LogShardEntryOf& a, const LogShardEntryOf& b) { return a.isEq(b); }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "v{} kind={} unit={} {}", logVersion, deleteKind, unitId, key);
  }
};

#pragma pack(pop)

}  // namespace VeskTapAgg
