#pragma once

#include <cstdint>
#include <optional>

#include "Asic/LogVersion.h"
#include "Asic/SwTableId.h"
#include "KestShard/Shard.h"
#include "KestSharedMem/EntityManager.h"
#include "Nimbo/Export.h"

namespace Asic {

// What the hardware side has taken, per table type of a group: the log version it has
// processed, by table id. The hardware side is the one writer; the agent mounts it as a
// reader and turns changes into tableStatusVersion() calls. Lives at
// "<agent>.<group>/tableVersion" in the agent's namespace. Owned by the entity manager that
// mounted it; single-threaded per process.
class VESK_EXPORT TableVersionShard : public KestShard::Shard {
 public:
  struct Record {
    uint32_t tableId;
    uint32_t reserved;
    uint64_t version;
  };
  struct TableIdOf {
    const uint32_t& operator()(const Record& r) const noexcept { return r.tableId; }
  };
  using Collection = KestShard::KeyedCollection<Record, TableIdOf>;

  static constexpr const char* typeName = "Asic::TableVersionShard";
  static constexpr const char* collectionName = "tableVersion";
  static constexpr uint32_t capacity = 1024;

  explicit TableVersionShard(const KestShard::MountContext& c);

  // The hardware side's side: mounts the group's map as its writer, creating it.
  static Nimbo::Ptr<TableVersionShard> mountWriter(
      const Nimbo::Ptr<KestSharedMem::EntityManager>& em, const Nimbo::String& canonicalGroupName);
  // The agent's side: mounts the map read-only; null while the hardware side has not made it.
  static Nimbo::Ptr<TableVersionShard> mountReader(
      const Nimbo::Ptr<KestSharedMem::EntityManager>& em, const Nimbo::String& canonicalGroupName);

  // The version recorded for `tableId`, if any. A damaged record throws
  // Nimbo::CorruptionDetectedException; report it with tableVersions().map().
  std::optional<LogVersion> tableVersion(SwTableId tableId) const;
  // Records `version` for `tableId`; a full map is an error (Nimbo::CapacityExceededException).
  void tableVersionIs(SwTableId tableId, LogVersion version);
  const Collection& tableVersions() const noexcept { return tableVersions_; }

 private:
  Collection tableVersions_;
};

}  // namespace Asic
