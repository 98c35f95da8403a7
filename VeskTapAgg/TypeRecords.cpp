#include "VeskTapAgg/TypeRecords-defs.h"

#include "Kest/ModuleInspectData.h"

namespace VeskTapAgg {

#define VESK_TAPAGG_DEFINE_TYPE_RECORDS(Name, ...)                    \
  template struct TypeRecord<Name##Traits, SwTableKind>;              \
  template struct TypeRecord<Name##Traits, EntryHandleKind>;          \
  template struct TypeRecord<Name##Traits, EntryWrapperKind>;         \
  template struct TypeRecord<Name##Traits, ResolverEntryKind>;        \
  template struct TypeRecord<Name##Traits, SwTableHelperBaseKind>;    \
  template struct TypeRecord<Name##Traits, EntryLogKind>;             \
  template struct TypeRecord<Name##Traits, InterfaceKind>;            \
  template struct TypeRecord<Name##Traits, SwTableIteratorStateKind>; \
  template struct TypeRecord<Name##Traits, SwTableEntriesKind>;
VESK_TAPAGG_TABLES(VESK_TAPAGG_DEFINE_TYPE_RECORDS)
#undef VESK_TAPAGG_DEFINE_TYPE_RECORDS

namespace {

// The module records of one table type's generated units, each listing the classes the
// unit defines, announced when the library is loaded. <T>ResourceTableLinkage defines no
// class and announces nothing. Loading builds the records and nothing else: no interface,
// entry log or table exists until the framework asks for one.
template <TableTraits Traits>
class TableModules {
 public:
  TableModules() {
    for (const Kest::ModuleTypeData* module :
         {&infraTypes_, &entryLog_, &interface_, &swTable_, &swTableHelperBase_}) {
      Nimbo::ModuleInspectData::loaded(*module);
    }
  }

 private:
  template <class... Kinds>
  static Kest::ModuleTypeData module(const char* unit) {
    return Kest::ModuleTypeData(Nimbo::String(Traits::tableName) + unit,
                                {&TypeRecord<Traits, Kinds>::get()...});
  }

  const Kest::ModuleTypeData infraTypes_ =
      module<EntryWrapperKind, ResolverEntryKind>("InfraTypes");
  const Kest::ModuleTypeData entryLog_ = module<EntryLogKind>("EntryLog");
  const Kest::ModuleTypeData interface_ = module<InterfaceKind>("Interface");
  const Kest::ModuleTypeData swTable_ =
      module<SwTableKind, EntryHandleKind, SwTableEntriesKind, SwTableIteratorStateKind>("SwTable");
  const Kest::ModuleTypeData swTableHelperBase_ =
      module<SwTableHelperBaseKind>("SwTableHelperBase");
};

#define VESK_TAPAGG_ANNOUNCE_MODULES(Name, ...) const TableModules<Name##Traits> Name##Modules;
VESK_TAPAGG_TABLES(VESK_TAPAGG_ANNOUNCE_MODULES)
#undef VESK_TAPAGG_ANNOUNCE_MODULES

}  // namespace
}  // namespace VeskTapAgg
