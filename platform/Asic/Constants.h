#pragma once

#include <string_view>

#include "Asic/UnitId.h"
#include "Nimbo/Export.h"
#include "Nimbo/String.h"

namespace Asic {

// Names and shared-memory paths of the table framework. Paths are relative,
// '/'-separated, every component one or more of [A-Za-z0-9._-] and neither "." nor "..":
//   <agent>.<group>/<namespace>/<table>/config/<unit>   a unit's configuration
//   <agent>.<group>/<namespace>/<table>/entryLog        a table type's change log
//   <agent>.<group>/tableVersion                        what the hardware side has taken
// Every name given must be one such component (a path base, a path of them); otherwise
// the call throws Nimbo::InvalidArgumentException naming the offending input. Stateless;
// any thread.
class VESK_EXPORT Constants {
 public:
  // "<agent>.<group>"
  static Nimbo::String canonicalizeGroupName(std::string_view agentName,
                                             std::string_view groupName);
  // "<canonicalGroup>/<namespace>/<table>/config"
  static Nimbo::String canonicalGroupTableConfigShardPathBase(std::string_view canonicalGroupName,
                                                              std::string_view tableNamespace,
                                                              std::string_view tableName);
  // "<pathBase>/<unit>"
  static Nimbo::String configShardPath(std::string_view pathBase, UnitId unitId);
  // "<canonicalGroup>/<namespace>/<table>/entryLog"
  static Nimbo::String tableEntryLogShardPath(std::string_view canonicalGroupName,
                                              std::string_view tableNamespace,
                                              std::string_view tableName);
  // "<canonicalGroup>/tableVersion"
  static Nimbo::String tableVersionShardPath(std::string_view canonicalGroupName);
  // The unit of a configuration path, read from its last component (a bare unit number
  // is accepted too). Throws Nimbo::InvalidArgumentException when that is not a decimal
  // number from 0 to 65535.
  static UnitId getUnitIdFromConfigPath(std::string_view path);
};

}  // namespace Asic
