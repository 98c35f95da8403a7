#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Kest/TypeData.h"
#include "Nimbo/Assert.h"

// The makers of a class's attribute list: one line per attribute, naming it and giving
// captureless lambdas over the class (Self) that read, write, call or reach it. Each maker
// turns its lambdas into the type-erased hooks of a Kest::KestAttr; the lambdas' own
// parameter types say how the framework's values convert. For example:
//
//   Kest::attrValue<Self>("unitId", [](const Self& t) { return t.unitId(); }),
//   Kest::attrOperation<Self>("clearTable", [](Self& t, bool r) { t.clearTable(r); },
//                             {"releaseResources"}),
//   Kest::attrCollection<Self>("transientAddEntry",
//                              [](const Self& t) -> auto& { return t.transientAddEntrys(); }),
//
// A lambda without captures is default-constructible, so a hook is a static function of a
// template over the lambda's type: no state, no allocation.
namespace Kest {
namespace detail {

template <class F>
struct LambdaSignature;
template <class C, class R, class... A>
struct LambdaSignature<R (C::*)(A...) const> {
  using Result = R;
  using Params = std::tuple<A...>;
};
template <class F>
using SignatureOf = LambdaSignature<decltype(&F::operator())>;

template <class Tuple>
struct DropFirstParam;
template <class First, class... Rest>
struct DropFirstParam<std::tuple<First, Rest...>> {
  using type = std::tuple<Rest...>;
};

// Calls fn(lead..., args converted to the parameter types Params) and converts the result.
template <class Result, class... Params, size_t... I, class Fn, class... Lead>
Value invokeConverted(std::tuple<Params...>*, std::index_sequence<I...>, Fn fn,
                      std::span<const Value> args, Lead&... lead) {
  if constexpr (std::is_void_v<Result>) {
    fn(lead..., fromValue<std::remove_cvref_t<Params>>(args[I])...);
    return Value();
  } else {
    return toValue(fn(lead..., fromValue<std::remove_cvref_t<Params>>(args[I])...));
  }
}

template <class Self, class Fn>
struct OperationThunk {
  using Signature = SignatureOf<Fn>;
  using Args = typename DropFirstParam<typename Signature::Params>::type;
  static constexpr uint8_t arity = std::tuple_size_v<Args>;
  static Value call(Nimbo::Node& object, std::span<const Value> args) {
    Self& self = static_cast<Self&>(object);
    return invokeConverted<typename Signature::Result>(
        static_cast<Args*>(nullptr), std::make_index_sequence<arity>(), Fn{}, args, self);
  }
};

template <class Self, class Get>
struct ReadThunk {
  using Result = std::remove_cvref_t<decltype(Get{}(std::declval<const Self&>()))>;
  static constexpr AttrKind kind =
      NodePtr<Result> || NodeRawPtr<Result> ? AttrKind::pointer : AttrKind::value;
  static Value read(const Nimbo::Node& object) {
    return toValue(Get{}(static_cast<const Self&>(object)));
  }
};

template <class Self, class Set>
struct WriteThunk {
  using Arg = std::remove_cvref_t<std::tuple_element_t<1, typename SignatureOf<Set>::Params>>;
  static void write(Nimbo::Node& object, const Value& value) {
    Set{}(static_cast<Self&>(object), fromValue<Arg>(value));
  }
};

// A keyed map with the hash map's interface: ordered walk, find, findAfter(key).
template <class Self, class GetMap, class Del>
struct MapHooks {
  using Map = std::remove_cvref_t<decltype(GetMap{}(std::declval<const Self&>()))>;
  using Key = std::remove_const_t<typename Map::Item::first_type>;

  static const Map& map(const Nimbo::Node& object) {
    return GetMap{}(static_cast<const Self&>(object));
  }
  static IterPosition positionOf(const Map& m, typename Map::ConstIterator it) {
    return it == m.end() ? IterPosition() : IterPosition(it->first);
  }
  static IterPosition first(const Nimbo::Node& object) {
    const Map& m = map(object);
    return positionOf(m, m.begin());
  }
  static IterPosition after(const Nimbo::Node& object, const IterPosition& position) {
    const Map& m = map(object);
    return positionOf(m, m.findAfter(std::any_cast<const Key&>(position)));
  }
  static Value element(const Nimbo::Node& object, const IterPosition& position) {
    const Map& m = map(object);
    const auto it = m.find(std::any_cast<const Key&>(position));
    return it == m.end() ? Value() : toValue(it->second);
  }
  static Value key(const IterPosition& position) {
    return toValue(std::any_cast<const Key&>(position));
  }
  static void del(Nimbo::Node& object, const IterPosition& position) {
    Del{}(static_cast<Self&>(object), std::any_cast<const Key&>(position));
  }
  static uint64_t size(const Nimbo::Node& object) { return map(object).size(); }

