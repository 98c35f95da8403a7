#include "Kest/RecordType.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "Nimbo/Assert.h"

namespace Kest {

namespace {

const unsigned char* bytesOf(const void* record, const RecordField& field) noexcept {
  return static_cast<const unsigned char*>(record) + field.offset;
}

bool allZero(const void* record, const RecordField& field) noexcept {
  const unsigned char* bytes = bytesOf(record, field);
  return std::all_of(bytes, bytes + field.size, [](unsigned char b) { return b == 0; });
}

void append(fmt::memory_buffer& out, std::string_view text) {
  out.append(text.data(), text.data() + text.size());
}

void formatFlagNames(fmt::memory_buffer& out, uint64_t bits,
                     std::span<const std::string_view> names) {
  if (bits == 0) return append(out, "0");
  bool first = true;
  for (size_t bit = 0; bit < 64 && bits != 0; ++bit) {
    const uint64_t mask = uint64_t(1) << bit;
    if (!(bits & mask) || bit >= names.size()) continue;
    if (!first) append(out, "|");
    append(out, names[bit]);
    bits &= ~mask;
    first = false;
  }
  if (bits != 0) fmt::format_to(std::back_inserter(out), "{}{:#x}", first ? "" : "|", bits);
}

// An IPv6 address as people write it: groups in hex without leading zeros, and the
// longest run of two or more zero groups (the first of equal runs) as "::".
void formatIp6(fmt::memory_buffer& out, const unsigned char* bytes, size_t groups) {
  const auto group = [&](size_t g) { return unsigned(bytes[2 * g]) << 8 | bytes[2 * g + 1]; };
  size_t runAt = groups, runLength = 1;
  for (size_t g = 0; g < groups;) {
    size_t end = g;
    while (end < groups && group(end) == 0) ++end;
    if (end - g > runLength) runAt = g, runLength = end - g;
    g = end == g ? g + 1 : end;
  }
  for (size_t g = 0; g < groups; ++g) {
    if (g == runAt) {
      append(out, "::");
      g += runLength - 1;
      continue;
    }
    fmt::format_to(std::back_inserter(out), "{}{:x}", g == 0 || g == runAt + runLength ? "" : ":",
                   group(g));
  }
}

// The text of a field that is not a nested record (whose text its own type record makes):
// in print, and as a JSON string.
void formatScalar(fmt::memory_buffer& out, const void* record, const RecordField& field) {
  auto to = std::back_inserter(out);
  const unsigned char* bytes = bytesOf(record, field);
  switch (field.text) {
    case FieldText::decimal:
      fmt::format_to(to, "{}", fieldNumber(record, field));
      return;
    case FieldText::hex:
      fmt::format_to(to, "{:#x}", fieldNumber(record, field));
      return;
    case FieldText::flag:
      append(out, fieldNumber(record, field) != 0 ? "true" : "false");
      return;
    case FieldText::named: {
      const uint64_t n = fieldNumber(record, field);
      if (n < field.names.size())
        append(out, field.names[n]);
      else
        fmt::format_to(to, "{}", n);
      return;
    }
    case FieldText::flagNames:
      formatFlagNames(out, fieldNumber(record, field), field.names);
      return;
    case FieldText::ip4: {
      const uint64_t a = fieldNumber(record, field);
      fmt::format_to(to, "{}.{}.{}.{}", (a >> 24) & 0xff, (a >> 16) & 0xff, (a >> 8) & 0xff,
                     a & 0xff);
      return;
    }
    case FieldText::mac:
      fmt::format_to(to, "{:02x}", fmt::join(bytes, bytes + field.size, ":"));
      return;
    case FieldText::ip6:
      formatIp6(out, bytes, field.size / 2);
      return;
    case FieldText::record:
    case FieldText::hidden:
      return;
  }
}

bool jsonString(FieldText text) noexcept {
  return text == FieldText::ip4 || text == FieldText::mac || text == FieldText::ip6;
}

}  // namespace

uint64_t fieldNumber(const void* record, const RecordField& field) noexcept {
  const unsigned char* bytes = bytesOf(record, field);
  switch (field.size) {
    case 1:
      return bytes[0];
    case 2: {
      uint16_t v;
      std::memcpy(&v, bytes, 2);
      return v;
    }
    case 4: {
      uint32_t v;
      std::memcpy(&v, bytes, 4);
      return v;
    }
    case 8: {
      uint64_t v;
      std::memcpy(&v, bytes, 8);
      return v;
    }
  }
  return 0;
}

RecordType::RecordType(Nimbo::String name, size_t size, Form form, std::vector<RecordField> fields)
    : name_(std::move(name)), size_(size), form_(form), fields_(std::move(fields)) {
  size_t next = 0;
  for (const RecordField& f : fields_) {
    VESK_ASSERT_MSG(f.offset == next,
                    fmt::format("{}.{} is not where its table puts it", name_, f.name));
    VESK_ASSERT_MSG((f.text == FieldText::record) == (f.record != nullptr),
                    name_ + "." + Nimbo::String(f.name));
    next = f.offset + f.size;
  }
  VESK_ASSERT_MSG(next == size_, name_ + ": the field table does not cover every byte");
  VESK_ASSERT_MSG(form_ == Form::fields || fields_.size() == 2, name_ + ": value/mask");
}

const RecordField* RecordType::field(std::string_view name) const noexcept {
  for (const RecordField& f : fields_) {
    if (f.name == name && f.text != FieldText::hidden) return &f;
  }
  return nullptr;
}

void RecordType::format(fmt::memory_buffer& out, const void* record) const {
  if (form_ == Form::valueMask) {
    formatScalar(out, record, fields_[0]);
    append(out, "/");
    formatScalar(out, record, fields_[1]);
    return;
  }
  append(out, name_);
  append(out, "(");
  bool first = true;
  for (const RecordField& f : fields_) {
    if (f.text == FieldText::hidden || (&f != &fields_[0] && allZero(record, f))) continue;
    if (!first) append(out, ", ");
    append(out, f.name);
    append(out, "=");
    formatField(out, record, f);
    first = false;
  }
  append(out, ")");
}

void RecordType::formatField(fmt::memory_buffer& out, const void* record,
                             const RecordField& field) const {
  if (field.record)
    field.record->format(out, bytesOf(record, field));
  else
    formatScalar(out, record, field);
}

Nimbo::String RecordType::text(const void* record) const {
  fmt::memory_buffer out;
  format(out, record);
  return fmt::to_string(out);
}

void RecordType::json(fmt::memory_buffer& out, const void* record) const {
  append(out, "{");
  bool first = true;
  for (const RecordField& f : fields_) {
    if (f.text == FieldText::hidden) continue;
    fmt::format_to(std::back_inserter(out), "{}\"{}\":", first ? "" : ",", f.name);
    first = false;
    if (f.record) {
      f.record->json(out, bytesOf(record, f));
    } else if (jsonString(f.text) ||
               (f.text == FieldText::named && fieldNumber(record, f) < f.names.size())) {
      append(out, "\"");
      formatScalar(out, record, f);
      append(out, "\"");
    } else if (f.text == FieldText::flag) {
      formatScalar(out, record, f);
    } else {
      fmt::format_to(std::back_inserter(out), "{}", fieldNumber(record, f));
    }
  }
  append(out, "}");
}

Nimbo::String RecordType::json(const void* record) const {
  fmt::memory_buffer out;
  json(out, record);
  return fmt::to_string(out);
}

Value RecordType::fieldValue(const void* record, const RecordField& field) const {
  switch (field.text) {
    case FieldText::flag:
      return fieldNumber(record, field) != 0;
    case FieldText::decimal:
    case FieldText::hex:
    case FieldText::named:
    case FieldText::flagNames:
      return fieldNumber(record, field);
    case FieldText::record:
      return field.record->text(bytesOf(record, field));
    default: {
      fmt::memory_buffer out;
      formatScalar(out, record, field);
      return Nimbo::String(fmt::to_string(out));
    }
  }
}

}  // namespace Kest
