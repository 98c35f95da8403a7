#include "VeskTapAgg/EntryLog.h"

#include "VeskTapAgg/TableEntryLog-defs.h"

namespace VeskTapAgg {

#define VESK_TAPAGG_DEFINE_ENTRY_LOG(Name, lower, ...)                                         \
  template class TableEntryLog<Name##Traits>;                                                  \
  Nimbo::Ptr<Name##EntryLog> Name##EntryLog::Name##EntryLogIs(                                 \
      Asic::SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> em,                            \
      Nimbo::Ptr<Asic::GroupInterface> groupInterface, Nimbo::String agentName) {              \
    return Nimbo::make<Name##EntryLog>(tableId, std::move(em), std::move(groupInterface),      \
                                       std::move(agentName));                                  \
  }                                                                                            \
  Nimbo::Ptr<Name##EntryLog> lower##EntryLogFactory(                                           \
      Asic::SwTableId tableId, Nimbo::Ptr<Cairn::EntityManager> em,                            \
      Nimbo::Ptr<Asic::GroupInterface> groupInterface, Nimbo::String agentName) {              \
    return Name##EntryLog::Name##EntryLogIs(tableId, std::move(em), std::move(groupInterface), \
                                            std::move(agentName));                             \
  }
VESK_TAPAGG_TABLES(VESK_TAPAGG_DEFINE_ENTRY_LOG)
#undef VESK_TAPAGG_DEFINE_ENTRY_LOG

}  // namespace VeskTapAgg
