#pragma once

#include "Kest/TypeData.h"
#include "Nimbo/Export.h"
#include "VeskTapAgg/GeneratedNames.h"
#include "types/TableTypes.h"

namespace VeskTapAgg {

// The type record of a table type's generated class of kind Kind (GeneratedNames.h),
// named as the class ("DefaultFwdTcamEntrySwTable"): what the class's typeData() returns
// and what its unit's module lists. Built on first use from the class's one attribute
// list (TypeRecords-defs.h), written once for every table type; TypeRecords.cpp makes the
// records of all ten types and announces the modules at load. Immutable once built.
template <TableTraits Traits, class Kind>
struct TypeRecord {
  static const Kest::TypeData& get();
};

#define VESK_TAPAGG_DECLARE_TYPE_RECORDS(Name, ...)                                      \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, SwTableKind>;              \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, EntryHandleKind>;          \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, EntryWrapperKind>;         \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, ResolverEntryKind>;        \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, SwTableHelperBaseKind>;    \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, EntryLogKind>;             \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, InterfaceKind>;            \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, SwTableIteratorStateKind>; \
  extern template struct VESK_EXPORT TypeRecord<Name##Traits, SwTableEntriesKind>;
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_TYPE_RECORDS)
#undef VESK_TAPAGG_DECLARE_TYPE_RECORDS

}  // namespace VeskTapAgg
