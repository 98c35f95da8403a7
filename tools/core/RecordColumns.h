#pragma once

#include <string>
#include <vector>

#include <fmt/format.h>

#include "Kest/RecordType.h"

namespace VeskTool {

// A record's fields as columns, as `vesktap show` prints them and the gNMI target names its
// leaves: a nested record of named fields (an entry's key, an action) gives one column per
// field; a value/mask pair is one column.
struct Column {
  std::string name;
  const Kest::RecordType* type;  // of the record the field is in
  const Kest::RecordField* field;
  size_t offset;  // of that record in the outer one

  // The column's text in `record` (of the outer type), as printed.
  std::string text(const void* record) const {
    fmt::memory_buffer out;
    type->formatField(out, static_cast<const char*>(record) + offset, *field);
    return fmt::to_string(out);
  }
};

inline std::vector<Column> columnsOf(const Kest::RecordType& type) {
  std::vector<Column> columns;
  for (const Kest::RecordField& f : type.fields()) {
    if (f.text == Kest::FieldText::hidden) continue;
    if (f.record && f.record->form() == Kest::RecordType::Form::fields) {
      for (const Kest::RecordField& inner : f.record->fields()) {
        if (inner.text != Kest::FieldText::hidden)
          columns.push_back({std::string(inner.name), f.record, &inner, f.offset});
      }
    } else {
      columns.push_back({std::string(f.name), &type, &f, 0});
    }
  }
  return columns;
}

}  // namespace VeskTool
