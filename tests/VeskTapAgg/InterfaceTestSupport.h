#pragma once

#include <csignal>

#include "Asic/MountNamespace.h"
#include "Asic/OrderedTableInterface.h"
#include "Asic/SwTableInterfacesSingleton.h"
#include "VeskTapAgg/Interface.h"
#include "VeskTapAgg/SwTableTestSupport.h"

namespace VeskTest {

constexpr const char* kGroup = "VeskTapAgg.VeskTapAggGroup";

// One agent process's view of a table type through the framework: its state database, its
// ordered-table interface and, once asked for, the type's interface.
template <class Traits>
struct InterfaceAgent {
  using Interface = VeskTapAgg::TableInterface<Traits>;
  using SwTable = VeskTapAgg::TableSwTable<Traits>;

  Nimbo::Ptr<Interface> intf() { return Interface::getIntf(orderedTableIntf); }
  Nimbo::Ptr<SwTable> table(uint16_t unit, bool clear = false) {
    return intf()->makeSwTable(Asic::UnitId(unit), nullptr, clear);
  }
  Nimbo::Ptr<Asic::GroupInterface> group() const {
    return orderedTableIntf->groupInterface(kGroup);
  }
  size_t run() { return group()->groupResolver()->runUntilIdle(); }
  // Writes keys [from, to) and commits them; returns the entry log's version.
  uint64_t writeAndCommit(uint16_t unit, uint32_t from, uint32_t to) {
    Nimbo::Ptr<SwTable> t = table(unit);
    for (uint32_t n = from; n < to; ++n) {
      t->entryWrite(SwTableRig<Traits>::key(n), SwTableRig<Traits>::entry(n), nullptr);
    }
    run();
    return intf()->entryLog()->tableVersion().value();
  }

  Nimbo::Ptr<Cairn::EntityManager> em = Nimbo::make<Cairn::EntityManager>(kTestAgent, true);
  Nimbo::Ptr<Asic::OrderedTableInterface> orderedTableIntf =
      Nimbo::make<Asic::OrderedTableInterface>(em);
};

// The hardware side, in a process of its own, records that it has taken `version` of the
// table type.
template <class Traits>
void hardwareTakes(uint64_t version) {
  const int status = inChild([&] {
    auto em = Nimbo::make<Cairn::EntityManager>(kTestAgent, true);
    Asic::TableVersionShard::mountWriter(Asic::mountEntityManager(*em), kGroup)
        ->tableVersionIs(Traits::tableId, Asic::LogVersion(version));
  });
  ASSERT_EQ(status, 0);
}

// An agent in a child process that writes and commits keys [0, count) on each of `units`
// and is then killed with SIGKILL: the log reaches version count * units.size().
template <class Traits>
void agentWritesAndIsKilled(std::initializer_list<uint16_t> units, uint32_t count) {
  const int status = inChild([&] {
    InterfaceAgent<Traits> agent;
    for (uint16_t unit : units) agent.writeAndCommit(unit, 0, count);
    ::raise(SIGKILL);
  });
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

}  // namespace VeskTest
