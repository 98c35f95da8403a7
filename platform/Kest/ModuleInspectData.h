#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Kest/RecordType.h"
#include "Kest/TypeData.h"
#include "Nimbo/Export.h"
#include "Nimbo/String.h"

namespace Kest {

// FNV-1a (32 bits) of the text: the hash in a module's name. Stable across builds and
// processes, so that a module keeps its name as long as its unit does.
constexpr uint32_t moduleHash(std::string_view text) noexcept {
  uint32_t hash = 0x811c9dc5u;
  for (const char c : text) hash = (hash ^ uint8_t(c)) * 0x01000193u;
  return hash;
}

// The type record of one source unit of a library: its name, made from the unit's
// ("_<unit>_<8 hex digits>_kestModule"), the records of the classes the unit defines
// (possibly none) and those of the plain records (keys, entries) it defines. Built at load by the
// unit, never changed; lives as long as the library. Any thread may read it.
class VESK_EXPORT ModuleTypeData {
 public:
  ModuleTypeData(std::string_view unit, std::vector<const TypeData*> types,
                 std::vector<const RecordType*> records = {});
  ModuleTypeData(const ModuleTypeData&) = delete;
  ModuleTypeData& operator=(const ModuleTypeData&) = delete;

  // "_DefaultFwdTcamEntrySwTable_xxxxxxxx_kestModule" for the unit "DefaultFwdTcamEntrySwTable".
  static Nimbo::String nameOf(std::string_view unit);

  const Nimbo::String& name() const noexcept { return name_; }
  const Nimbo::String& unit() const noexcept { return unit_; }
  std::span<const TypeData* const> types() const noexcept { return types_; }
  // The record of the class of that name, or null.
  const TypeData* type(std::string_view className) const noexcept;
  std::span<const RecordType* const> records() const noexcept { return records_; }
  // The plain record of that name, or null.
  const RecordType* record(std::string_view recordName) const noexcept;

 private:
  Nimbo::String unit_;
  Nimbo::String name_;
  std::vector<const TypeData*> types_;
  std::vector<const RecordType*> records_;
};

}  // namespace Kest

namespace Nimbo {

// The process's registry of loaded modules: each source unit of a library announces its
// module type record when the library is loaded, and the framework (or a person, through
// the CLI) lists them. It keeps pointers: a module stays valid while its library is
// loaded, and a library that announces modules is not unloaded. Announcements may come
// from any thread (a library loaded by any thread); guarded by a lock.
class VESK_EXPORT ModuleInspectData {
 public:
  // Adds the module. Announcing one module twice is harmless; a second module of the same
  // name stops the process: two units would answer to one name.
  static void loaded(const Kest::ModuleTypeData& module);
  // Every announced module, in the order of announcement.
  static std::vector<const Kest::ModuleTypeData*> modules();
  // The module of that name, or null.
  static const Kest::ModuleTypeData* module(std::string_view name);
};

}  // namespace Nimbo
