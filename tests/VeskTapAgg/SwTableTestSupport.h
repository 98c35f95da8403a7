#pragma once

#include <string>
#include <vector>

#include "VeskTapAgg/EntryLogTestSupport.h"
#include "VeskTapAgg/SwTable.h"

namespace VeskTest {

// One unit's software table of a table type with everything it runs on: the entry log
// with the unit mounted, the group resolver (stepped by hand: run()), and the unit's table
// set. hw(v) plays the hardware side reporting the version it has taken.
template <class Traits>
class SwTableRig {
 public:
  using SwTable = VeskTapAgg::TableSwTable<Traits>;
  using EntryKey = typename Traits::EntryKey;
  using Entry = typename Traits::Entry;
  using Handle = typename SwTable::EntryHandle::PtrConst;

  explicit SwTableRig(Asic::UnitId unit = Asic::UnitId(0)) {
    agent.mounted(unit);
    set = Nimbo::make<Asic::OrderedSwTableSet>(Traits::tableId, status);
    table =
        Nimbo::make<SwTable>(Nimbo::make<Asic::CanonicalTableName>(
                                 Asic::CanonicalTableName::orderedTable,
                                 "VeskTapAgg.VeskTapAggGroup", "VeskTapAgg", Traits::tableName),
                             Traits::tableId, unit, set.ptr(),
                             Nimbo::Ptr<VeskTapAgg::TableEntryLog<Traits>>(&agent.log()), resolver);
    set->swTableIs(table);
  }

  static EntryKey key(uint32_t n) { return EntryLogAgent<Traits>::key(n); }
  static Entry entry(uint32_t n, uint16_t variant = 0) {
    return VeskTapAgg::entryOf(EntryLogAgent<Traits>::entry(n, variant));
  }
  // A response handler that records the state each handle is answered with.
  typename SwTable::ResponseHandler recorder(const std::string& name) {
    return [this, name](const Nimbo::Ptr<const Asic::OrderedSwTable::EntryHandle>& h) {
      answers.push_back(name + ":" + std::to_string(int(h->entryState())));
    };
  }
  Handle write(uint32_t n, uint16_t variant = 0, const std::string& name = {},
               Nimbo::Ptr<const Asic::DependencyEntryHandle> dependency = nullptr) {
    return table->entryWriteWithResponseHandler(key(n), entry(n, variant), dependency,
                                                name.empty() ? nullptr : recorder(name));
  }
  Handle remove(uint32_t n, const std::string& name = {}) {
    return table->entryRemoveWithResponseHandler(key(n), nullptr,
                                                 name.empty() ? nullptr : recorder(name));
  }
  size_t run() { return resolver->runUntilIdle(); }
  void hw(uint64_t version) { table->tableStatusVersion(Asic::LogVersion(version)); }
  // Commits everything and lets the hardware side take it.
  void settle() {
    run();
    hw(agent.log().tableVersion().value());
  }

  EntryLogAgent<Traits> agent;
  Nimbo::Ptr<Asic::GroupResolver> resolver = Nimbo::make<Asic::GroupResolver>();
  Nimbo::Ptr<Asic::OrderedSwTableStatus> status = Nimbo::make<Asic::OrderedSwTableStatus>();
  Nimbo::Ptr<Asic::OrderedSwTableSet> set;
  Nimbo::Ptr<SwTable> table;
  std::vector<std::string> answers;
};

}  // namespace VeskTest
