#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>

#include <fmt/format.h>

#include "Kest/Hash.h"
#include "Kest/RecordType.h"
#include "Nimbo/String.h"

// Every record of the table types is declared by its field table, one line per field:
//
//   #define VESK_FIELDS(F) F(uint32_t, priority, decimal) F(U32Match, ingressPort, record)
//   struct MyKey { VESK_RECORD(MyKey, VESK_FIELDS); };
//
// F(type, name, text[, names]) declares the member (zero by default) and its entry in the
// record's fields(): its name, member and how it reads (Kest::FieldText). From that one
// table come the record's type record (typeRecordOf, which prints it and lets the framework
// inspect it), its JSON, and its Python class; so a field added to the table shows up in
// all of them. Fields are listed in layout order and cover every byte (reserved bytes as
// `hidden`), which the type record checks.

// Members and fields() of a record.
#define VESK_RECORD_MEMBER(Type, name, ...) std::type_identity_t<Type> name{};
#define VESK_RECORD_FIELD(Type, name, text, ...)      \
  ::VeskTapAgg::Field<Self, Type>{#name, &Self::name, \
                                  ::Kest::FieldText::text __VA_OPT__(, __VA_ARGS__)},
#define VESK_RECORD_FIELDS(Self_, LIST)         \
  LIST(VESK_RECORD_MEMBER)                      \
  static constexpr auto fields() {              \
    using Self = Self_;                         \
    return std::tuple{LIST(VESK_RECORD_FIELD)}; \
  }

// The operations every key and entry offers: equality (isEq, ==), ordering (<=>) and a
// 32-bit hash of its bytes under a seed. Records that are hashed have no padding bytes.
#define VESK_RECORD_OPS(Type)                                            \
  bool isEq(const Type& other) const noexcept { return *this == other; } \
  uint32_t hash(uint32_t seed) const noexcept {                          \
    static_assert(std::has_unique_object_representations_v<Type>,        \
                  "a hashed record must have no padding");               \
    return Kest::hash32(this, sizeof(Type), seed);                       \
  }                                                                      \
  friend bool operator==(const Type&, const Type&) = default;            \
  friend auto operator<=>(const Type&, const Type&) = default

// A record named after its type, with its fields and operations.
#define VESK_RECORD(Self_, LIST)                     \
  VESK_RECORD_FIELDS(Self_, LIST)                    \
  static Nimbo::String typeName() { return #Self_; } \
  VESK_RECORD_OPS(Self_)

namespace VeskTapAgg {

// One entry of a record's field table.
template <class R, class F>
struct Field {
  using Record = R;
  using Type = F;
  const char* name;
  F R::*member;
  Kest::FieldText text;
  std::span<const std::string_view> names{};
  constexpr bool shown() const noexcept { return text != Kest::FieldText::hidden; }
};

// A record declared by a field table, with a name.
template <class R>
concept SchemaRecord = requires {
  R::fields();
  { R::typeName() } -> std::convertible_to<Nimbo::String>;
};

// Calls visit(field) for every entry of R's field table, in layout order.
template <SchemaRecord R, class Visit>
constexpr void forEachField(Visit&& visit) {
  std::apply([&](const auto&... f) { (visit(f), ...); }, R::fields());
}

// The type record of R, built from its field table on first use. Made by the types
// library for every record of the table types (types/RecordTypes.cpp).
template <SchemaRecord R>
const Kest::RecordType& typeRecordOf();

}  // namespace VeskTapAgg

// Every record prints through its type record.
template <class T>
requires VeskTapAgg::SchemaRecord<T>
struct fmt::formatter<T> {
  constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
  auto format(const T& record, fmt::format_context& ctx) const {
    fmt::memory_buffer text;
    VeskTapAgg::typeRecordOf<T>().format(text, &record);
    return std::copy(text.begin(), text.end(), ctx.out());
  }
};
