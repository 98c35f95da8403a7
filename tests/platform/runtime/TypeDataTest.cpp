// The framework's view of a class through its type record: listing, the dispatcher,
// walks over collections and construction, on a small class of its own.

#include <gtest/gtest.h>

#include "Kest/AttrMakers.h"
#include "Kest/HashMap.h"
#include "Nimbo/RQueue.h"

namespace {

using Kest::InspectException;
using Kest::InspectOp;
using Kest::Value;

struct Port : Nimbo::Node {
  explicit Port(uint16_t number) : number(number) {}
  const Kest::TypeData* typeData() const override;
  uint16_t number;
};

// A small switch: a name, a speed that may be changed, a back pointer, ports by number
// (deletable), a queue of pending ports, and operations.
struct Switch : Nimbo::Node {
  const Kest::TypeData* typeData() const override;
  Nimbo::String name = "leaf1";
  uint32_t speed = 100;
  Switch* peer = nullptr;
  Kest::HashMap2018<uint32_t, Nimbo::Ptr<Port>> ports{0x1234u};
  Nimbo::RQueue<Nimbo::Ptr<Port>> pending;
  bool resetDone = false;

  void portIs(uint16_t number) { ports.insertOrReplace(number, Nimbo::make<Port>(number)); }
};

const Kest::TypeData& portRecord() {
  using Self = Port;
  static const Kest::TypeData record = Kest::makeTypeData<Self>(
      "Port", {Kest::attrValue<Self>("number", [](const Self& p) { return p.number; })},
      [](uint16_t number) { return Nimbo::make<Port>(number); });
  return record;
}
const Kest::TypeData* Port::typeData() const { return &portRecord(); }

const Kest::TypeData& switchRecord() {
  using Self = Switch;
  static const Kest::TypeData record = Kest::makeTypeData<Self>(
      "Switch", {
                    Kest::attrValue<Self>(
                        "speed", [](const Self& s) { return s.speed; },
                        [](Self& s, uint32_t speed) { s.speed = speed; }),
                    Kest::attrValue<Self>(
                        "name", [](const Self& s) -> const Nimbo::String& { return s.name; }),
                    Kest::attrValue<Self>("peer", [](const Self& s) { return s.peer; }),
                    Kest::attrCollection<Self>(
                        "port", [](const Self& s) -> const auto& { return s.ports; },
                        [](Self& s, uint32_t number) { s.ports.erase(number); }),
                    Kest::attrQueue<Self>(
                        "pending", [](const Self& s) -> const auto& { return s.pending; }),
                    Kest::attrOperation<Self>("reset", [](Self& s) { s.resetDone = true; }),
                    Kest::attrOperation<Self>("portIs", [](Self& s, uint16_t n) { s.portIs(n); }),
                    Kest::attrOperation<Self>(
                        "portHas", [](const Self& s, uint32_t n) { return s.ports.contains(n); }),
                    Kest::attrOperation<Self>("portFirst",
                                              [](const Self& s, const Nimbo::Ptr<Port>& fallback) {
                                                return s.ports.empty() ? fallback
                                                                       : s.ports.begin()->second;
                                              }),
                    Kest::attrDeclared("uplink", Kest::AttrKind::pointer),
                });
  return record;
}
const Kest::TypeData* Switch::typeData() const { return &switchRecord(); }

std::vector<std::string> namesOf(const Kest::TypeData& type) {
  std::vector<std::string> names;
  for (const Kest::KestAttr& attr : type.attrs()) names.emplace_back(attr.name);
  return names;
}

TEST(TypeData, ListsAttributesByNameInByteOrderWithTheirKinds) {
  const Kest::TypeData& type = switchRecord();
  EXPECT_EQ(type.name(), "Switch");
  EXPECT_EQ(namesOf(type),
            (std::vector<std::string>{"name", "peer", "pending", "port", "portFirst", "portHas",
                                      "portIs", "reset", "speed", "uplink"}));
  EXPECT_EQ(type.attr("peer")->kind, Kest::AttrKind::pointer) << "a back pointer is a reference";
  EXPECT_EQ(type.attr("speed")->kind, Kest::AttrKind::value);
  EXPECT_EQ(type.attr("pending")->kind, Kest::AttrKind::collection);
  EXPECT_EQ(type.attr("portIs")->kind, Kest::AttrKind::operation);
  EXPECT_EQ(type.attr("portIs")->arity, 1);
  EXPECT_EQ(type.attr("reset")->arity, 0);
  EXPECT_EQ(type.attr("por"), nullptr);
  EXPECT_EQ(type.attr("portz"), nullptr);
}

TEST(TypeData, TwoAttributesOfOneNameStopTheProcess) {
  EXPECT_DEATH(Kest::TypeData("Twice", {Kest::attrDeclared("a", Kest::AttrKind::value),
                                        Kest::attrDeclared("a", Kest::AttrKind::pointer)}),
               "Twice.a");
}

TEST(TypeData, ReadsWritesAndCallsByName) {
  // Held by reference count like every inspected object: a read of the back pointer
  // hands out a counted reference.
  auto held = Nimbo::make<Switch>();
  auto other = Nimbo::make<Switch>();
  Switch& sw = *held;
  sw.peer = other.ptr();
  EXPECT_EQ(Kest::inspectOperation(sw, "speed", InspectOp::read), Value(uint64_t(100)));
  EXPECT_EQ(Kest::inspectOperation(sw, "name", InspectOp::read), Value(Nimbo::String("leaf1")));
  const Value peer = Kest::inspectOperation(sw, "peer", InspectOp::read);
  EXPECT_EQ(std::get<Nimbo::Ptr<Nimbo::Node>>(peer).ptr(), other.ptr());

  const Value speed[] = {uint64_t(400)};
  EXPECT_EQ(Kest::inspectOperation(sw, "speed", InspectOp::write, speed), Value());
  EXPECT_EQ(sw.speed, 400u);

  EXPECT_EQ(Kest::inspectOperation(sw, "reset", InspectOp::call), Value());
  EXPECT_TRUE(sw.resetDone);
  const Value seven[] = {uint64_t(7)};
  Kest::inspectOperation(sw, "portIs", InspectOp::call, seven);
  EXPECT_TRUE(sw.ports.contains(7));
  EXPECT_EQ(Kest::inspectOperation(sw, "portHas", InspectOp::call, seven), Value(true));
  EXPECT_EQ(Kest::inspectOperation(sw, "port", InspectOp::read), Value(uint64_t(1)))
      << "reading a collection counts it";
  EXPECT_EQ(Kest::formatValue(Kest::inspectOperation(sw, "portFirst", InspectOp::call,
                                                     std::vector<Value>{Value()})),
            "<Port>");
}

// Every refusal names the class and the attribute and leaves the object as it was.
TEST(TypeData, RefusesWhatAnAttributeDoesNotSupportAndChangesNothing) {
  auto held = Nimbo::make<Switch>();
  Switch& sw = *held;
  try {
    Kest::inspectOperation(sw, "sped", InspectOp::read);
    FAIL() << "an unknown name was read";
  } catch (const Kest::UnknownAttributeException& e) {
    EXPECT_STREQ(e.what(), "Switch has no attribute \"sped\"");
    EXPECT_EQ(e.className(), "Switch");
    EXPECT_EQ(e.attrName(), "sped");
  }
  const auto refusal = [&](std::string_view attr, InspectOp op, std::vector<Value> args) {
    try {
      Kest::inspectOperation(sw, attr, op, args);
    } catch (const InspectException& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ(refusal("name", InspectOp::write, {Nimbo::String("x")}),
            "Switch.name: cannot be written (value)");
  EXPECT_EQ(refusal("reset", InspectOp::read, {}), "Switch.reset: cannot be read (operation)");
  EXPECT_EQ(refusal("speed", InspectOp::call, {}), "Switch.speed: cannot be called (value)");
  EXPECT_EQ(refusal("uplink", InspectOp::read, {}),
            "Switch.uplink: cannot be read (declared, not bound)");
  EXPECT_EQ(refusal("portIs", InspectOp::call, {}), "Switch.portIs: takes 1 argument(s), got 0");
  EXPECT_EQ(refusal("speed", InspectOp::write, {}), "Switch.speed: takes 1 argument(s), got 0");
  EXPECT_EQ(refusal("speed", InspectOp::write, {Nimbo::String("fast")}),
            "Switch.speed: expected a number, got a text");
  EXPECT_EQ(refusal("portIs", InspectOp::call, {uint64_t(70000)}),
            "Switch.portIs: 70000 is out of range (at most 65535)");
  EXPECT_EQ(refusal("portFirst", InspectOp::call, {Nimbo::Ptr<Nimbo::Node>(Nimbo::make<Switch>())}),
            "Switch.portFirst: an object of class Switch does not fit here");
  EXPECT_EQ(sw.speed, 100u);
  EXPECT_TRUE(sw.ports.empty());
  EXPECT_FALSE(sw.resetDone);

  // A descriptor of one class is never applied to an object of another.
  Port port(1);
  const Kest::TypeData& type = switchRecord();
  EXPECT_THROW(type.inspectOperation(port, *type.attr("speed"), InspectOp::read), InspectException);
  EXPECT_THROW(type.inspectOperation(sw, *portRecord().attr("number"), InspectOp::read),
               InspectException);
  struct Plain : Nimbo::Node {
  } plain;
  EXPECT_THROW(Kest::inspectOperation(plain, "speed", InspectOp::read), InspectException);
}

std::vector<std::pair<std::string, std::string>> walk(Kest::AttrIterator it) {
  std::vector<std::pair<std::string, std::string>> seen;
  for (; it.iterNonnull(); it.iterInc()) {
    seen.emplace_back(Kest::formatValue(it.iterKey()), Kest::formatValue(it.iterObj()));
  }
  return seen;
}

TEST(TypeData, WalksAKeyedCollectionInItsOrderAndDeletesOnTheWay) {
  auto sw = Nimbo::make<Switch>();
  EXPECT_FALSE(Kest::genericIfIterator(sw, "port").iterNonnull()) << "an empty map ends at once";
  for (uint16_t n = 1; n <= 20; ++n) sw->portIs(n);
  std::vector<std::pair<std::string, std::string>> expected;
  for (const auto& [number, port] : sw->ports)
    expected.emplace_back(std::to_string(number), "<Port>");
  EXPECT_EQ(walk(Kest::genericIfIterator(sw, "port")), expected);

  // Delete every other element while walking: the walk still sees each element once.
  Kest::AttrIterator it = Kest::genericIfIterator(sw, "port");
  size_t visited = 0;
  while (it.iterNonnull()) {
    ++visited;
    if (visited % 2) {
      it.iterDel();
    } else {
      it.iterInc();
    }
  }
  EXPECT_EQ(visited, 20u);
  EXPECT_EQ(sw->ports.size(), 10u);

  // An element that goes away under the walk reads as none; the walk goes on after it.
  it = Kest::genericIfIterator(sw, "port");
  const uint32_t firstKey = sw->ports.begin()->first;
  sw->ports.erase(firstKey);
  EXPECT_EQ(it.iterObj(), Value());
  it.iterInc();
  EXPECT_EQ(std::get<uint64_t>(it.iterKey()), sw->ports.begin()->first);
}

TEST(TypeData, WalksAQueueByIndexAndRefusesToDeleteFromIt) {
  auto sw = Nimbo::make<Switch>();
  sw->pending.enq(Nimbo::make<Port>(5));
  sw->pending.enq(Nimbo::make<Port>(6));
  sw->pending.deq();
  sw->pending.enq(Nimbo::make<Port>(7));
  EXPECT_EQ(walk(Kest::genericIfIterator(sw, "pending")),
            (std::vector<std::pair<std::string, std::string>>{{"2", "<Port>"}, {"3", "<Port>"}}));
  Kest::AttrIterator it = Kest::genericIfIterator(sw, "pending");
  EXPECT_THROW(it.iterDel(), InspectException);
  EXPECT_EQ(sw->pending.size(), 2u);
  it.iterInc();
  it.iterInc();
  EXPECT_FALSE(it.iterNonnull());
  EXPECT_THROW(it.iterKey(), InspectException);
  EXPECT_THROW(it.iterInc(), InspectException);
  EXPECT_THROW(Kest::genericIfIterator(sw, "speed"), InspectException) << "not a collection";
}

TEST(TypeData, ConstructsOnlyTheClassesThatAllowItFromFittingArguments) {
  const Value args[] = {uint64_t(48)};
  const Nimbo::Ptr<Nimbo::Node> made = portRecord().genericIfConstructFromCtorArgs(args);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->typeData(), &portRecord());
  EXPECT_EQ(Kest::inspectOperation(*made, "number", InspectOp::read), Value(uint64_t(48)));
  EXPECT_EQ(made->references(), 1u) << "the caller holds the only reference";
  EXPECT_THROW(portRecord().genericIfConstructFromCtorArgs({}), InspectException);
  EXPECT_FALSE(switchRecord().constructible());
  EXPECT_THROW(switchRecord().genericIfConstructFromCtorArgs({}), InspectException);
}

}  // namespace
