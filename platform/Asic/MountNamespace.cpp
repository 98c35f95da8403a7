#include "Asic/MountNamespace.h"

#include <cstdlib>

namespace Asic {

Nimbo::Ptr<KestSharedMem::EntityManager> mountEntityManager(const Cairn::EntityManager& em) {
  const bool local = em.local() && std::getenv("NOT_LOCAL_EM") == nullptr;
  return KestSharedMem::EntityManager::getEntityManager(em.name(), local);
}

}  // namespace Asic
