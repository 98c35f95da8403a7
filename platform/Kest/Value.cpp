#include "Kest/Value.h"

#include "Kest/TypeData.h"

namespace Kest {

Nimbo::String classNameOf(const Nimbo::Node& node) {
  const TypeData* type = node.typeData();
  return type ? type->name() : Nimbo::String("object");
}

const char* valueKindName(const Value& value) noexcept {
  static constexpr const char* kNames[] = {"none", "flag", "number", "text", "object"};
  return kNames[value.index()];
}

Nimbo::String formatValue(const Value& value) {
  struct Format {
    Nimbo::String operator()(std::monostate) const { return "none"; }
    Nimbo::String operator()(bool flag) const { return flag ? "true" : "false"; }
    Nimbo::String operator()(uint64_t number) const { return fmt::format("{}", number); }
    Nimbo::String operator()(const Nimbo::String& text) const { return text; }
    Nimbo::String operator()(const Nimbo::Ptr<Nimbo::Node>& node) const {
      return node ? fmt::format("<{}>", classNameOf(*node)) : Nimbo::String("none");
    }
  };
  return std::visit(Format{}, value);
}

}  // namespace Kest
