#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "Asic/OrderedTableInterface.h"
#include "Asic/SwTableStats.h"
#include "tools/core/Records.h"
#include "tools/core/Workload.h"

namespace VeskTool {

// What the agent does with one table type, whatever its records: make its units' tables,
// apply a workload change to one, pass on what the hardware side has taken, read back.
// Made per table type by tableDriverFor(); owned by the agent; its event thread only.
class TableDriver {
 public:
  // Told once per change, by the number the agent gave it, whether it was confirmed (else
  // it failed). A number rather than a callback per change: the table's response handler
  // then holds two words and is stored without an allocation.
  class Answers {
   public:
    virtual ~Answers() = default;
    virtual void answered(uint64_t change, bool confirmed) = 0;
  };

  virtual ~TableDriver() = default;
  virtual Asic::SwTableId tableId() const = 0;
  // getIntf, then makeSwTable of every unit; returns the entries the tables hold.
  virtual uint64_t makeTables(const Nimbo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf,
                              const std::vector<uint16_t>& units, bool clear) = 0;
  // Applies change number `change`; its answer goes to `answers`, which outlives it.
  virtual void apply(const Change& change, uint64_t number, Answers& answers) = 0;
  // The hardware side has taken every change up to `version`: answers what it confirms.
  virtual void hardwareTook(Asic::LogVersion version) = 0;
  // Answers the remove-alls that are committed and in the log at or below `taken`. Called at
  // every look at the hardware side, not only when it moves: a remove-all of a unit that
  // holds nothing logs nothing, so no version the hardware side takes may follow it.
  virtual void answerRemoveAlls(Asic::LogVersion taken) = 0;
  virtual uint64_t committed() const = 0;
  // The statistics of each unit's table.
  virtual void forEachUnitStats(
      const std::function<void(uint16_t unit, const Asic::SwTableStats& stats)>& visit) const = 0;
  // The newest version committed to the table type's change log, and the records it holds.
  virtual Asic::LogVersion logVersion() const = 0;
  virtual uint64_t logRecords() const = 0;
  // Records the change log holds at most; a change waits uncommitted while it is full.
  virtual uint64_t logCapacity() const = 0;
  // Whether a client reading key `key` of `unit` gets the entry of `variant` (null: none).
  virtual bool readsAs(uint16_t unit, uint32_t key, const uint16_t* variant) const = 0;
};

std::unique_ptr<TableDriver> tableDriverFor(size_t tableIndex);

}  // namespace VeskTool
