#include "Kest/ModuleInspectData.h"
#include "types/RecordSchema-defs.h"
#include "types/TableTypes.h"

namespace VeskTapAgg {

#define VESK_TAPAGG_RECORD_TYPE(Record) \
  template VESK_EXPORT const Kest::RecordType& typeRecordOf<Record>();
VESK_TAPAGG_SHARED_RECORDS(VESK_TAPAGG_RECORD_TYPE)
#define VESK_TAPAGG_TABLE_RECORD_TYPES(Name, ...) \
  VESK_TAPAGG_RECORDS_OF(Name, VESK_TAPAGG_RECORD_TYPE)
VESK_TAPAGG_TABLES(VESK_TAPAGG_TABLE_RECORD_TYPES)
#undef VESK_TAPAGG_TABLE_RECORD_TYPES

namespace {

// The module records of the types library, announced when it is loaded: one per table
// type ("<T>Records") listing its six records, and "TcamRecords" with the records they
// share (the match fields and the action).
#define VESK_TAPAGG_LIST_RECORD(Record) &typeRecordOf<Record>(),
const Kest::ModuleTypeData& sharedModule() {
  static const Kest::ModuleTypeData module("TcamRecords", {},
                                           {VESK_TAPAGG_SHARED_RECORDS(VESK_TAPAGG_LIST_RECORD)});
  return module;
}

template <TableTraits Traits>
struct TableRecordModule {
  TableRecordModule() { Nimbo::ModuleInspectData::loaded(module); }
  const Kest::ModuleTypeData module{
      Nimbo::String(Traits::tableName) + "Records",
      {},
      {&typeRecordOf<typename Traits::EntryKey>(), &typeRecordOf<typename Traits::Entry>(),
       &typeRecordOf<typename Traits::LogEntry>(), &typeRecordOf<typename Traits::ResourceKeys>(),
       &typeRecordOf<typename Traits::ConfigShardEntry>(),
       &typeRecordOf<typename Traits::LogShardEntry>()}};
};

const bool kSharedModuleAnnounced = (Nimbo::ModuleInspectData::loaded(sharedModule()), true);
#define VESK_TAPAGG_ANNOUNCE_RECORDS(Name, ...) \
  const TableRecordModule<Name##Traits> Name##RecordModule;
VESK_TAPAGG_TABLES(VESK_TAPAGG_ANNOUNCE_RECORDS)
#undef VESK_TAPAGG_ANNOUNCE_RECORDS

}  // namespace
}  // namespace VeskTapAgg
