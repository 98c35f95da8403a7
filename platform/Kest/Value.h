#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>
#include <variant>

#include <fmt/format.h>

#include "Nimbo/Exception.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/String.h"

namespace Kest {

// What the framework reads from, writes to or passes to an attribute: nothing, a flag, a
// number, a text, or another object. Records the framework does not take apart (keys,
// entries, entry versions) travel as their printed text, which is why they can be read
// but not written. A plain value; any thread.
using Value = std::variant<std::monostate, bool, uint64_t, Nimbo::String, Nimbo::Ptr<Nimbo::Node>>;

// An introspection request the object cannot serve: an operation the attribute does not
// support, arguments of the wrong number or kind, a walk past its end. Nothing was
// changed.
class VESK_EXPORT InspectException : public Nimbo::InvalidArgumentException {
 public:
  using InvalidArgumentException::InvalidArgumentException;
};

// The name of the object's class from its type record, or "object" when it has none.
VESK_EXPORT Nimbo::String classNameOf(const Nimbo::Node& node);
// "none", "flag", "number", "text" or "object": what a value holds, for messages.
VESK_EXPORT const char* valueKindName(const Value& value) noexcept;
// The value as a person reads it: "true", "42", the text, "<DefaultFwdTcamEntryEntryLog>"
// for an object (its class, or "object" for one without a type record), "none".
VESK_EXPORT Nimbo::String formatValue(const Value& value);

namespace detail {

template <class T>
struct PtrPointee {};
template <class U>
struct PtrPointee<Nimbo::Ptr<U>> {
  using type = U;
};
template <class T>
concept NodePtr = requires {
  typename PtrPointee<T>::type;
};
template <class T>
concept NodeRawPtr = std::is_pointer_v<T> &&
    std::derived_from<std::remove_cv_t<std::remove_pointer_t<T>>, Nimbo::Node>;
// A value class that is a number underneath (ids, versions): value() and construction
// from it.
template <class T>
concept NumberClass = requires(const T& t) {
  { t.value() } -> std::unsigned_integral;
}
&&std::is_constructible_v<T, decltype(std::declval<const T&>().value())>;

template <class>
inline constexpr bool kNoConversion = false;

template <class X>
const char* kindNameOf() noexcept {
  return valueKindName(Value(X{}));
}

template <class X>
const X& expect(const Value& value) {
  if (const X* held = std::get_if<X>(&value)) return *held;
  throw InspectException(
      fmt::format("expected a {}, got a {}", kindNameOf<X>(), valueKindName(value)));
}

template <class N>
N narrow(uint64_t number) {
  if (number > std::numeric_limits<N>::max()) {
    throw InspectException(fmt::format("{} is out of range (at most {})", number,
                                       uint64_t(std::numeric_limits<N>::max())));
  }
  return N(number);
}

inline Nimbo::Ptr<Nimbo::Node> nodeOf(const Nimbo::Node* node) noexcept {
  return Nimbo::Ptr<Nimbo::Node>(const_cast<Nimbo::Node*>(node));
}

}  // namespace detail

// A C++ value as the framework sees it: flags and unsigned numbers as themselves,
// enumerations and number classes as their number, strings as text, references and back
// pointers as the object, and anything else {fmt} prints as its text.
template <class T>
Value toValue(const T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return value;
  } else if constexpr (std::is_integral_v<T>) {
    static_assert(std::is_unsigned_v<T>, "the framework's numbers are unsigned");
    return uint64_t(value);
  } else if constexpr (std::is_enum_v<T>) {
    return uint64_t(std::underlying_type_t<T>(value));
  } else if constexpr (detail::NumberClass<T>) {
    return uint64_t(value.value());
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    return Nimbo::String(std::string_view(value));
  } else if constexpr (detail::NodePtr<T>) {
    return detail::nodeOf(value.ptr());
  } else if constexpr (detail::NodeRawPtr<T>) {
    return detail::nodeOf(value);
  } else if constexpr (fmt::is_formattable<T>::value) {
    return Nimbo::String(fmt::format("{}", value));
  } else {
    static_assert(detail::kNoConversion<T>, "no framework value for this type");
  }
}

// The C++ value a framework value stands for; throws InspectException when it holds
// another kind, a number out of range or an object of another class. None stands for a
// null reference.
template <class T>
T fromValue(const Value& value) {
  if constexpr (std::is_same_v<T, bool>) {
    return detail::expect<bool>(value);
  } else if constexpr (std::is_integral_v<T>) {
    static_assert(std::is_unsigned_v<T>, "the framework's numbers are unsigned");
    return detail::narrow<T>(detail::expect<uint64_t>(value));
  } else if constexpr (std::is_enum_v<T>) {
    return T(detail::narrow<std::underlying_type_t<T>>(detail::expect<uint64_t>(value)));
  } else if constexpr (detail::NumberClass<T>) {
    using Number = decltype(std::declval<const T&>().value());
    return T(detail::narrow<Number>(detail::expect<uint64_t>(value)));
  } else if constexpr (std::is_same_v<T, Nimbo::String>) {
    return detail::expect<Nimbo::String>(value);
  } else if constexpr (detail::NodePtr<T>) {
    using Pointee = typename detail::PtrPointee<T>::type;
    if (std::holds_alternative<std::monostate>(value)) return T();
    const Nimbo::Ptr<Nimbo::Node>& node = detail::expect<Nimbo::Ptr<Nimbo::Node>>(value);
    if (!node) return T();
    Pointee* object = dynamic_cast<Pointee*>(node.ptr());
    if (!object) {
      throw InspectException(
          fmt::format("an object of class {} does not fit here", classNameOf(*node)));
    }
    return T(object);
  } else {
    static_assert(detail::kNoConversion<T>, "the framework cannot give a value of this type");
  }
}

}  // namespace Kest
