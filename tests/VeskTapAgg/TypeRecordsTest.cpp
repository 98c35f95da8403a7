// What the framework sees of every table type's classes through their type records: the
// modules and attribute lists of all ten types, and the dispatcher and walks on real
// tables and entry logs of the behaviour types.

#include <map>
#include <set>

#include "Kest/ModuleInspectData.h"
#include "VeskTapAgg/SwTableTestSupport.h"
#include "VeskTapAgg/TypeRecords.h"

namespace VeskTest {
namespace {

using Kest::InspectException;
using Kest::InspectOp;
using Kest::Value;
using Names = std::vector<std::string>;

Names namesOf(const Kest::TypeData& type) {
  Names names;
  for (const Kest::KestAttr& attr : type.attrs()) names.emplace_back(attr.name);
  return names;
}

Value read(const Nimbo::Ptr<Nimbo::Node>& object, std::string_view attr) {
  return Kest::inspectOperation(*object, attr, InspectOp::read);
}

const Nimbo::Node* objectIn(const Value& value) {
  return std::get<Nimbo::Ptr<Nimbo::Node>>(value).ptr();
}
const Nimbo::Ptr<Nimbo::Node>& nodeIn(const Value& value) {
  return std::get<Nimbo::Ptr<Nimbo::Node>>(value);
}

template <class Traits, class Kind>
const Kest::TypeData& record() {
  return VeskTapAgg::TypeRecord<Traits, Kind>::get();
}

template <class Traits>
class TypeRecordsTest : public ::testing::Test {
 protected:
  using Rig = SwTableRig<Traits>;
  static std::string name(const char* kind) { return std::string(Traits::tableName) + kind; }
  static const Kest::ModuleTypeData* module(const char* unit) {
    return Nimbo::ModuleInspectData::module(Kest::ModuleTypeData::nameOf(name(unit)));
  }
  // The text a walk or a read shows for a key.
  static Value keyText(uint32_t n) { return Nimbo::String(fmt::format("{}", Rig::key(n))); }

