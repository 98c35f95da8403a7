#pragma once

#include "Asic/LogVersion.h"
#include "KestShard/Shard.h"
#include "KestSharedMem/EntityManager.h"
#include "types/TableTypes.h"

namespace VeskTool {

// The namespace of the simulated hardware: one TCAM per table type and unit.
inline constexpr const char* kHardwareNamespace = "VeskTapAggHw";

// One line of a simulated TCAM: the entry as the hardware side programmed it and the
// version of the change that did.
template <class Traits>
struct TcamLine {
  typename Traits::LogEntry logEntry;
  Asic::LogVersion version;
};

// The simulated TCAM of one table type on one unit, in shared memory so that it outlives
// the hardware side and `vesktap show` can read it: the collection "tcam" of lines keyed
// by entry key. Its scratchpad holds the newest version applied to it. Written by
// `vesktap hw` only; single-threaded per process.
template <class Traits>
class TcamShard : public KestShard::Shard {
 public:
  using Line = TcamLine<Traits>;
  struct KeyOf {
    const typename Traits::EntryKey& operator()(const Line& l) const { return l.logEntry.key(); }
  };
  using Collection = KestShard::KeyedCollection<Line, KeyOf>;
  static constexpr uint32_t capacity = 65536;

  explicit TcamShard(const KestShard::MountContext& c)
      : KestShard::Shard(c), tcam_(mountKeyed<Line, KeyOf>(c, "tcam")) {}

  static Nimbo::String typeName() {
    return Nimbo::String("VeskTool::") + Traits::tableName + "Tcam";
  }
  static Nimbo::String path(Asic::UnitId unit) {
    return fmt::format("{}/tcam/{}", Traits::tableName, unit);
  }
  // Mounts the TCAM of `unit`: the hardware side as its writer, anyone else as a reader
  // (null when the hardware side never made it).
  static Nimbo::Ptr<TcamShard> mount(Asic::UnitId unit, KestShard::KestShardType type);

  Collection& tcam() noexcept { return tcam_; }
  const Collection& tcam() const noexcept { return tcam_; }
  Asic::LogVersion appliedVersion() const {
    return Asic::LogVersion(tcam_.control()->scratchpad());
  }
  void appliedVersionIs(Asic::LogVersion v) { tcam_.control()->scratchpadIs(v.value()); }

 private:
  Collection tcam_;
};

// Makes the TCAM shard types known to this process's mounts; idempotent.
void registerTcamShards();

// The units that have a configuration of `Traits`'s table type in the agent's namespace.
std::vector<Asic::UnitId> configuredUnits(const Nimbo::Ptr<KestSharedMem::EntityManager>& agentEm,
                                          const Nimbo::String& configPathBase);

}  // namespace VeskTool
