#include "tools/core/TcamShard.h"

#include <cerrno>
#include <filesystem>

#include "Asic/Constants.h"
#include "KestShard/Directory.h"
#include "KestSharedMem/MountGroup.h"
#include "Nimbo/Exception.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {

void registerTcamShards() {
  static const bool registered = [] {
    forEachTable([]<class Traits>(size_t) {
      KestShard::ShardTypeRegistry::typeIs(
          TcamShard<Traits>::typeName(),
          [](const KestShard::MountContext& c) -> Nimbo::Ptr<KestShard::Shard> {
            return Nimbo::make<TcamShard<Traits>>(c);
          });
    });
    return true;
  }();
  (void)registered;
}

template <class Traits>
Nimbo::Ptr<TcamShard<Traits>> TcamShard<Traits>::mount(Asic::UnitId unit,
                                                       KestShard::KestShardType type) {
  registerTcamShards();
  const bool reader = type == KestShard::KestShardType::reader;
  // A reader leaves no trace: not even the namespace's directory is made for it.
  if (reader &&
      !std::filesystem::is_directory(std::filesystem::path(KestShard::Directory::rootPath()) /
                                     "local" / kHardwareNamespace)) {
    return nullptr;
  }
  KestShard::MountInfo info(type);
  info.collectionInfoIs({"tcam", capacity, false});
  auto em = KestSharedMem::EntityManager::getEntityManager(kHardwareNamespace, true);
  try {
    return KestSharedMem::mountShard<TcamShard>(em, path(unit), typeName(), info);
  } catch (const Nimbo::SystemException& e) {
    if (reader && e.error() == ENOENT) return nullptr;
    throw;
  }
}

#define VESK_TOOL_TCAM(Name, ...) template class TcamShard<VeskTapAgg::Name##Traits>;
VESK_TAPAGG_TABLES(VESK_TOOL_TCAM)
#undef VESK_TOOL_TCAM

std::vector<Asic::UnitId> configuredUnits(const Nimbo::Ptr<KestSharedMem::EntityManager>& agentEm,
                                          const Nimbo::String& configPathBase) {
  std::vector<Asic::UnitId> units;
  try {
    for (const Nimbo::String& path : agentEm->findEntities(configPathBase, 1)) {
      units.push_back(Asic::Constants::getUnitIdFromConfigPath(path));
    }
  } catch (const Nimbo::SystemException& e) {
    if (e.error() != ENOENT) throw;
  }
  return units;
}

}  // namespace VeskTool
