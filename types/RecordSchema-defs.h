#pragma once

// The definition of typeRecordOf, for the unit that makes the type records
// (types/RecordTypes.cpp); everyone else links to those.

#include <vector>

#include "types/RecordSchema.h"

namespace VeskTapAgg {

template <class R, class F>
Kest::RecordField describeField(const R& probe, const Field<R, F>& f) {
  const auto* base = reinterpret_cast<const unsigned char*>(&probe);
  const auto* at = reinterpret_cast<const unsigned char*>(&(probe.*f.member));
  Kest::RecordField described{f.name,  f.text, uint16_t(at - base), uint16_t(sizeof(F)),
                              nullptr, f.names};
  if constexpr (SchemaRecord<F>) described.record = &typeRecordOf<F>();
  return described;
}

template <SchemaRecord R>
const Kest::RecordType& typeRecordOf() {
  static const Kest::RecordType type = [] {
    const R probe{};
    std::vector<Kest::RecordField> fields;
    forEachField<R>([&](const auto& f) { fields.push_back(describeField(probe, f)); });
    auto form = Kest::RecordType::Form::fields;
    if constexpr (requires { R::form; }) form = R::form;
    return Kest::RecordType(R::typeName(), sizeof(R), form, std::move(fields));
  }();
  return type;
}

}  // namespace VeskTapAgg
