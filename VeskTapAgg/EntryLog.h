#pragma once

#include "Nimbo/Export.h"
#include "VeskTapAgg/TableEntryLog.h"

namespace VeskTapAgg {

// The named entry-log class of a table type, by its traits: NamedEntryLog<Traits>::Type.
template <class Traits>
struct NamedEntryLog;

// <T>EntryLog for every table type, with its factory: <t>EntryLogFactory and the static
// <T>EntryLogIs both make a new entry log, which mounts the table type's change log.
#define VESK_TAPAGG_DECLARE_ENTRY_LOG(Name, lower, ...)                            \
  extern template class VESK_EXPORT TableEntryLog<Name##Traits>;                   \
  class VESK_EXPORT Name##EntryLog final : public TableEntryLog<Name##Traits> {    \
   public:                                                                         \
    using TableEntryLog::TableEntryLog;                                            \
    static Nimbo::Ptr<Name##EntryLog> Name##EntryLogIs(                            \
        Asic::SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> em,              \
        Nimbo::Ptr<Asic::GroupInterface> groupInterface, Nimbo::String agentName); \
  };                                                                               \
  template <>                                                                      \
  struct NamedEntryLog<Name##Traits> {                                             \
    using Type = Name##EntryLog;                                                   \
  };                                                                               \
  VESK_EXPORT Nimbo::Ptr<Name##EntryLog> lower##EntryLogFactory(                   \
      Asic::SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> em,                \
      Nimbo::Ptr<Asic::GroupInterface> groupInterface, Nimbo::String agentName);
VESK_TAPAGG_TABLES(VESK_TAPAGG_DECLARE_ENTRY_LOG)
#undef VESK_TAPAGG_DECLARE_ENTRY_LOG

}  // namespace VeskTapAgg
