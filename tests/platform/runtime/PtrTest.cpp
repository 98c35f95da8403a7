#include <gtest/gtest.h>

#include <thread>

#include "Nimbo/Ptr.h"

namespace {

class Counted : public Nimbo::Node {
 public:
  explicit Counted(int* destroyed) : destroyed_(destroyed) {}
  ~Counted() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

class Derived : public Counted {
 public:
  using Counted::Counted;
};

class MoreDerived : public Derived {
 public:
  using Derived::Derived;
};

// Goes back to its owner's free list instead of being deleted.
class Pooled : public Nimbo::Node {
 public:
  int returned = 0;

 protected:
  void lastUserGone() override { ++returned; }
};

// --- Counting in single-threaded mode ---

TEST(Ptr, CopiesMovesAndConversionsKeepTheCountExact) {
  int destroyed = 0;
  {
    Nimbo::Ptr<Derived> a = Nimbo::make<Derived>(&destroyed);
    EXPECT_EQ(a->references(), 1u);
    Nimbo::Ptr<Derived> b = a;
    EXPECT_EQ(a->references(), 2u);
    Nimbo::Ptr<Counted> base = std::move(b);
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(a->references(), 2u) << "a move transfers the reference";
    Nimbo::Ptr<Derived> back = Nimbo::dynamicPtrCast<Derived>(base);
    EXPECT_EQ(back, a);
    EXPECT_EQ(a->references(), 3u);
    base.reset();
    back = nullptr;
    EXPECT_EQ(a->references(), 1u);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(Ptr, DynamicCastTakesTheClassAndItsSubclassesAndRefusesTheRest) {
  int destroyed = 0;
  const Nimbo::Ptr<Nimbo::Node> exact = Nimbo::make<Derived>(&destroyed);
  const Nimbo::Ptr<Nimbo::Node> deeper = Nimbo::make<MoreDerived>(&destroyed);
  const Nimbo::Ptr<Nimbo::Node> shallower = Nimbo::make<Counted>(&destroyed);
  EXPECT_EQ(Nimbo::dynamicPtrCast<Derived>(exact).ptr(), exact.ptr());
  EXPECT_EQ(Nimbo::dynamicPtrCast<const Derived>(exact).ptr(), exact.ptr());
  EXPECT_EQ(Nimbo::dynamicPtrCast<Derived>(deeper).ptr(), deeper.ptr());
  EXPECT_EQ(Nimbo::dynamicPtrCast<Derived>(shallower), nullptr);
  EXPECT_EQ(Nimbo::dynamicPtrCast<Derived>(Nimbo::Ptr<Nimbo::Node>()), nullptr);
  EXPECT_EQ(Nimbo::downCast<MoreDerived>(exact.ptr()), nullptr);
}

TEST(Ptr, LastUserGoneRunsOnceWhenTheCountDropsToZero) {
  Pooled pooled;  // owned by the test; the hook must not delete it
  {
    Nimbo::Ptr<Pooled> a(&pooled);
    Nimbo::Ptr<Pooled> b = a;
    a.reset();
    EXPECT_EQ(pooled.returned, 0);
  }
  EXPECT_EQ(pooled.returned, 1);
  EXPECT_EQ(pooled.references(), 0u);
  Nimbo::Ptr<Pooled> again(&pooled);
  EXPECT_EQ(pooled.references(), 1u) << "a returned object can be handed out again";
}

// --- Threaded mode ---

TEST(Ptr, CountsStayExactUnderTwoThreadsInThreadedMode) {
  Nimbo::ThreadControl::threadedIs();
  ASSERT_TRUE(Nimbo::ThreadControl::threaded());
  int destroyed = 0;
  Nimbo::Ptr<Counted> shared = Nimbo::make<Counted>(&destroyed);
  auto copyMany = [&shared] {
    for (int i = 0; i < 300000; ++i) Nimbo::Ptr<Counted> copy = shared;
  };
  std::thread first(copyMany), second(copyMany);
  first.join();
  second.join();
  EXPECT_EQ(shared->references(), 1u);
  EXPECT_EQ(destroyed, 0);
  shared.reset();
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
