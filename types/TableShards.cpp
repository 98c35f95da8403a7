#include "types/TableShards.h"

namespace VeskTapAgg {

bool registerTableShardTypes() {
  static const bool registered = [] {
#define VESK_TAPAGG_REGISTER_SHARDS(Name, ...)                               \
  KestShard::ShardTypeRegistry::typeIs(                                      \
      Name##ConfigShard::typeName,                                           \
      [](const KestShard::MountContext& c) -> Nimbo::Ptr<KestShard::Shard> { \
        return Nimbo::make<Name##ConfigShard>(c);                            \
      });                                                                    \
  KestShard::ShardTypeRegistry::typeIs(                                      \
      Name##EntryLogShard::typeName,                                         \
      [](const KestShard::MountContext& c) -> Nimbo::Ptr<KestShard::Shard> { \
        return Nimbo::make<Name##EntryLogShard>(c);                          \
      });
    VESK_TAPAGG_TABLES(VESK_TAPAGG_REGISTER_SHARDS)
#undef VESK_TAPAGG_REGISTER_SHARDS
    return true;
  }();
  return registered;
}

}  // namespace VeskTapAgg
