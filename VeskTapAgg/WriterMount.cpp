#include "VeskTapAgg/WriterMount.h"

#include <cstdlib>

#include "Cairn/GenId.h"

namespace VeskTapAgg {

Nimbo::Ptr<KestSharedMem::EntityManager> mountEntityManager(const Cairn::EntityManager& em) {
  const bool local = em.local() && std::getenv("NOT_LOCAL_EM") == nullptr;
  return KestSharedMem::EntityManager::getEntityManager(em.name(), local);
}

void relaunchAgents(const Cairn::EntityManager& em, const Nimbo::String& agentName) {
  const Nimbo::String path = "hardware/quill/agent/relaunch/config/" + agentName;
  if (auto genId = Nimbo::dynamicPtrCast<Asic::GenId>(em.getEntity(path))) genId->majorIdInc(1);
}

}  // namespace VeskTapAgg
