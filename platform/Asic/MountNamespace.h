#pragma once

#include "Cairn/EntityManager.h"
#include "KestSharedMem/EntityManager.h"
#include "Nimbo/Export.h"

namespace Asic {

// The shared-memory namespace an agent's mounts go to: the one named like its state
// database, local as it is, unless the environment variable NOT_LOCAL_EM is set, which
// picks the non-local namespace of that name.
VESK_EXPORT Nimbo::Ptr<KestSharedMem::EntityManager> mountEntityManager(
    const Cairn::EntityManager& em);

}  // namespace Asic
