#include "types/TableShards.h"

namespace VeskTapAgg {
namespace {

// Loading the types library makes every table type's shards mountable by type name.
#define VESK_TAPAGG_REGISTER_SHARDS(Name, ...)                                     \
  const KestShard::ShardTypeRegistration<Name##ConfigShard> Name##ConfigShardType( \
      Name##ConfigShard::typeName);                                                \
  const KestShard::ShardTypeRegistration<Name##EntryLogShard> Name##EntryLogShardType( \
      Name##EntryLogShard::typeName);
VESK_TAPAGG_TABLES(VESK_TAPAGG_REGISTER_SHARDS)

}  // namespace
}  // namespace VeskTapAgg
