#pragma once

#include "Asic/CanonicalTableName.h"
#include "Asic/EntryState.h"
#include "Asic/OrderedSwTableStatus.h"
#include "Asic/Publisher.h"
#include "Asic/SwTableId.h"
#include "Asic/SwTableStats.h"
#include "Asic/UnitId.h"
#include "Kest/Entity.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace Asic {

class OrderedSwTableSet;

// What every software table is: the mirror of one hardware table on one unit, named by its
// canonical name and table id, belonging to its unit's table set (a plain back pointer:
// the set outlives its tables), counting what it does in its stats and announcing changes
// of its attributes through its publisher. The tables of one type share one status, the
// one their set reports to. Its entity path is "<canonical name>/<unit>".
// Shared by reference count; single-threaded: the agent's event thread.
class VESK_EXPORT SwTableBase : public Kest::Entity {
 public:
  using EntryState = Asic::EntryState;

  // What a client holds for one change: the change's state, announced as "entryState"
  // when it moves.
  class VESK_EXPORT EntryHandle : public Nimbo::Node {
   public:
    EntryState entryState() const noexcept { return entryState_; }
    void entryStateIs(EntryState state);
    Publisher& publisher() const noexcept { return publisher_; }

   private:
    EntryState entryState_ = EntryState::created;
    mutable Publisher publisher_;
  };

  SwTableBase(Nimbo::Ptr<const CanonicalTableName> name, SwTableId tableId, UnitId unitId,
              OrderedSwTableSet* swTableSet);

  const Nimbo::Ptr<const CanonicalTableName>& canonicalName() const noexcept { return name_; }
  SwTableId tableId() const noexcept { return tableId_; }
  UnitId unitId() const noexcept { return unitId_; }
  OrderedSwTableSet* swTableSet() const noexcept { return swTableSet_; }
  SwTableStats& stats() const noexcept { return *stats_; }
  const Nimbo::Ptr<SwTableStats>& statsPtr() const noexcept { return stats_; }
  // Starts the table's counters afresh.
  void statsIs() { stats_ = Nimbo::make<SwTableStats>(); }
  Publisher& publisher() const noexcept { return publisher_; }
  const Nimbo::Ptr<OrderedSwTableStatus>& status() const noexcept { return status_; }
  void statusIs(const Nimbo::Ptr<OrderedSwTableStatus>& status);

  // Makes the hardware side's table; software-only tables do nothing.
  virtual void doCreateHwTable() {}

 private:
  Nimbo::Ptr<const CanonicalTableName> name_;
  SwTableId tableId_;
  UnitId unitId_;
  OrderedSwTableSet* swTableSet_;
  Nimbo::Ptr<SwTableStats> stats_;
  Nimbo::Ptr<OrderedSwTableStatus> status_;
  mutable Publisher publisher_;
};

}  // namespace Asic
