#pragma once

#include <cstdint>

#include "Asic/LogVersion.h"
#include "Asic/UnitId.h"
#include "Nimbo/Export.h"
#include "types/RecordFormat.h"

namespace VeskTapAgg {

// What an action-table line does with a packet that hit its entry.
enum class ActionKind : uint8_t { forward = 0, redirect = 1, drop = 2, trap = 3 };

// The action of one action-table line. Kind and flags are stored as bytes, not enums, so
// that every byte pattern read from shared memory is a value; the fields a flag does not
// enable stay zero.
struct VESK_EXPORT TcamAction {
  enum Flag : uint8_t {
    count = 1,         // counterId counts the hits
    mirror = 2,        // a copy goes to mirrorSession
    truncate = 4,      // cut to truncateLength bytes
    vlanPush = 8,      // push a tag with vlanId
    vlanRewrite = 16,  // rewrite the outer tag to vlanId
    lag = 32,          // redirectPort is a LAG id, not a port
  };

  uint8_t kind = 0;   // ActionKind
  uint8_t flags = 0;  // Flag bits
  uint16_t vlanId = 0;
  uint32_t redirectPort = 0;  // port or LAG id for redirect
  uint16_t truncateLength = 0;
  uint16_t reserved = 0;
  uint32_t counterId = 0;
  uint32_t mirrorSession = 0;
  uint32_t reserved2 = 0;
  VESK_RECORD_OPS(TcamAction);
  bool flagHas(Flag flag) const noexcept { return (flags & flag) != 0; }
  // "redirect lag=3 vlanPush=100 count=7": the kind, then only what it and the flags use.
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const;
};

// The key of an action table: the line's index. Tag makes each table's key its own type.
template <class Tag>
struct ActionKey {
  uint32_t index = 0;
  VESK_RECORD_OPS(ActionKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{}EntryKey(index={})", Tag::name, index);
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
template <class Key>
struct NoResourceKeys {
  uint32_t reserved = 0;
  VESK_RECORD_OPS(NoResourceKeys);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "{{}}");
  }
};

// What a change-log record did: wrote its key, deleted its key, or deleted every entry of
// its unit (its key then left at the default).
enum class DeleteKind : uint8_t { write = 0, entryDelete = 1, unitDelete = 2 };

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
  bool isDeleted = false;
  uint8_t reserved[3] = {};
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
  uint8_t deleteKind = 0;  // DeleteKind
  uint8_t reserved = 0;
  Asic::UnitId unitId;
  Key key;
  bool isEq(const LogShardEntryOf& o) const noexcept {
    return logVersion == o.logVersion && deleteKind == o.deleteKind && unitId == o.unitId &&
           key.isEq(o.key);
  }
  friend bool operator==(const LogShardEntryOf& a, const LogShardEntryOf& b) { return a.isEq(b); }
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const {
    return fmt::format_to(out, "v{} {} unit={} {}", logVersion, DeleteKind(deleteKind), unitId,
                          key);
  }
};

#pragma pack(pop)

}  // namespace VeskTapAgg

template <>
struct fmt::formatter<VeskTapAgg::ActionKind> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(VeskTapAgg::ActionKind kind, fmt::format_context& ctx) const {
    switch (kind) {
      case VeskTapAgg::ActionKind::forward:
        return fmt::format_to(ctx.out(), "forward");
      case VeskTapAgg::ActionKind::redirect:
        return fmt::format_to(ctx.out(), "redirect");
      case VeskTapAgg::ActionKind::drop:
        return fmt::format_to(ctx.out(), "drop");
      case VeskTapAgg::ActionKind::trap:
        return fmt::format_to(ctx.out(), "trap");
    }
    return fmt::format_to(ctx.out(), "kind{}", uint8_t(kind));
  }
};

template <>
struct fmt::formatter<VeskTapAgg::DeleteKind> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(VeskTapAgg::DeleteKind kind, fmt::format_context& ctx) const {
    switch (kind) {
      case VeskTapAgg::DeleteKind::write:
        return fmt::format_to(ctx.out(), "write");
      case VeskTapAgg::DeleteKind::entryDelete:
        return fmt::format_to(ctx.out(), "delete");
      case VeskTapAgg::DeleteKind::unitDelete:
        return fmt::format_to(ctx.out(), "deleteAll");
    }
    return fmt::format_to(ctx.out(), "kind{}", uint8_t(kind));
  }
};
