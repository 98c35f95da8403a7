#include "tools/agent/TableDriver.h"

#include <map>

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
        table.entryRemoveAllWithResponseHandler(nullptr, handler);
        break;
    }
  }

  void hardwareTook(Asic::LogVersion version) override {
    for (auto& [unit, table] : tables_) table->tableStatusVersion(version);
  }

  uint64_t committed() const override {
    uint64_t sum = 0;
    for (const auto& [unit, table] : tables_) sum += table->stats().commitCnt();
    return sum;
  }

  bool readsAs(uint16_t unit, uint32_t key, const uint16_t* variant) const override {
    const auto read = tables_.at(unit)->entryRead(keyOf<Traits>(key));
    if (!variant) return read == typename Traits::Entry{};
    return read == VeskTapAgg::entryOf(logEntryOf<Traits>(key, *variant));
  }

 private:
  Nimbo::Ptr<Interface> intf_;
  std::map<uint16_t, Nimbo::Ptr<SwTable>> tables_;
};

}  // namespace

std::unique_ptr<TableDriver> tableDriverFor(size_t tableIndex) {
  return withTable(tableIndex, []<class Traits>() -> std::unique_ptr<TableDriver> {
    return std::make_unique<TableDriverOf<Traits>>();
  });
}

}  // namespace VeskTool
