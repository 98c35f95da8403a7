#pragma once

#include <cstdint>

#include "Asic/Constants.h"
#include "Asic/SwTableId.h"
#include "types/Catalogue.h"
#include "types/EntryKeys.h"
#include "types/TableRecords.h"
#include "types/TableTraits.h"

namespace VeskTapAgg {

inline constexpr const char* kAgentName = "VeskTapAgg";
inline constexpr const char* kGroupName = "VeskTapAggGroup";
inline constexpr const char* kTableNamespace = "VeskTapAgg";

// Where a table type's collections live in shared memory: one configuration per unit and
// one change log per table type, under the agent's group (see Asic::Constants). Stateless;
// any thread.
template <class Traits>
struct TableConstants {
  static Nimbo::String configShardPath(Asic::UnitId unitId) {
    return Asic::Constants::configShardPath(configShardPathBase(), unitId);
  }
  static const Nimbo::String& configShardPathBase() {
    static const Nimbo::String base = Asic::Constants::canonicalGroupTableConfigShardPathBase(
        canonicalGroupName(), kTableNamespace, Traits::tableName);
    return base;
  }
  static Nimbo::String tableEntryLogShardPath() {
    return Asic::Constants::tableEntryLogShardPath(canonicalGroupName(), kTableNamespace,
                                                   Traits::tableName);
  }
  static Nimbo::String canonicalGroupName() {
    return Asic::Constants::canonicalizeGroupName(kAgentName, kGroupName);
  }
};

// The records of one table type, by role.
#define VESK_TAPAGG_RECORDS_Action(Name)           \
  struct Name##Tag {                               \
    static constexpr const char* name = #Name;     \
  };                                               \
  using Name##EntryKey = ActionKey<Name##Tag>;     \
  using Name##Entry = ActionEntry<Name##EntryKey>; \
  using Name##LogEntry = ActionLogEntry<Name##EntryKey>;
#define VESK_TAPAGG_RECORDS_Entry(Name)           \
  using Name##Entry = MatchEntry<Name##EntryKey>; \
  using Name##LogEntry = MatchLogEntry<Name##EntryKey>;

// Per table type: its records, its constants and <T>Traits, which satisfies the
// TableTraits concept (types/TableTraits.h) that every generic algorithm is written against.
#define VESK_TAPAGG_DECLARE_TYPES(Name, lower, role, id, saltAdd, saltRemove, saltVersion,    \
                                  saltEntries, saltConfigShards)                              \
  VESK_TAPAGG_RECORDS_##role(Name) using Name##ResourceKeys = NoResourceKeys<Name##EntryKey>; \
  using Name##ConfigShardEntry = ConfigShardEntryOf<Name##LogEntry, Name##ResourceKeys>;      \
  using Name##LogShardEntry = LogShardEntryOf<Name##EntryKey>;                                \
  class Name##ConfigShard;                                                                    \
  class Name##EntryLogShard;                                                                  \
  struct Name##Traits {                                                                       \
    using EntryKey = Name##EntryKey;                                                          \
    using Entry = Name##Entry;                                                                \
    using LogEntry = Name##LogEntry;                                                          \
    using ResourceKeys = Name##ResourceKeys;                                                  \
    using ConfigShardEntry = Name##ConfigShardEntry;                                          \
    using LogShardEntry = Name##LogShardEntry;                                                \
    using ConfigShard = Name##ConfigShard;                                                    \
    using EntryLogShard = Name##EntryLogShard;                                                \
    using Constants = TableConstants<Name##Traits>;                                           \
    static constexpr const char* tableName = #Name;                                           \
    static constexpr Asic::SwTableId tableId{id};                                             \
    static constexpr uint32_t transientAddEntrySalt = saltAdd;                                \
    static constexpr uint32_t transientRemoveEntrySalt = saltRemove;                          \
    static constexpr uint32_t transientVersionForKeySalt = saltVersion;                       \
    static constexpr uint32_t tableEntriesSalt = saltEntries;                                 \
    static constexpr uint32_t tableConfigShardSalt = saltConfigShards;                        \
  };                                                                                          \
  using Name##Constants = Name##Traits::Constants;

VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_TYPES)

#define VESK_TAPAGG_CHECK_TRAITS(Name, ...) static_assert(TableTraits<Name##Traits>);
VESK_TAPAGG_TABLES(VESK_TAPAGG_CHECK_TRAITS)
#undef VESK_TAPAGG_CHECK_TRAITS

// Every table type's traits in catalogue order, as a type list to fold over
// (forEachTableType).
template <class... Traits>
struct TableTypeList {
  static constexpr size_t size = sizeof...(Traits);
};
namespace detail {
template <class First, class... Rest>
using DropFirst = TableTypeList<Rest...>;
}  // namespace detail
#define VESK_TAPAGG_TRAITS_ITEM(Name, ...) , Name##Traits
using AllTableTraits = detail::DropFirst<void VESK_TAPAGG_TABLES(VESK_TAPAGG_TRAITS_ITEM)>;
#undef VESK_TAPAGG_TRAITS_ITEM

// Calls visit.template operator()<Traits>(index) for every table type, in catalogue order.
template <class Visit, class... Traits>
void forEachTableTypeOf(TableTypeList<Traits...>, Visit& visit) {
  size_t index = 0;
  (visit.template operator()<Traits>(index++), ...);
}
template <class Visit>
void forEachTableType(Visit&& visit) {
  forEachTableTypeOf(AllTableTraits{}, visit);
}

// The records with a type record (types/RecordTypes.cpp): those every table type shares,
// and the six of each table type.
#define VESK_TAPAGG_SHARED_RECORDS(X) \
  X(U8Match) X(U16Match) X(U32Match) X(MacMatch) X(Ip4Match) X(Ip6Match) X(TcamAction)
// clang-format off
#define VESK_TAPAGG_RECORDS_OF(Name, X)                                         \
  X(Name##EntryKey) X(Name##Entry) X(Name##LogEntry) X(Name##ResourceKeys)      \
  X(Name##ConfigShardEntry) X(Name##LogShardEntry)
// clang-format on

#define VESK_TAPAGG_DECLARE_RECORD_TYPE(Record) \
  extern template VESK_EXPORT const Kest::RecordType& typeRecordOf<Record>();
VESK_TAPAGG_SHARED_RECORDS(VESK_TAPAGG_DECLARE_RECORD_TYPE)
#define VESK_TAPAGG_DECLARE_RECORD_TYPES(Name, ...) \
  VESK_TAPAGG_RECORDS_OF(Name, VESK_TAPAGG_DECLARE_RECORD_TYPE)
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_RECORD_TYPES)
#undef VESK_TAPAGG_DECLARE_RECORD_TYPES
#undef VESK_TAPAGG_DECLARE_RECORD_TYPE

// The reference table type's layouts are fixed: shared memory written by one build is read
// by the next.
static_assert(sizeof(DefaultFwdTcamEntryEntryKey) == 72);
static_assert(sizeof(DefaultFwdTcamEntryLogEntry) == 72);
static_assert(sizeof(DefaultFwdTcamEntryResourceKeys) == 4);
static_assert(sizeof(DefaultFwdTcamEntryConfigShardEntry) == 88);
static_assert(offsetof(DefaultFwdTcamEntryConfigShardEntry, rsrcKeys) == 72);
static_assert(offsetof(DefaultFwdTcamEntryConfigShardEntry, logVersion) == 76);
static_assert(offsetof(DefaultFwdTcamEntryConfigShardEntry, isDeleted) == 84);
static_assert(sizeof(DefaultFwdTcamEntryLogShardEntry) == 84);
static_assert(offsetof(DefaultFwdTcamEntryLogShardEntry, deleteKind) == 8);
static_assert(offsetof(DefaultFwdTcamEntryLogShardEntry, unitId) == 10);
static_assert(offsetof(DefaultFwdTcamEntryLogShardEntry, key) == 12);

}  // namespace VeskTapAgg
