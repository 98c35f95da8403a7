#pragma once

#include <any>
#include <array>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Kest/Value.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Kest {

// What an attribute is: a value of the object (numbers, names, records), a reference to
// another object, a collection the framework can walk, or an operation it can call.
enum class AttrKind : uint8_t { value, pointer, collection, operation };
VESK_EXPORT const char* attrKindName(AttrKind kind) noexcept;

// What the framework asks of an attribute. Reading a collection gives its element count.
enum class InspectOp : uint8_t { read, write, call };

// Where a walk over a collection stands: the current element's key itself (a map's key,
// a queue's index), empty at the end. Holding the key rather than an iterator is what
// lets a walk go on after the collection changed.
using IterPosition = std::any;

// How the framework walks one collection attribute of objects of one class. Made once per
// class and attribute (Kest/AttrMakers.h); `del` is null for a collection the framework
// may only read.
struct CollectionHooks {
  IterPosition (*first)(const Nimbo::Node& object);
  IterPosition (*after)(const Nimbo::Node& object, const IterPosition& position);
  Value (*element)(const Nimbo::Node& object, const IterPosition& position);
  Value (*key)(const IterPosition& position);
  void (*del)(Nimbo::Node& object, const IterPosition& position);
  uint64_t (*size)(const Nimbo::Node& object);
};

// The framework's field descriptor: one attribute of a class by name and kind, with the
// hooks that read, write, call or walk it on an object of the class. A hook is null where
// the attribute does not support that; an attribute with no hooks at all is declared by
// name and kind only (its class has not bound it). Names are string literals. Made once
// per class; immutable; any thread may read it.
struct KestAttr {
  std::string_view name;
  AttrKind kind = AttrKind::value;
  // The number of arguments an operation takes, and their names where the class gives them
  // (all empty otherwise).
  uint8_t arity = 0;
  std::array<std::string_view, 4> argNames{};
  Value (*read)(const Nimbo::Node& object) = nullptr;
  void (*write)(Nimbo::Node& object, const Value& value) = nullptr;
  Value (*call)(Nimbo::Node& object, std::span<const Value> args) = nullptr;
  const CollectionHooks* collection = nullptr;
};

// A name a class does not have among its attributes.
class VESK_EXPORT UnknownAttributeException : public InspectException {
 public:
  UnknownAttributeException(const Nimbo::String& className, std::string_view attrName);
  const Nimbo::String& className() const noexcept { return className_; }
  const Nimbo::String& attrName() const noexcept { return attrName_; }

 private:
  Nimbo::String className_;
  Nimbo::String attrName_;
};

class TypeData;

// The framework's generic iterator over a collection attribute of one object, positioned
// at the first element when made. It holds the object by reference count and its place
// by key, so elements may come and go under it: iterInc moves to the element after the
// current key, whether or not that is still there. Single-threaded, like the object.
class VESK_EXPORT AttrIterator {
 public:
  AttrIterator(Nimbo::Ptr<Nimbo::Node> object, const TypeData& type, const KestAttr& attr);

  bool iterNonnull() const noexcept { return position_.has_value(); }
  // The current element's key (printed, or its number) and the element itself (none when
  // it went away since the walk reached it).
  Value iterKey() const;
  Value iterObj() const;
  void iterInc();
  // Removes the current element through its class's own delete and moves to the next.
  void iterDel();

 private:
  void checkNonnull(std::string_view what) const;

  Nimbo::Ptr<Nimbo::Node> object_;
  const TypeData* type_;
  const KestAttr* attr_;
  IterPosition position_;
};

// The type record of a class: its name and its attributes in byte order of their names,
// with the per-class dispatcher over them, and, for a class the framework may make
// itself, its construction from arguments. Built once per class, on first use, and never
// changed; any thread may read it, the dispatcher runs on the object's thread.
class VESK_EXPORT TypeData {
 public:
  using Construct = Nimbo::Ptr<Nimbo::Node> (*)(std::span<const Value> args);

  // Stops the process when two attributes share a name: the class's list is wrong.
  TypeData(Nimbo::String name, std::vector<KestAttr> attrs, Construct construct = nullptr,
           uint8_t constructArity = 0);
  TypeData(const TypeData&) = delete;
  TypeData& operator=(const TypeData&) = delete;

  const Nimbo::String& name() const noexcept { return name_; }
  std::span<const KestAttr> attrs() const noexcept { return attrs_; }
  // The attribute of that name, or null.
  const KestAttr* attr(std::string_view name) const noexcept;
  // The same, throwing UnknownAttributeException naming the class and the attribute.
  const KestAttr& attrOrThrow(std::string_view name) const;

  // Reads, writes or calls `attr` (one of this record's) on `object` (an object of this
  // class): a read gives the value, or a collection's size; a write takes exactly one
  // argument and gives none; a call gives what the operation returns. Throws
  // InspectException, naming the class and the attribute, for anything the attribute does
  // not support and for arguments that do not fit; the object is then unchanged.
  Value inspectOperation(Nimbo::Node& object, const KestAttr& attr, InspectOp op,
                         std::span<const Value> args = {}) const;
  AttrIterator genericIfIterator(const Nimbo::Ptr<Nimbo::Node>& object, const KestAttr& attr) const;

  bool constructible() const noexcept { return construct_ != nullptr; }
  Nimbo::Ptr<Nimbo::Node> genericIfConstructFromCtorArgs(std::span<const Value> args) const;

  // "DefaultFwdTcamEntrySwTable.tableId: <what>", the prefix of every error message.
  Nimbo::String describe(const KestAttr& attr, std::string_view what) const;

 private:
  void checkOwn(const Nimbo::Node& object, const KestAttr& attr) const;
  void checkArity(const KestAttr& attr, size_t given, uint8_t wanted) const;

  Nimbo::String name_;
  std::vector<KestAttr> attrs_;
  Construct construct_;
  uint8_t constructArity_;
};

// The framework's entry points for any object, by attribute name: look up the object's
// type record and dispatch. An object whose class has no record is an InspectException.
VESK_EXPORT const TypeData& typeDataOf(const Nimbo::Node& object);
VESK_EXPORT Value inspectOperation(Nimbo::Node& object, std::string_view attrName, InspectOp op,
                                   std::span<const Value> args = {});
VESK_EXPORT AttrIterator genericIfIterator(const Nimbo::Ptr<Nimbo::Node>& object,
                                           std::string_view attrName);

}  // namespace Kest
