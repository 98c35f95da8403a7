#include "Asic/TableVersionShard.h"

#include <cerrno>

#include "Asic/Constants.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"

namespace Asic {
namespace {

const KestShard::ShardTypeRegistration<TableVersionShard> registration(TableVersionShard::typeName);

KestShard::MountInfo mountInfo(KestShard::KestShardType type) {
  KestShard::MountInfo info(type);
  info.collectionInfoIs({TableVersionShard::collectionName, TableVersionShard::capacity, false});
  return info;
}

}  // namespace

TableVersionShard::TableVersionShard(const KestShard::MountContext& c)
    : KestShard::Shard(c), tableVersions_(mountKeyed<Record, TableIdOf>(c, collectionName)) {}

Nimbo::Ptr<TableVersionShard> TableVersionShard::mountWriter(
    const Nimbo::Ptr<KestSharedMem::EntityManager>& em, const Nimbo::String& canonicalGroupName) {
  return KestSharedMem::mountShard<TableVersionShard>(
      em, Constants::tableVersionShardPath(canonicalGroupName), typeName,
      mountInfo(KestShard::KestShardType::writer));
}

Nimbo::Ptr<TableVersionShard> TableVersionShard::mountReader(
    const Nimbo::Ptr<KestSharedMem::EntityManager>& em, const Nimbo::String& canonicalGroupName) {
  try {
    return KestSharedMem::mountShard<TableVersionShard>(
        em, Constants::tableVersionShardPath(canonicalGroupName), typeName,
        mountInfo(KestShard::KestShardType::reader));
  } catch (const Nimbo::SystemException& e) {
    if (e.error() == ENOENT) return nullptr;
    throw;
  }
}

std::optional<LogVersion> TableVersionShard::tableVersion(SwTableId tableId) const {
  std::optional<Record> record = tableVersions_.find(tableId.value());
  if (!record) return std::nullopt;
  return LogVersion(record->version);
}

void TableVersionShard::tableVersionIs(SwTableId tableId, LogVersion version) {
  tableVersions_.insertOrReplace(Record{tableId.value(), 0, version.value()});
}

}  // namespace Asic
