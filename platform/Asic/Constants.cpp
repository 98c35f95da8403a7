#include "Asic/Constants.h"

#include <charconv>

#include <fmt/format.h>

#include "Nimbo/Exception.h"

namespace Asic {

namespace {

bool validComponent(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

[[noreturn]] void refuse(std::string_view what, std::string_view name) {
  throw Nimbo::InvalidArgumentException(
      fmt::format("{} '{}' is not a shared-memory path name: components are one or more of "
                  "[A-Za-z0-9._-], not '.' or '..'",
                  what, name));
}

std::string_view checkedComponent(std::string_view what, std::string_view name) {
  if (!validComponent(name)) refuse(what, name);
  return name;
}

std::string_view checkedPath(std::string_view what, std::string_view path) {
  size_t begin = 0;
  while (true) {
    const size_t slash = path.find('/', begin);
    if (!validComponent(path.substr(begin, slash - begin))) refuse(what, path);
    if (slash == std::string_view::npos) return path;
    begin = slash + 1;
  }
}

}  // namespace

Nimbo::String Constants::canonicalizeGroupName(std::string_view agentName,
                                               std::string_view groupName) {
  return fmt::format("{}.{}", checkedComponent("agent name", agentName),
                     checkedComponent("group name", groupName));
}

Nimbo::String Constants::canonicalGroupTableConfigShardPathBase(std::string_view canonicalGroupName,
                                                                std::string_view tableNamespace,
                                                                std::string_view tableName) {
  return fmt::format("{}/{}/{}/config", checkedComponent("group name", canonicalGroupName),
                     checkedComponent("table namespace", tableNamespace),
                     checkedComponent("table name", tableName));
}

Nimbo::String Constants::configShardPath(std::string_view pathBase, UnitId unitId) {
  return fmt::format("{}/{}", checkedPath("configuration path base", pathBase), unitId);
}

Nimbo::String Constants::tableEntryLogShardPath(std::string_view canonicalGroupName,
                                                std::string_view tableNamespace,
                                                std::string_view tableName) {
  return fmt::format("{}/{}/{}/entryLog", checkedComponent("group name", canonicalGroupName),
                     checkedComponent("table namespace", tableNamespace),
                     checkedComponent("table name", tableName));
}

Nimbo::String Constants::tableVersionShardPath(std::string_view canonicalGroupName) {
  return fmt::format("{}/tableVersion", checkedComponent("group name", canonicalGroupName));
}

UnitId Constants::getUnitIdFromConfigPath(std::string_view path) {
  const size_t slash = path.rfind('/');
  const std::string_view last = slash == std::string_view::npos ? path : path.substr(slash + 1);
  unsigned value = 0;
  auto [end, error] = std::from_chars(last.data(), last.data() + last.size(), value);
  if (last.empty() || error != std::errc() || end != last.data() + last.size() || value > 0xffff) {
    throw Nimbo::InvalidArgumentException(
        fmt::format("configuration path '{}' does not end in a unit number (0 to 65535)", path));
  }
  return UnitId(uint16_t(value));
}

}  // namespace Asic
