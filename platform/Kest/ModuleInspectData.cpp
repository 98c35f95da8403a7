#include "Kest/ModuleInspectData.h"

#include <algorithm>
#include <mutex>

#include "Nimbo/Assert.h"

namespace Kest {

ModuleTypeData::ModuleTypeData(std::string_view unit, std::vector<const TypeData*> types,
                               std::vector<const RecordType*> records)
    : unit_(unit), name_(nameOf(unit)), types_(std::move(types)), records_(std::move(records)) {}

Nimbo::String ModuleTypeData::nameOf(std::string_view unit) {
  return fmt::format("_{}_{:08x}_kestModule", unit, moduleHash(unit));
}

const TypeData* ModuleTypeData::type(std::string_view className) const noexcept {
  const auto it = std::find_if(types_.begin(), types_.end(),
                               [&](const TypeData* t) { return t->name() == className; });
  return it == types_.end() ? nullptr : *it;
}

const RecordType* ModuleTypeData::record(std::string_view recordName) const noexcept {
  const auto it = std::find_if(records_.begin(), records_.end(),
                               [&](const RecordType* r) { return r->name() == recordName; });
  return it == records_.end() ? nullptr : *it;
}

}  // namespace Kest

namespace Nimbo {
namespace {

struct Registry {
  std::mutex mutex;
  std::vector<const Kest::ModuleTypeData*> modules;

  const Kest::ModuleTypeData* find(std::string_view name) const {
    const auto it = std::find_if(modules.begin(), modules.end(),
                                 [&](const Kest::ModuleTypeData* m) { return m->name() == name; });
    return it == modules.end() ? nullptr : *it;
  }
};

// Made on first use, since libraries announce from their static initialisers, which may
// run before this library's own; never destroyed, so that no announcement at exit finds
// it gone.
Registry& registry() {
  static Registry* const instance = new Registry;
  return *instance;
}

}  // namespace

void ModuleInspectData::loaded(const Kest::ModuleTypeData& module) {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  const Kest::ModuleTypeData* known = r.find(module.name());
  if (known == &module) return;
  VESK_ASSERT_MSG(known == nullptr, "module " << module.name() << " announced twice");
  r.modules.push_back(&module);
}

std::vector<const Kest::ModuleTypeData*> ModuleInspectData::modules() {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  return r.modules;
}

const Kest::ModuleTypeData* ModuleInspectData::module(std::string_view name) {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  return r.find(name);
}

}  // namespace Nimbo
