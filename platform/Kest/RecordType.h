#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Kest/Value.h"
#include "Nimbo/Export.h"
#include "Nimbo/String.h"

namespace Kest {

class RecordType;

// How a field of a record reads to a person, in print and in JSON.
enum class FieldText : uint8_t {
  decimal,    // a number: 42
  hex,        // a number: 0x2a
  flag,       // a bool: true, false
  named,      // a number with a name per value: "redirect" (the number when it has none)
  flagNames,  // bits with a name each: "count|lag" (print), the number (JSON)
  ip4,        // a 32-bit address in host order: 10.0.0.1
  mac,        // 6 bytes: 00:1c:73:01:02:03
  ip6,        // 16 bytes in network order: 2001:db8::1
  record,     // a nested record, printed and inspected through its own type record
  hidden,     // reserved bytes: counted in the layout, never shown
};

// One field of a record: its name, how it reads, and where its bytes are. Numbers are
// unsigned and 1, 2, 4 or 8 bytes wide; ip4 is a 4-byte number; mac and ip6 are byte
// arrays; names (for `named` and `flagNames`) are indexed by value or bit.
struct RecordField {
  std::string_view name;
  FieldText text = FieldText::decimal;
  uint16_t offset = 0;
  uint16_t size = 0;
  const RecordType* record = nullptr;
  std::span<const std::string_view> names{};
};

// The type record of a plain record (a key, an entry, a change-log record): its name, size
// and fields, through which the framework prints and inspects values of it without knowing
// the C++ type. Records are read as bytes at the fields' offsets, so a record type
// describes records of one layout only. Built once per record type from its field table
// (types/RecordSchema.h) and never changed; any thread may read it.
class VESK_EXPORT RecordType {
 public:
  // "Name(field=value, ...)", or "value/mask" for the value/mask pairs of a TCAM key,
  // which read as one value.
  enum class Form : uint8_t { fields, valueMask };

  // Stops the process when the fields do not tile the record's bytes in order: the field
  // table and the layout disagree.
  RecordType(Nimbo::String name, size_t size, Form form, std::vector<RecordField> fields);
  RecordType(const RecordType&) = delete;
  RecordType& operator=(const RecordType&) = delete;

  const Nimbo::String& name() const noexcept { return name_; }
  size_t size() const noexcept { return size_; }
  Form form() const noexcept { return form_; }
  std::span<const RecordField> fields() const noexcept { return fields_; }
  // The shown field of that name, or null.
  const RecordField* field(std::string_view name) const noexcept;

  // The record's text: "DefaultFwdTcamEntryEntryKey(priority=10, vlan=100/0xfff, ...)". The
  // first field always shows; the others while they are not zero (a match field left at
  // zero is "don't care", a zero number is the default).
  void format(fmt::memory_buffer& out, const void* record) const;
  Nimbo::String text(const void* record) const;
  // One field's text as the record's text shows it (a nested record by its own).
  void formatField(fmt::memory_buffer& out, const void* record, const RecordField& field) const;
  // The record as a JSON object with every shown field: numbers as numbers, flags as
  // booleans, addresses and named values as strings, nested records as objects.
  void json(fmt::memory_buffer& out, const void* record) const;
  Nimbo::String json(const void* record) const;
  // One field as the framework reads it: a number, a flag, or (addresses, nested records)
  // its text.
  Value fieldValue(const void* record, const RecordField& field) const;

 private:
  Nimbo::String name_;
  size_t size_;
  Form form_;
  std::vector<RecordField> fields_;
};

// The number a number field holds (1, 2, 4 or 8 bytes at its offset).
VESK_EXPORT uint64_t fieldNumber(const void* record, const RecordField& field) noexcept;

}  // namespace Kest
