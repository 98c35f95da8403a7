#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Asic/OrderedSwTableSet.h"
#include "Asic/Publisher.h"

namespace {

struct Recorder : Asic::AttributeObserver {
  std::vector<std::string> seen;
  void onAttributeChange(std::string_view attribute, const std::string& key) override {
    seen.push_back(std::string(attribute) + (key.empty() ? "" : "[" + key + "]"));
  }
};

TEST(PublisherTest, AnnouncesOnlyToListenersAndFormatsOnlyForThem) {
  Asic::Publisher publisher;
  int formatted = 0;
  auto key = [&] {
    ++formatted;
    return std::string("k1");
  };
  publisher.announce("transientAddEntry", key);
  EXPECT_EQ(formatted, 0);

  Recorder recorder;
  publisher.observerIs(&recorder);
  publisher.observerIs(&recorder);
  publisher.announce("transientAddEntry", key);
  publisher.announce("transientRemoveAllVersion");
  EXPECT_EQ(recorder.seen, (std::vector<std::string>{"transientAddEntry[k1]", "transientRemoveAllVersion"}));
  EXPECT_EQ(formatted, 1);

  publisher.mutedIs(true);
  publisher.announce("transientAddEntry", key);
  publisher.mutedIs(false);
  publisher.observerDel(&recorder);
  publisher.announce("transientAddEntry", key);
  EXPECT_EQ(recorder.seen.size(), 2u);
}

// An ordered table reduced to what its set asks of it.
class PendingTable : public Asic::OrderedSwTable {
 public:
  PendingTable(Asic::SwTableId id, Asic::OrderedSwTableSet* set)
      : Asic::OrderedSwTable(
            Nimbo::make<Asic::CanonicalTableName>(Asic::CanonicalTableName::orderedTable,
                                                  "Agent.Group", "Ns", "Table"),
            id, Asic::UnitId(3), set) {}
  void tableStatusVersion(Asic::LogVersion) override {}
  bool hasPendingHwWrites() const override { return pending; }
  bool pending = false;
};

TEST(OrderedSwTableSetTest, PendingHardwareWritesFollowTheTablesAndAnnounceFlips) {
  auto status = Nimbo::make<Asic::OrderedSwTableStatus>();
  Recorder recorder;
  status->publisher().observerIs(&recorder);
  auto set = Nimbo::make<Asic::OrderedSwTableSet>(Asic::UnitId(3), status);
  auto a = Nimbo::make<PendingTable>(Asic::SwTableId(1), set.ptr());
  auto b = Nimbo::make<PendingTable>(Asic::SwTableId(2), set.ptr());
  set->swTableIs(a);
  set->swTableIs(b);
  EXPECT_EQ(set->swTable(Asic::SwTableId(2)).ptr(), b.ptr());
  EXPECT_EQ(a->path(), "Agent.Group/Ns/Table/3");

  b->pending = true;
  set->maybeUpdatePendingHwWrites();
  EXPECT_TRUE(status->pendingHwWrites());
  a->pending = true;
  set->maybeUpdatePendingHwWrites();
  b->pending = false;
  set->maybeUpdatePendingHwWrites();
  EXPECT_TRUE(status->pendingHwWrites()) << "a still has some";
  set->swTableDel(Asic::SwTableId(1));
  set->maybeUpdatePendingHwWrites();
  EXPECT_FALSE(status->pendingHwWrites());
  EXPECT_EQ(recorder.seen, (std::vector<std::string>{"pendingHwWrites", "pendingHwWrites"}));
}

TEST(EntryHandleTest, AnnouncesStateChangesOnly) {
  struct Handle : Asic::OrderedSwTable::EntryHandle {
    using EntryHandle::EntryHandle;
    Asic::SwTableId tableId() const override { return Asic::SwTableId(1); }
    Nimbo::String tableName() const override { return "t"; }
  };
  auto handle = Nimbo::make<Handle>(Asic::EntryVersion::first());
  Recorder recorder;
  handle->publisher().observerIs(&recorder);
  handle->entryStateIs(Asic::EntryState::created);
  handle->entryStateIs(Asic::EntryState::inLog);
  handle->logVersionIs(Asic::LogVersion(7));
  EXPECT_EQ(handle->entryState(), Asic::EntryState::inLog);
  EXPECT_EQ(handle->logVersion(), Asic::LogVersion(7));
  EXPECT_EQ(handle->entryVersion(), Asic::EntryVersion::first());
  EXPECT_EQ(recorder.seen, std::vector<std::string>{"entryState"});
}

}  // namespace
