#include "tools/agent/TableDriver.h"

#include <map>

#include "Asic/MajorVersion.h"
#include "OrderedTable/OrderedSwTableAccessor.h"
#include "VeskTapAgg/Interface.h"
#include "tools/core/TableDispatch.h"

namespace VeskTool {
namespace {

template <class Traits>
class TableDriverOf final : public TableDriver {
  using Interface = VeskTapAgg::TableInterface<Traits>;
  using SwTable = VeskTapAgg::TableSwTable<Traits>;
  using Handle = Nimbo::Ptr<const Asic::OrderedSwTable::EntryHandle>;

 public:
  Asic::SwTableId tableId() const override { return Traits::tableId; }

  uint64_t makeTables(const Nimbo::Ptr<Asic::OrderedTableInterface>& orderedTableIntf,
                      const std::vector<uint16_t>& units, bool clear) override {
    intf_ = Interface::getIntf(orderedTableIntf);
    uint64_t entries = 0;
    for (uint16_t unit : units) {
      auto table = intf_->makeSwTable(Asic::UnitId(unit), nullptr, clear);
      entries += table->entrys();
      tables_[unit] = table;
    }
    return entries;
  }

  void apply(const Change& c, uint64_t number, Answers& answers) override {
    SwTable& table = *tables_.at(c.unit);
    auto handler = [&answers, number](const Handle& handle) {
      answers.answered(number, handle->entryState() == Asic::EntryState::done);
    };
    switch (c.kind) {
      case ChangeKind::write: {
        const auto logEntry = logEntryOf<Traits>(c.key, c.variant);
        table.entryWriteWithResponseHandler(logEntry.entryKey, VeskTapAgg::entryOf(logEntry),
                                            nullptr, handler);
        break;
      }
      case ChangeKind::remove:
        table.entryRemoveWithResponseHandler(keyOf<Traits>(c.key), nullptr, handler);
        break;
      case ChangeKind::removeAll:
        table.entryRemoveAllWithResponseHandler(nullptr, handler);  // answers a failure only
        removeAlls_[c.unit].pending.push_back({number, &answers});
        ++waitingRemoveAlls_;
        break;
    }
  }

  void hardwareTook(Asic::LogVersion version) override {
    for (auto& [unit, table] : tables_) table->tableStatusVersion(version);
  }

  void answerRemoveAlls(Asic::LogVersion taken) override {
    if (waitingRemoveAlls_ == 0) return;
    for (auto& [unit, removeAlls] : removeAlls_) {
      if (!tables_.at(unit)->transientRemoveAllVersion().valid())
        removeAlls.logged(logVersion().value());
      waitingRemoveAlls_ -= removeAlls.answerTakenUpTo(taken.value());
    }
  }

  uint64_t committed() const override {
    uint64_t sum = 0;
    for (const auto& [unit, table] : tables_) sum += table->stats().commitCnt();
    return sum;
  }

  void forEachUnitStats(
      const std::function<void(uint16_t, const Asic::SwTableStats&)>& visit) const override {
    for (const auto& [unit, table] : tables_) visit(unit, table->stats());
  }

  Asic::LogVersion logVersion() const override { return intf_->entryLog()->tableVersion(); }
  uint64_t logRecords() const override {
    return intf_->entryLog()->tableEntryLog()->entryLogConfigSize();
  }
  uint64_t logCapacity() const override {
    return Asic::OrderedSwTableAccessor<SwTable>::kChangeLogFull;
  }

  bool readsAs(uint16_t unit, uint32_t key, const uint16_t* variant) const override {
    const auto read = tables_.at(unit)->entryRead(keyOf<Traits>(key));
    if (!variant) return read == typename Traits::Entry{};
    return read == VeskTapAgg::entryOf(logEntryOf<Traits>(key, *variant));
  }

 private:
  // A remove-all's handle is never answered when it succeeds and is not handed to the
  // client, so the agent answers it itself: once the unit has no remove-all pending, every
  // earlier one is in the log at or below the log's current version, and it is confirmed
  // when the hardware side has taken that version (possibly a little later than it could
  // have been, never earlier; at once when it logged nothing and the hardware side had
  // taken everything before it, or nothing was ever logged).
  struct RemoveAlls {
    struct Waiting {
      uint64_t number;
      Answers* answers;
      uint64_t version = 0;
    };
    std::vector<Waiting> pending, inLog;

    void logged(uint64_t logVersion) {
      for (Waiting& w : pending) inLog.push_back({w.number, w.answers, logVersion});
      pending.clear();
    }
    // Returns how many it answered.
    size_t answerTakenUpTo(uint64_t taken) {
      return std::erase_if(inLog, [&](const Waiting& w) {
        if (w.version > taken) return false;
        w.answers->answered(w.number, true);
        return true;
      });
    }
  };

  Nimbo::Ptr<Interface> intf_;
  std::map<uint16_t, Nimbo::Ptr<SwTable>> tables_;
  std::map<uint16_t, RemoveAlls> removeAlls_;
  size_t waitingRemoveAlls_ = 0;  // pending or in the log, not yet answered
};

}  // namespace

std::unique_ptr<TableDriver> tableDriverFor(size_t tableIndex) {
  return withTable(tableIndex, []<class Traits>() -> std::unique_ptr<TableDriver> {
    return std::make_unique<TableDriverOf<Traits>>();
  });
}

}  // namespace VeskTool
