#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Asic/OrderedSwTableSet.h"
#include "Asic/Publisher.h"
#include "Kest/Entity.h"

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
  EXPECT_EQ(recorder.seen,
            (std::vector<std::string>{"transientAddEntry[k1]", "transientRemoveAllVersion"}));
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
  PendingTable(Asic::UnitId unit, Asic::OrderedSwTableSet* set)
      : Asic::OrderedSwTable(
            Nimbo::make<Asic::CanonicalTableName>(Asic::CanonicalTableName::orderedTable,
                                                  "Agent.Group", "Ns", "Table"),
            set->tableId(), unit, set) {}
  void tableStatusVersion(Asic::LogVersion) override {}
  bool hasPendingHwWrites() const override { return pending; }
  bool pending = false;
};

TEST(OrderedSwTableSetTest, PendingHardwareWritesFollowTheTablesAndAnnounceFlips) {
  auto status = Nimbo::make<Asic::OrderedSwTableStatus>();
  Recorder recorder;
  status->publisher().observerIs(&recorder);
  auto set = Nimbo::make<Asic::OrderedSwTableSet>(Asic::SwTableId(7), status);
  Recorder setRecorder;
  set->publisher().observerIs(&setRecorder);
  auto a = Nimbo::make<PendingTable>(Asic::UnitId(3), set.ptr());
  auto b = Nimbo::make<PendingTable>(Asic::UnitId(4), set.ptr());
  set->swTableIs(a);
  set->swTableIs(b);
  set->swTableIs(b);
  EXPECT_EQ(set->swTable(Asic::UnitId(4)).ptr(), b.ptr());
  EXPECT_FALSE(set->swTableHas(Asic::UnitId(5)));
  EXPECT_EQ(a->path(), "Agent.Group/Ns/Table/3");
  EXPECT_EQ(setRecorder.seen, (std::vector<std::string>{"swTable[3]", "swTable[4]"}))
      << "entering the table a unit already has announces nothing";

  b->pending = true;
  set->maybeUpdatePendingHwWrites();
  EXPECT_TRUE(status->pendingHwWrites());
  a->pending = true;
  set->maybeUpdatePendingHwWrites();
  b->pending = false;
  set->maybeUpdatePendingHwWrites();
  EXPECT_TRUE(status->pendingHwWrites()) << "a still has some";
  set->swTableDel(Asic::UnitId(3));
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
  EXPECT_EQ(recorder.seen, std::vector<std::string>{"entryState"});
}

}  // namespace

namespace {

struct Counted : Kest::Entity {
  static inline int alive = 0;
  Counted() : Kest::Entity("Counted") { ++alive; }
  ~Counted() override { --alive; }
};

TEST(SingletonTest, OnePerTypeMadeOnceKeptUntilReleased) {
  const Kest::Entity::SingletonType type{
      "Counted", []() -> Nimbo::Ptr<Kest::Entity> { return Nimbo::make<Counted>(); }};
  EXPECT_FALSE(Kest::Entity::singletonExists("Counted"));
  Kest::Entity* first = Kest::Entity::singletonIs(type, 7).ptr();
  EXPECT_EQ(Kest::Entity::singletonIs(type, 1).ptr(), first);
  EXPECT_EQ(Kest::Entity::singletonExists("Counted").ptr(), first);
  EXPECT_EQ(Kest::Entity::singletonFlags("Counted"), 7u) << "the flags it was made with";
  EXPECT_EQ(Counted::alive, 1);
  Kest::Entity::singletonDel("Counted");
  EXPECT_EQ(Counted::alive, 0);
  EXPECT_FALSE(Kest::Entity::singletonExists("Counted"));
}

}  // namespace