  TempShmRoot root;
};
TYPED_TEST_SUITE(TypeRecordsTest, AllTables);

template <class Traits>
class TypeRecordsBehaviourTest : public TypeRecordsTest<Traits> {};
TYPED_TEST_SUITE(TypeRecordsBehaviourTest, BehaviourTables);

TYPED_TEST(TypeRecordsTest, EveryClassAnswersWithTheRecordOfItsModule) {
  using Traits = TypeParam;
  typename TestFixture::Rig rig;
  auto handle = rig.write(1);
  auto wrapper = rig.table->transientAddEntry(rig.key(1));
  auto resolverEntry = Nimbo::make<VeskTapAgg::TableResolverEntry<Traits>>(
      nullptr, Asic::EntryFlags::write, rig.table.ptr(), wrapper);
  const std::vector<std::tuple<const Nimbo::Node*, const char*, const char*, Names>> classes = {
      {rig.table.ptr(),
       "SwTable",
       "SwTable",
       {"canonicalName",
        "clearTable",
        "doCreateHwTable",
        "entryHandleInLog",
        "entryLog",
        "entrys",
        "groupResolver",
        "handleInitialized",
        "hasPendingHwWrites",
        "restoreEntries",
        "stats",
        "swTableHelper",
        "swTableSet",
        "tableId",
        "tableStatusVersion",
        "transientAddEntry",
        "transientRemoveAllVersion",
        "transientRemoveEntry",
        "transientVersionForKey",
        "unitId"}},
      {handle.ptr(),
       "SwTable",
       "SwTable::EntryHandle",
       {"entryState", "entryVersion", "key", "logVersion", "swTable", "tableId", "tableName"}},
      {wrapper.ptr(),
       "InfraTypes",
       "EntryWrapper",
       {"entry", "entryHandle", "finalizeOnFailure", "finalizeOnSuccess", "key", "logEntry",
        "retrieveClientData", "setResolvedFields"}},
      {resolverEntry.ptr(),
       "InfraTypes",
       "ResolverEntry",
       {"dependency", "entryWrapper", "flags", "isEntryDeleted", "isResolved", "isTableDeleted",
        "swTable"}},
      {rig.table->swTableHelper().ptr(),
       "SwTableHelperBase",
       "SwTableHelperBase",
       {"finalizeOnFailure", "finalizeOnResourceUpdate", "finalizeOnSuccess"}},
      {&rig.agent.log(),
       "EntryLog",
       "EntryLog",
       {"agentName", "cleanupEntryLog", "cleanupMark", "entityManager", "entrys",
        "entrysInDeletion", "groupInterface", "mountShardConfig", "tableConfigShard",
        "tableEntryLog", "tableId", "tableVersion"}},
  };
  for (const auto& [object, unit, kind, attrs] : classes) {
    const Kest::TypeData* type = object->typeData();
    ASSERT_NE(type, nullptr) << kind;
    EXPECT_EQ(type, this->module(unit)->type(this->name(kind))) << kind;
    EXPECT_EQ(namesOf(*type), attrs) << kind;
  }
  // The hooks' arguments go by the names a client's override is written with.
  const auto argNames = [](const Kest::TypeData& type, std::string_view op) {
    const Kest::KestAttr& attr = type.attrOrThrow(op);
    return Names(attr.argNames.begin(), attr.argNames.begin() + attr.arity);
  };
  const Kest::TypeData& helper = *rig.table->swTableHelper()->typeData();
  EXPECT_EQ(argNames(helper, "finalizeOnSuccess"), (Names{"entry", "isDelete", "swTable"}));
  EXPECT_EQ(argNames(helper, "finalizeOnFailure"), (Names{"entry", "isDelete", "swTable"}));
  EXPECT_EQ(argNames(helper, "finalizeOnResourceUpdate"),
            (Names{"entry", "swTable", "someResourceHasFailed"}));
  const Kest::TypeData& interface = *this->module("Interface")->type(this->name("Interface"));
  EXPECT_EQ(argNames(interface, "makeSwTable"), (Names{"unitId", "swTableHelper", "clear"}));
  EXPECT_EQ(namesOf(interface),
            (Names{"agentName", "entityManager", "entryLog", "getIntf", "groupInterface",
                   "groupName", "handleInitialized", "makeSwTable", "onDelete", "ordTblIntf",
                   "orderedTableIntf", "reset", "swTableHelper", "swTableSet", "swTableStatus",
                   "tableId", "tableName", "tableNamespace", "unitId"}));
  EXPECT_EQ(&interface, &(record<Traits, VeskTapAgg::InterfaceKind>()))
      << "the record the interface class will return";
}

TYPED_TEST(TypeRecordsBehaviourTest, TheDispatcherReadsATableAndWalksItsPendingChanges) {
  using Traits = TypeParam;
  typename TestFixture::Rig rig;
  const Nimbo::Ptr<Nimbo::Node> table = rig.table;
  std::vector<typename TestFixture::Rig::Handle> handles;
  for (uint32_t n = 1; n <= 3; ++n) handles.push_back(rig.write(n, 0, "w" + std::to_string(n)));

  EXPECT_EQ(read(table, "tableId"), Value(uint64_t(Traits::tableId.value())));
  EXPECT_EQ(read(table, "unitId"), Value(uint64_t(0)));
  EXPECT_EQ(read(table, "canonicalName"),
            Value(Nimbo::String("VeskTapAgg.VeskTapAggGroup/VeskTapAgg/") + Traits::tableName));
  EXPECT_EQ(read(table, "entrys"), Value(uint64_t(3)));
  EXPECT_EQ(read(table, "hasPendingHwWrites"), Value(true));
  EXPECT_EQ(objectIn(read(table, "entryLog")), &rig.agent.log());

  // The walk visits the pending writes in the map's own order, each wrapper once.
  std::vector<std::pair<Value, const Nimbo::Node*>> expected, seen;
  for (const auto& [key, wrapper] : rig.table->transientAddEntrys()) {
    expected.emplace_back(Nimbo::String(fmt::format("{}", key)), wrapper.ptr());
  }
  for (auto it = Kest::genericIfIterator(table, "transientAddEntry"); it.iterNonnull();
       it.iterInc()) {
    seen.emplace_back(it.iterKey(), objectIn(it.iterObj()));
    const Nimbo::Ptr<Nimbo::Node> wrapper = nodeIn(it.iterObj());
    EXPECT_EQ(read(wrapper, "key"), it.iterKey());
    EXPECT_EQ(read(nodeIn(read(wrapper, "entryHandle")), "entryState"), Value(uint64_t(0)));
  }
  EXPECT_EQ(seen, expected);

  // Committed changes wait in entryHandleInLog, numbered from 1; the hardware side's
  // version, given through the dispatcher, answers the first two.
  rig.run();
  std::vector<Value> indices;
  std::vector<const Nimbo::Node*> queued;
  Nimbo::Ptr<Nimbo::Node> last;
  for (auto it = Kest::genericIfIterator(table, "entryHandleInLog"); it.iterNonnull();
       it.iterInc()) {
    indices.push_back(it.iterKey());
    last = nodeIn(it.iterObj());
    queued.push_back(last.ptr());
  }
  EXPECT_EQ(indices, (std::vector<Value>{uint64_t(1), uint64_t(2), uint64_t(3)}));
  EXPECT_EQ(queued, (std::vector<const Nimbo::Node*>{handles[0].ptr(), handles[1].ptr(),
                                                     handles[2].ptr()}));
  const Value two[] = {uint64_t(2)};
  EXPECT_EQ(Kest::inspectOperation(*table, "tableStatusVersion", InspectOp::call, two), Value());
  EXPECT_EQ(rig.answers, (std::vector<std::string>{"w1:4", "w2:4"}));
  EXPECT_EQ(read(table, "entryHandleInLog"), Value(uint64_t(1)));

  const Nimbo::Ptr<Nimbo::Node>& handle = last;
  EXPECT_EQ(read(handle, "key"), this->keyText(3));
  EXPECT_EQ(read(handle, "logVersion"), Value(uint64_t(3)));
  EXPECT_EQ(read(handle, "entryState"), Value(uint64_t(Asic::EntryState::inLog)));
  EXPECT_EQ(objectIn(read(handle, "swTable")), rig.table.ptr());
  EXPECT_EQ(read(handle, "tableName"), read(table, "canonicalName"));
}

TYPED_TEST(TypeRecordsBehaviourTest, TheDispatcherChangesATableOnlyThroughItsOwnOperations) {
  using Traits = TypeParam;
  typename TestFixture::Rig rig;
  const Nimbo::Ptr<Nimbo::Node> table = rig.table;
  const auto refusal = [&](std::string_view attr, InspectOp op, std::vector<Value> args) {
    try {
      Kest::inspectOperation(*table, attr, op, args);
    } catch (const InspectException& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  const std::string name = this->name("SwTable");

  // The framework makes a hook object itself and installs it.
  const Nimbo::Ptr<Nimbo::Node> helper =
      record<Traits, VeskTapAgg::SwTableHelperBaseKind>().genericIfConstructFromCtorArgs({});
  const Value helperValue[] = {helper};
  Kest::inspectOperation(*table, "swTableHelper", InspectOp::write, helperValue);
  EXPECT_EQ(static_cast<const Nimbo::Node*>(rig.table->swTableHelper().ptr()), helper.ptr());

  // Refusals name the class and the attribute, and change nothing (the dispatcher's other
  // refusals are the framework's own, checked on a class of its own).
  EXPECT_EQ(
      refusal("swTableHelper", InspectOp::write, {Nimbo::Ptr<Nimbo::Node>(&rig.agent.log())}),
      name + ".swTableHelper: an object of class " + this->name("EntryLog") + " does not fit here");
  EXPECT_EQ(static_cast<const Nimbo::Node*>(rig.table->swTableHelper().ptr()), helper.ptr());
  EXPECT_EQ(refusal("clearTable", InspectOp::call, {uint64_t(1)}),
            name + ".clearTable: expected a flag, got a number");

  // A walk deletes a pending write through the table's own delete; the rest stay.
  rig.write(1);
  rig.write(2);
  auto it = Kest::genericIfIterator(table, "transientAddEntry");
  const Value gone = it.iterKey();
  it.iterDel();
  ASSERT_TRUE(it.iterNonnull());
  EXPECT_NE(it.iterKey(), gone);
  EXPECT_EQ(rig.table->transientAddEntrys().size(), 1u);
  EXPECT_FALSE(rig.table->transientAddEntry(gone == this->keyText(1) ? rig.key(1) : rig.key(2)));
  EXPECT_THROW(Kest::genericIfIterator(table, "entryHandleInLog").iterDel(), InspectException)
      << "nothing empty to delete, and a waiting handle is never dropped";

  // An operation with an argument: clearing empties the committed configuration at once.
  rig.settle();
  EXPECT_EQ(read(table, "entrys"), Value(uint64_t(2)));
  const Value keepResources[] = {false};
  Kest::inspectOperation(*table, "clearTable", InspectOp::call, keepResources);
  EXPECT_EQ(read(table, "entrys"), Value(uint64_t(0)));
  EXPECT_EQ(read(table, "hasPendingHwWrites"), Value(true)) << "the hardware side has not taken it";
  rig.settle();
  EXPECT_EQ(read(table, "hasPendingHwWrites"), Value(false));
}

TYPED_TEST(TypeRecordsBehaviourTest, TheChangeObjectsShowTheirEntryAndTheirTable) {
  using Traits = TypeParam;
  typename TestFixture::Rig rig;
  auto handle = rig.write(4, 2);
  const Nimbo::Ptr<Nimbo::Node> wrapper = rig.table->transientAddEntry(rig.key(4));
  const Nimbo::Ptr<Nimbo::Node> resolverEntry = Nimbo::make<VeskTapAgg::TableResolverEntry<Traits>>(
      nullptr, Asic::EntryFlags::remove, rig.table.ptr(), rig.table->transientAddEntry(rig.key(4)));

  EXPECT_EQ(read(wrapper, "entry"), Value(Nimbo::String(fmt::format("{}", rig.entry(4, 2)))));
  EXPECT_EQ(read(wrapper, "logEntry"),
            Value(Nimbo::String(fmt::format("{}", VeskTapAgg::logEntryOf(rig.entry(4, 2))))));
  EXPECT_EQ(objectIn(read(wrapper, "entryHandle")), handle.ptr());
  EXPECT_EQ(read(nodeIn(read(wrapper, "entryHandle")), "entryVersion"),
            Value(Nimbo::String("0.0")));

  EXPECT_EQ(read(resolverEntry, "flags"), Value(uint64_t(Asic::EntryFlags::remove)));
  EXPECT_EQ(read(resolverEntry, "isEntryDeleted"), Value(true));
  EXPECT_EQ(read(resolverEntry, "dependency"), Value(Nimbo::Ptr<Nimbo::Node>()));
  EXPECT_EQ(objectIn(read(resolverEntry, "entryWrapper")), wrapper.ptr());
  EXPECT_EQ(objectIn(read(resolverEntry, "swTable")), rig.table.ptr());
  EXPECT_EQ(Kest::inspectOperation(*resolverEntry, "isResolved", InspectOp::call), Value(true))
      << "nothing to wait for";
}

TYPED_TEST(TypeRecordsBehaviourTest, TheEntryLogAnswersThroughItsRecord) {
  typename TestFixture::Rig rig;
  rig.write(1);
  rig.write(2);
  rig.settle();
  const Nimbo::Ptr<Nimbo::Node> log(&rig.agent.log());
  EXPECT_EQ(read(log, "tableVersion"), Value(uint64_t(2)));
  EXPECT_EQ(read(log, "cleanupMark"), Value(uint64_t(2))) << "the hardware side took both";
  EXPECT_EQ(read(log, "agentName"), Value(Nimbo::String(kTestAgent)));
  const Value unit0[] = {uint64_t(0)};
  EXPECT_EQ(Kest::inspectOperation(*log, "entrys", InspectOp::call, unit0), Value(uint64_t(2)));
  EXPECT_EQ(Kest::inspectOperation(*log, "entrysInDeletion", InspectOp::call, unit0),
            Value(uint64_t(0)));

  auto it = Kest::genericIfIterator(log, "tableConfigShard");
  ASSERT_TRUE(it.iterNonnull());
  EXPECT_EQ(it.iterKey(), Value(uint64_t(0)));
  EXPECT_EQ(objectIn(it.iterObj()), rig.agent.log().tableConfigShard(Asic::UnitId(0)).ptr());
  it.iterInc();
  EXPECT_FALSE(it.iterNonnull()) << "one unit mounted";
}

TYPED_TEST(TypeRecordsBehaviourTest, TheFrameworkWalksATableThroughItsStateAndReadsItsSnapshot) {
  using Traits = TypeParam;
  typename TestFixture::Rig rig;
  const auto text = [](const auto& value) { return fmt::format("{}", value); };
  const auto step = [](const Nimbo::Ptr<Nimbo::Node>& state) {
    const Value found = Kest::inspectOperation(*state, "maybeUpdateCurrentEntry", InspectOp::call);
    return std::string(std::get<Nimbo::String>(found));
  };
  const auto valid = [](const Nimbo::Ptr<Nimbo::Node>& state) {
    return (std::get<uint64_t>(read(state, "state")) & 1) != 0;
  };
  rig.write(1);
  rig.write(2);
  rig.settle();
  rig.write(3);  // pending, so the walk has both phases

  // A state the framework makes itself walks nothing.
  const Nimbo::Ptr<Nimbo::Node> empty =
      record<Traits, VeskTapAgg::SwTableIteratorStateKind>().genericIfConstructFromCtorArgs({});
  EXPECT_EQ(empty->typeData(), this->module("SwTable")->type(this->name("SwTableIteratorState")));
  EXPECT_EQ(read(empty, "swTable"), Value(Nimbo::Ptr<Nimbo::Node>()));
  EXPECT_EQ(step(empty), text(typename Traits::Entry{}));
  EXPECT_FALSE(valid(empty));

  // A table's state, stepped by the framework: the pending write, then the committed
  // entries, then the end with the valid flag clear.
  const Nimbo::Ptr<Nimbo::Node> state = rig.table->initIterState();
  EXPECT_EQ(objectIn(read(state, "swTable")), rig.table.ptr());
  EXPECT_EQ(step(state), text(rig.entry(3)));
  std::set<std::string> committed;
  for (int n = 0; n < 2; ++n) {
    EXPECT_TRUE(valid(state));
    committed.insert(step(state));
  }
  EXPECT_EQ(committed, (std::set<std::string>{text(rig.entry(1)), text(rig.entry(2))}));
  EXPECT_TRUE(valid(state));
  step(state);
  EXPECT_FALSE(valid(state)) << "the walk has ended";

  // The snapshot's collection walks as a map of key to entry; the framework may delete
  // from it or empty it, and the table stays as it was.
  const auto snapshot = rig.table->getTableEntries_py();
  const Nimbo::Ptr<Nimbo::Node> node = snapshot;
  EXPECT_EQ(node->typeData(),
            this->module("SwTable")->type(this->name("SwTable::SwTableEntries_py")));
  EXPECT_EQ(read(node, "tableEntries"), Value(uint64_t(3)));
  std::map<std::string, std::string> walked;
  for (auto it = Kest::genericIfIterator(node, "tableEntries"); it.iterNonnull(); it.iterInc()) {
    walked[std::string(std::get<Nimbo::String>(it.iterKey()))] =
        std::get<Nimbo::String>(it.iterObj());
  }
  std::map<std::string, std::string> expected;
  for (uint32_t n = 1; n <= 3; ++n) expected[text(rig.key(n))] = text(rig.entry(n));
  EXPECT_EQ(walked, expected);
  Kest::genericIfIterator(node, "tableEntries").iterDel();
  EXPECT_EQ(snapshot->tableEntriesSize(), 2u);
  Kest::inspectOperation(*node, "tableEntriesDelAll", InspectOp::call);
  EXPECT_EQ(snapshot->tableEntriesSize(), 0u);
  EXPECT_EQ(rig.table->entrys(), 3u);
}

}  // namespace
}  // namespace VeskTest
