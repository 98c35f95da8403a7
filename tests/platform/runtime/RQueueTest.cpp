#include <gtest/gtest.h>

#include <new>

#include "Nimbo/Ptr.h"
#include "Nimbo/RQueue.h"

namespace {

struct Entry : Nimbo::Node {
  explicit Entry(int v) : value(v) {}
  int value;
};

// --- Numbering from a fresh queue ---

TEST(RQueue, AFreshQueueNumbersFromOneAndKeepsCounting) {
  Nimbo::RQueue<int> q;
  EXPECT_EQ(q.backIndex(), 0u) << "nothing handed out yet";
  EXPECT_FALSE(q.has(0) || q.has(1));
  EXPECT_EQ(q.enq(10), 1u);
  EXPECT_EQ(q.enq(20), 2u);
  EXPECT_EQ(q.enq(30), 3u);
  EXPECT_EQ(q.front(), 10);
  EXPECT_EQ(q.back(), 30);
  EXPECT_EQ(q.at(2), 20);
  EXPECT_FALSE(q.has(4));
  EXPECT_EQ(q.deq(), 10);
  EXPECT_FALSE(q.has(1));
  EXPECT_EQ(q.at(2), 20);
  q.delAll();
  EXPECT_TRUE(q.empty());
  EXPECT_FALSE(q.has(3));
  EXPECT_EQ(q.enq(40), 4u) << "emptying does not restart the numbering";
  EXPECT_EQ(q.front(), 40);
}

TEST(RQueue, MissingElementsReadAsNull) {
  Nimbo::RQueue<Nimbo::Ptr<Entry>> q;
  EXPECT_EQ(q.front(), nullptr);
  EXPECT_EQ(q.back(), nullptr);
  EXPECT_EQ(q.deq(), nullptr);
  EXPECT_EQ(q.frontIndex(), 1u) << "dequeuing an empty queue does not consume an index";
  const uint32_t i = q.enq(Nimbo::make<Entry>(5));
  EXPECT_EQ(q.at(i)->value, 5);
  EXPECT_EQ(q.at(i + 1), nullptr);
  Nimbo::Ptr<Entry> out = q.deq();
  EXPECT_EQ(out->references(), 1u) << "the queue gave its reference away";
}

// --- Serial-number arithmetic across 2^32 ---

TEST(RQueue, HasFollowsTheIndicesAcrossTheWrap) {
  Nimbo::RQueue<int> q(0xfffffff0u);
  for (int i = 0; i < 32; ++i) q.enq(i);
  EXPECT_EQ(q.frontIndex(), 0xfffffff0u);
  EXPECT_EQ(q.backIndex(), 15u);
  for (uint32_t index : {0xfffffff0u, 0xfffffffeu, 0xffffffffu, 0u, 1u, 15u}) {
    EXPECT_TRUE(q.has(index)) << index;
  }
  for (uint32_t index : {16u, 0xffffffefu, 0x7ffffff0u, 0x80000000u, 0x80000010u}) {
    EXPECT_FALSE(q.has(index)) << index;
  }
  EXPECT_EQ(q.at(0xffffffffu), 15);
  EXPECT_EQ(q.at(0u), 16);
  EXPECT_EQ(q.at(16u), 0) << "one past the back";
}

TEST(RQueue, EnqueueHandsOutZeroWhenTheNumberingWraps) {
  Nimbo::RQueue<int> q(0xffffffffu);
  EXPECT_EQ(q.enq(1), 0xffffffffu);
  EXPECT_EQ(q.enq(2), 0u);
  EXPECT_EQ(q.enq(3), 1u);
  EXPECT_EQ(q.deq(), 1);
  EXPECT_EQ(q.deq(), 2);
  EXPECT_EQ(q.frontIndex(), 1u);
  EXPECT_TRUE(q.has(1));
  EXPECT_FALSE(q.has(0));
  EXPECT_FALSE(q.has(0xffffffffu));
}

// An element whose storage cannot be had, as when the queue's memory runs out.
struct Unstorable {
  Unstorable() = default;
  Unstorable(Unstorable&&) { throw std::bad_alloc(); }
};

TEST(RQueueDeathTest, AQueueThatCannotGrowStopsTheProcess) {
  Nimbo::RQueue<Unstorable> queue;
  EXPECT_DEATH(queue.enq(Unstorable()), "bad_alloc");
}

}  // namespace
