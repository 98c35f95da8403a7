#pragma once

#include <cstdint>

#include <fmt/format.h>

#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Asic {

// The full name of a software table: its kind (0 for an ordered table), group, namespace
// and table name. Immutable after construction; shared by reference count; any thread
// may read it.
class CanonicalTableName : public Nimbo::Node {
 public:
  static constexpr uint8_t orderedTable = 0;

  CanonicalTableName(uint8_t type, Nimbo::String groupName, Nimbo::String tableNamespace,
                     Nimbo::String tableName)
      : type_(type),
        groupName_(std::move(groupName)),
        tableNamespace_(std::move(tableNamespace)),
        tableName_(std::move(tableName)) {}

  uint8_t type() const noexcept { return type_; }
  const Nimbo::String& groupName() const noexcept { return groupName_; }
  const Nimbo::String& tableNamespace() const noexcept { return tableNamespace_; }
  const Nimbo::String& tableName() const noexcept { return tableName_; }
  // "<group>/<namespace>/<table>"
  Nimbo::String name() const { return groupName_ + "/" + tableNamespace_ + "/" + tableName_; }

  friend bool operator==(const CanonicalTableName& a, const CanonicalTableName& b) {
    return a.type_ == b.type_ && a.groupName_ == b.groupName_ &&
           a.tableNamespace_ == b.tableNamespace_ && a.tableName_ == b.tableName_;
  }

 private:
  uint8_t type_;
  Nimbo::String groupName_;
  Nimbo::String tableNamespace_;
  Nimbo::String tableName_;
};

}  // namespace Asic

// The name, with the kind appended when it is not an ordered table: "g/ns/t", "g/ns/t#2".
template <>
struct fmt::formatter<Asic::CanonicalTableName> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const Asic::CanonicalTableName& n, fmt::format_context& ctx) const {
    if (n.type() == Asic::CanonicalTableName::orderedTable) {
      return fmt::format_to(ctx.out(), "{}", n.name());
    }
    return fmt::format_to(ctx.out(), "{}#{}", n.name(), n.type());
  }
};