  static constexpr auto delHook() {
    using Hook = void (*)(Nimbo::Node&, const IterPosition&);
    if constexpr (std::is_same_v<Del, std::nullptr_t>) {
      return Hook(nullptr);
    } else {
      return Hook(&del);
    }
  }

  static constexpr CollectionHooks hooks{&first, &after, &element, &key, delHook(), &size};
};

// A queue with serial indices (Nimbo::RQueue): walked from front to back by index.
template <class Self, class GetQueue>
struct QueueHooks {
  static const auto& queue(const Nimbo::Node& object) {
    return GetQueue{}(static_cast<const Self&>(object));
  }
  static IterPosition at(const Nimbo::Node& object, uint32_t index) {
    return queue(object).has(index) ? IterPosition(index) : IterPosition();
  }
  static IterPosition first(const Nimbo::Node& object) {
    return at(object, queue(object).frontIndex());
  }
  static IterPosition after(const Nimbo::Node& object, const IterPosition& position) {
    return at(object, std::any_cast<uint32_t>(position) + 1);
  }
  static Value element(const Nimbo::Node& object, const IterPosition& position) {
    return toValue(queue(object).at(std::any_cast<uint32_t>(position)));
  }
  static Value key(const IterPosition& position) {
    return toValue(std::any_cast<uint32_t>(position));
  }
  static uint64_t size(const Nimbo::Node& object) { return queue(object).size(); }

  static constexpr CollectionHooks hooks{&first, &after, &element, &key, nullptr, &size};
};

template <class Self, class Make>
struct ConstructThunk {
  using Signature = SignatureOf<Make>;
  using Args = typename Signature::Params;
  static constexpr uint8_t arity = std::tuple_size_v<Args>;
  static Nimbo::Ptr<Nimbo::Node> construct(std::span<const Value> args) {
    const Value made = invokeConverted<typename Signature::Result>(
        static_cast<Args*>(nullptr), std::make_index_sequence<arity>(), Make{}, args);
    return std::get<Nimbo::Ptr<Nimbo::Node>>(made);
  }
};

}  // namespace detail

// A value or reference the framework may read; a pointer kind when `get` returns one.
template <class Self, class Get>
KestAttr attrValue(std::string_view name, Get) {
  using Read = detail::ReadThunk<Self, Get>;
  return KestAttr{.name = name, .kind = Read::kind, .read = &Read::read};
}

// The same, writable: `set(self, value)`.
template <class Self, class Get, class Set>
KestAttr attrValue(std::string_view name, Get get, Set) {
  KestAttr attr = attrValue<Self>(name, get);
  attr.write = &detail::WriteThunk<Self, Set>::write;
  return attr;
}

// An operation: `fn(self, args...)`, called with the framework's arguments converted to
// the lambda's parameter types; `argNames`, when given, names each of them in order.
template <class Self, class Fn>
KestAttr attrOperation(std::string_view name, Fn,
                       std::initializer_list<std::string_view> argNames = {}) {
  using Thunk = detail::OperationThunk<Self, Fn>;
  static_assert(Thunk::arity <= std::tuple_size_v<decltype(KestAttr::argNames)>);
  VESK_ASSERT(argNames.size() == 0 || argNames.size() == Thunk::arity);
  KestAttr attr{
      .name = name, .kind = AttrKind::operation, .arity = Thunk::arity, .call = &Thunk::call};
  std::copy(argNames.begin(), argNames.end(), attr.argNames.begin());
  return attr;
}

// A keyed collection, `getMap(self)` returning the map; with `del(self, key)` the
// framework may delete its elements.
template <class Self, class GetMap, class Del = std::nullptr_t>
KestAttr attrCollection(std::string_view name, GetMap, Del = nullptr) {
  return KestAttr{.name = name,
                  .kind = AttrKind::collection,
                  .collection = &detail::MapHooks<Self, GetMap, Del>::hooks};
}

// A queue, `getQueue(self)` returning it; the framework reads it only.
template <class Self, class GetQueue>
KestAttr attrQueue(std::string_view name, GetQueue) {
  return KestAttr{.name = name,
                  .kind = AttrKind::collection,
                  .collection = &detail::QueueHooks<Self, GetQueue>::hooks};
}

// An attribute known by name and kind whose class does not bind it (yet).
inline KestAttr attrDeclared(std::string_view name, AttrKind kind) {
  return KestAttr{.name = name, .kind = kind};
}

// A type record; with `make(args...)` returning Nimbo::Ptr<Self>, the framework may
// construct objects of the class.
template <class Self>
TypeData makeTypeData(Nimbo::String name, std::vector<KestAttr> attrs) {
  return TypeData(std::move(name), std::move(attrs));
}
template <class Self, class Make>
TypeData makeTypeData(Nimbo::String name, std::vector<KestAttr> attrs, Make) {
  using Thunk = detail::ConstructThunk<Self, Make>;
  return TypeData(std::move(name), std::move(attrs), &Thunk::construct, Thunk::arity);
}

}  // namespace Kest
