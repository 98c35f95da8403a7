#include "VeskTapAgg/WriterMount.h"

#include "Cairn/GenId.h"

namespace VeskTapAgg {

void relaunchAgents(const Cairn::EntityManager& em, const Nimbo::String& agentName) {
  const Nimbo::String path = "hardware/quill/agent/relaunch/config/" + agentName;
  if (auto genId = Nimbo::dynamicPtrCast<Asic::GenId>(em.getEntity(path))) genId->majorIdInc(1);
}

}  // namespace VeskTapAgg
