#include "Asic/Constants.h"

#include <charconv>

#include <fmt/format.h>

#include "Nimbo/Exception.h"

namespace Asic {

Nimbo::String Constants::canonicalizeGroupName(const Nimbo::String& agentName,
                                               const Nimbo::String& groupName) {
  return agentName + "." + groupName;
}

Nimbo::String Constants::canonicalGroupTableConfigShardPathBase(
    const Nimbo::String& canonicalGroupName, const Nimbo::String& tableNamespace,
    const Nimbo::String& tableName) {
  return fmt::format("{}/{}/{}/config", canonicalGroupName, tableNamespace, tableName);
}

Nimbo::String Constants::configShardPath(const Nimbo::String& pathBase, UnitId unitId) {
  return fmt::format("{}/{}", pathBase, unitId);
}

Nimbo::String Constants::tableEntryLogShardPath(const Nimbo::String& canonicalGroupName,
                                                const Nimbo::String& tableNamespace,
                                                const Nimbo::String& tableName) {
  return fmt::format("{}/{}/{}/entryLog", canonicalGroupName, tableNamespace, tableName);
}

UnitId Constants::getUnitIdFromConfigPath(const Nimbo::String& path) {
  const size_t slash = path.rfind('/');
  const std::string_view last =
      slash == Nimbo::String::npos ? std::string_view(path) : std::string_view(path).substr(slash + 1);
  unsigned value = 0;
  auto [end, error] = std::from_chars(last.data(), last.data() + last.size(), value);
  if (last.empty() || error != std::errc() || end != last.data() + last.size() || value > 0xffff) {
    throw Nimbo::InvalidArgumentException(fmt::format(
        "configuration path '{}' does not end in a unit number (0 to 65535)", path));
  }
  return UnitId(uint16_t(value));
}

}  // namespace Asic
