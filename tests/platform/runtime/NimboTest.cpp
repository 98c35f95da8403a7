#include <gtest/gtest.h>

#include <thread>

#include "Nimbo/Assert.h"
#include "Nimbo/Ptr.h"
#include "Nimbo/RQueue.h"

namespace {

TEST(RQueue, IndicesStartAtOneAndFollowTheElements) {
  Nimbo::RQueue<int> q;
  EXPECT_FALSE(q.has(1));
  EXPECT_EQ(q.front(), 0);
  EXPECT_EQ(q.enq(10), 1u);
  EXPECT_EQ(q.enq(20), 2u);
  EXPECT_TRUE(q.has(1));
  EXPECT_TRUE(q.has(2));
  EXPECT_FALSE(q.has(3));
  EXPECT_EQ(q.at(2), 20);
  EXPECT_EQ(q.deq(), 10);
  EXPECT_FALSE(q.has(1));
  EXPECT_EQ(q.enq(30), 3u) << "indices keep counting after a dequeue";
  q.delAll();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.enq(40), 4u) << "and after emptying";
}

TEST(RQueue, HasWorksAcrossTheWrapOfThirtyTwoBits) {
  Nimbo::RQueue<int> wrapped(0xfffffff0u);
  for (int i = 0; i < 32; ++i) wrapped.enq(i);
  EXPECT_TRUE(wrapped.has(0xfffffff0u));
  EXPECT_TRUE(wrapped.has(0xffffffffu));
  EXPECT_TRUE(wrapped.has(0u));
  EXPECT_TRUE(wrapped.has(15u));
  EXPECT_FALSE(wrapped.has(16u));
  EXPECT_FALSE(wrapped.has(0xffffffefu));
  EXPECT_FALSE(wrapped.has(0x7ffffff0u)) << "half the range away is never inside";
  EXPECT_EQ(wrapped.at(0u), 16);
  EXPECT_EQ(wrapped.backIndex(), 15u);
  for (int i = 0; i < 17; ++i) wrapped.deq();
  EXPECT_EQ(wrapped.frontIndex(), 1u);
  EXPECT_FALSE(wrapped.has(0u));
}

class Counted : public Nimbo::Node {
 public:
  explicit Counted(int* gone) : gone_(gone) {}
  ~Counted() override { ++*gone_; }

 private:
  int* gone_;
};

TEST(Ptr, LastReferenceGoneDeletesOnce) {
  int gone = 0;
  {
    Nimbo::Ptr<Counted> a(new Counted(&gone));
    Nimbo::Ptr<Counted> b = a;
    EXPECT_EQ(a->references(), 2u);
    Nimbo::Ptr<Nimbo::Node> base = std::move(b);
    EXPECT_EQ(a->references(), 2u);
    base.reset();
    EXPECT_EQ(a->references(), 1u);
    EXPECT_EQ(gone, 0);
  }
  EXPECT_EQ(gone, 1);
}

TEST(Ptr, CountsStayExactUnderThreadsInThreadedMode) {
  Nimbo::ThreadControl::threadedIs();
  int gone = 0;
  Nimbo::Ptr<Counted> shared(new Counted(&gone));
  auto hammer = [&] {
    for (int i = 0; i < 200000; ++i) Nimbo::Ptr<Counted> copy = shared;
  };
  std::thread t1(hammer), t2(hammer);
  t1.join();
  t2.join();
  EXPECT_EQ(shared->references(), 1u);
  shared.reset();
  EXPECT_EQ(gone, 1);
}

TEST(AssertDeathTest, StopsWithTheConditionText) {
  int entries = 3;
  EXPECT_DEATH(VESK_ASSERT(entries == 0), "entries == 0");
  EXPECT_DEATH(VESK_ASSERT_MSG(entries < 2, "Config shard for unitId:" << 7 << " is not created yet!"),
               "entries < 2.*Config shard for unitId:7 is not created yet!");
  VESK_ASSERT(entries == 3);  // holds: nothing happens
}

}  // namespace
