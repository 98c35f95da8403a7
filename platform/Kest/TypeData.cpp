#include "Kest/TypeData.h"

#include <algorithm>

#include "Nimbo/Assert.h"

namespace Kest {

const char* attrKindName(AttrKind kind) noexcept {
  switch (kind) {
    case AttrKind::value:
      return "value";
    case AttrKind::pointer:
      return "pointer";
    case AttrKind::collection:
      return "collection";
    case AttrKind::operation:
      return "operation";
  }
  return "unknown";
}

UnknownAttributeException::UnknownAttributeException(const Nimbo::String& className,
                                                     std::string_view attrName)
    : InspectException(fmt::format("{} has no attribute \"{}\"", className, attrName)),
      className_(className),
      attrName_(attrName) {}

TypeData::TypeData(Nimbo::String name, std::vector<KestAttr> attrs, Construct construct,
                   uint8_t constructArity)
    : name_(std::move(name)),
      attrs_(std::move(attrs)),
      construct_(construct),
      constructArity_(constructArity) {
  std::sort(attrs_.begin(), attrs_.end(),
            [](const KestAttr& a, const KestAttr& b) { return a.name < b.name; });
  const auto twin =
      std::adjacent_find(attrs_.begin(), attrs_.end(),
                         [](const KestAttr& a, const KestAttr& b) { return a.name == b.name; });
  VESK_ASSERT_MSG(twin == attrs_.end(), name_ + "." + Nimbo::String(twin->name));
}

const KestAttr* TypeData::attr(std::string_view name) const noexcept {
  const auto it =
      std::lower_bound(attrs_.begin(), attrs_.end(), name,
                       [](const KestAttr& a, std::string_view n) { return a.name < n; });
  return it != attrs_.end() && it->name == name ? &*it : nullptr;
}

const KestAttr& TypeData::attrOrThrow(std::string_view name) const {
  if (const KestAttr* found = attr(name)) return *found;
  throw UnknownAttributeException(name_, name);
}

Nimbo::String TypeData::describe(const KestAttr& attr, std::string_view what) const {
  return fmt::format("{}.{}: {}", name_, attr.name, what);
}

// A descriptor of another class, or an object of another class, would have the hooks
// cast the object to the wrong type: refuse both before any hook runs.
void TypeData::checkOwn(const Nimbo::Node& object, const KestAttr& attr) const {
  if (&attr < attrs_.data() || &attr >= attrs_.data() + attrs_.size()) {
    throw InspectException(
        fmt::format("{}: attribute \"{}\" belongs to another class", name_, attr.name));
  }
  if (object.typeData() != this) {
    throw InspectException(describe(attr, "the object is a " + classNameOf(object)));
  }
}

void TypeData::checkArity(const KestAttr& attr, size_t given, uint8_t wanted) const {
  if (given == wanted) return;
  std::string names;
  if (attr.kind == AttrKind::operation && wanted > 0 && !attr.argNames[0].empty()) {
    names.append(" (");
    for (uint8_t i = 0; i < wanted; ++i) names.append(i ? ", " : "").append(attr.argNames[i]);
    names.append(")");
  }
  throw InspectException(
      describe(attr, fmt::format("takes {} argument(s){}, got {}", wanted, names, given)));
}

Value TypeData::inspectOperation(Nimbo::Node& object, const KestAttr& attr, InspectOp op,
                                 std::span<const Value> args) const {
  checkOwn(object, attr);
  const bool readable = attr.read || attr.collection;
  if ((op == InspectOp::read && !readable) || (op == InspectOp::write && !attr.write) ||
      (op == InspectOp::call && !attr.call)) {
    static constexpr const char* kVerbs[] = {"cannot be read", "cannot be written",
                                             "cannot be called"};
    const bool bound = readable || attr.write || attr.call;
    throw InspectException(
        describe(attr, fmt::format("{} ({})", kVerbs[size_t(op)],
                                   bound ? attrKindName(attr.kind) : "declared, not bound")));
  }
  checkArity(attr, args.size(),
             op == InspectOp::read    ? 0
             : op == InspectOp::write ? 1
                                      : attr.arity);
  try {
    switch (op) {
      case InspectOp::read:
        return attr.collection ? Value(attr.collection->size(object)) : attr.read(object);
      case InspectOp::write:
        attr.write(object, args[0]);
        return Value();
      case InspectOp::call:
        return attr.call(object, args);
    }
  } catch (const InspectException& e) {
    // An argument did not convert; say to what.
    throw InspectException(describe(attr, e.what()));
  }
  return Value();
}

AttrIterator TypeData::genericIfIterator(const Nimbo::Ptr<Nimbo::Node>& object,
                                         const KestAttr& attr) const {
  if (!object) throw InspectException(describe(attr, "no object to walk"));
  checkOwn(*object, attr);
  if (!attr.collection) {
    throw InspectException(
        describe(attr, fmt::format("is not a collection ({})", attrKindName(attr.kind))));
  }
  return AttrIterator(object, *this, attr);
}

Nimbo::Ptr<Nimbo::Node> TypeData::genericIfConstructFromCtorArgs(
    std::span<const Value> args) const {
  if (!construct_) {
    throw InspectException(fmt::format("{} cannot be constructed by the framework", name_));
  }
  if (args.size() != constructArity_) {
    throw InspectException(fmt::format("{}: construction takes {} argument(s), got {}", name_,
                                       constructArity_, args.size()));
  }
  try {
    return construct_(args);
  } catch (const InspectException& e) {
    throw InspectException(fmt::format("{}: construction: {}", name_, e.what()));
  }
}

AttrIterator::AttrIterator(Nimbo::Ptr<Nimbo::Node> object, const TypeData& type,
                           const KestAttr& attr)
    : object_(std::move(object)),
      type_(&type),
      attr_(&attr),
      position_(attr.collection->first(*object_)) {}

void AttrIterator::checkNonnull(std::string_view what) const {
  if (!iterNonnull()) {
    throw InspectException(type_->describe(*attr_, fmt::format("{} past the end", what)));
  }
}

Value AttrIterator::iterKey() const {
  checkNonnull("key");
  return attr_->collection->key(position_);
}

Value AttrIterator::iterObj() const {
  checkNonnull("element");
  return attr_->collection->element(*object_, position_);
}

void AttrIterator::iterInc() {
  checkNonnull("step");
  position_ = attr_->collection->after(*object_, position_);
}

void AttrIterator::iterDel() {
  checkNonnull("delete");
  if (!attr_->collection->del) {
    throw InspectException(type_->describe(*attr_, "elements cannot be deleted"));
  }
  IterPosition next = attr_->collection->after(*object_, position_);
  attr_->collection->del(*object_, position_);
  position_ = std::move(next);
}

const TypeData& typeDataOf(const Nimbo::Node& object) {
  if (const TypeData* type = object.typeData()) return *type;
  throw InspectException("the object's class has no type record");
}

Value inspectOperation(Nimbo::Node& object, std::string_view attrName, InspectOp op,
                       std::span<const Value> args) {
  const TypeData& type = typeDataOf(object);
  return type.inspectOperation(object, type.attrOrThrow(attrName), op, args);
}

AttrIterator genericIfIterator(const Nimbo::Ptr<Nimbo::Node>& object, std::string_view attrName) {
  if (!object) throw InspectException("no object to walk");
  const TypeData& type = typeDataOf(*object);
  return type.genericIfIterator(object, type.attrOrThrow(attrName));
}

}  // namespace Kest
