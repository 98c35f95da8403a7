#include "types/TableTypes.h"

#include <type_traits>

namespace VeskTapAgg {

// Every table type's keys hash and compare by bytes, and every record lives in shared
// memory as bytes.
#define VESK_TAPAGG_CHECK_RECORDS(Name, ...)                                        \
  static_assert(std::has_unique_object_representations_v<Name##EntryKey>);         \
  static_assert(std::is_trivially_copyable_v<Name##ConfigShardEntry>);             \
  static_assert(std::is_trivially_copyable_v<Name##LogShardEntry>);                \
  static_assert(std::is_trivially_copyable_v<Name##Entry>);
VESK_TAPAGG_TABLES(VESK_TAPAGG_CHECK_RECORDS)

}  // namespace VeskTapAgg
