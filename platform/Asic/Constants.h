#pragma once

#include "Asic/Ids.h"
#include "Nimbo/Export.h"
#include "Nimbo/String.h"

namespace Asic {

// Names and shared-memory paths of the table framework. Paths are relative,
// '/'-separated, with components of [A-Za-z0-9._-]:
//   <agent>.<group>/<namespace>/<table>/config/<unit>   a unit's configuration
//   <agent>.<group>/<namespace>/<table>/entryLog        a table type's change log
class VESK_EXPORT Constants {
 public:
  static Nimbo::String canonicalizeGroupName(const Nimbo::String& agentName,
                                             const Nimbo::String& groupName);
  static Nimbo::String canonicalGroupTableConfigShardPathBase(
      const Nimbo::String& canonicalGroupName, const Nimbo::String& tableNamespace,
      const Nimbo::String& tableName);
  static Nimbo::String configShardPath(const Nimbo::String& pathBase, UnitId unitId);
  static Nimbo::String tableEntryLogShardPath(const Nimbo::String& canonicalGroupName,
                                              const Nimbo::String& tableNamespace,
                                              const Nimbo::String& tableName);
  // The unit of a configuration path (its last component). Throws
  // Nimbo::InvalidArgumentException when that is not a unit number.
  static UnitId getUnitIdFromConfigPath(const Nimbo::String& path);
};

}  // namespace Asic
