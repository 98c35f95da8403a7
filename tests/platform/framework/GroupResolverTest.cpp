#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Asic/GroupResolver.h"

namespace {

// A change that is resolved when its flag says so and records its commit in a shared log.
class TestEntry : public Asic::ResolverEntry {
 public:
  TestEntry(std::string name, std::vector<std::string>& commits, bool resolved = true)
      : Asic::ResolverEntry(nullptr, Asic::EntryFlags::write),
        resolved_(resolved),
        name_(std::move(name)),
        commits_(commits) {}
  bool isResolved() override { return resolved_; }
  void commitEntry(const Nimbo::Ptr<Asic::ResolverEntry>& self) override {
    EXPECT_EQ(self.ptr(), this);
    if (onCommit) onCommit();
    commits_.push_back(name_);
  }
  bool resolved_;
  std::function<void()> onCommit;

 private:
  std::string name_;
  std::vector<std::string>& commits_;
};

class GroupResolverTest : public ::testing::Test {
 protected:
  Nimbo::Ptr<TestEntry> enq(const std::string& name, bool resolved = true) {
    auto entry = Nimbo::make<TestEntry>(name, commits, resolved);
    resolver->resolverQueueEnq(entry);
    return entry;
  }
  Nimbo::Ptr<Asic::GroupResolver> resolver = Nimbo::make<Asic::GroupResolver>();
  std::vector<std::string> commits;
};

TEST_F(GroupResolverTest, CommitsInQueueOrderAndStopsAtTheFirstUnresolved) {
  enq("a");
  auto b = enq("b", false);
  enq("c");
  EXPECT_EQ(resolver->runUntilIdle(), 1u);
  EXPECT_EQ(commits, std::vector<std::string>{"a"}) << "c must not overtake b";
  EXPECT_EQ(resolver->resolverQueueFront().ptr(), b.ptr());
  EXPECT_TRUE(resolver->suspended());

  b->resolved_ = true;
  resolver->updateGenId();
  EXPECT_FALSE(resolver->suspended());
  EXPECT_EQ(resolver->runUntilIdle(), 2u);
  EXPECT_EQ(commits, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(resolver->resolverQueueSize(), 0u);
  EXPECT_FALSE(resolver->suspended()) << "an empty queue is never suspended";
}

TEST_F(GroupResolverTest, TheSchedulerIsWokenOnceWhileWorkWaits) {
  int wakes = 0;
  resolver->schedulerIs([&] { ++wakes; });
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(wakes, 0) << "nothing queued";
  enq("a");
  resolver->maybeUpdateSuspend();
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(wakes, 1);
  resolver->runUntilIdle();

  auto b = enq("b", false);
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(wakes, 2);
  resolver->runUntilIdle();
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(wakes, 2) << "suspended: nothing changed since b was found unresolved";
  resolver->updateGenId();
  resolver->maybeUpdateSuspend();
  EXPECT_EQ(wakes, 3);
}

TEST_F(GroupResolverTest, EntriesQueuedByACommitRunInTheSamePass) {
  auto a = enq("a");
  a->onCommit = [&] { enq("from a"); };
  EXPECT_EQ(resolver->runUntilIdle(), 2u);
  EXPECT_EQ(commits, (std::vector<std::string>{"a", "from a"}));
}

TEST_F(GroupResolverTest, AThrowingCommitLosesOnlyItsEntry) {
  auto a = enq("a");
  a->onCommit = [] { throw std::runtime_error("client failed"); };
  enq("b");
  EXPECT_THROW(resolver->runUntilIdle(), std::runtime_error);
  EXPECT_EQ(resolver->resolverQueueSize(), 1u);
  EXPECT_EQ(resolver->runUntilIdle(), 1u);
  EXPECT_EQ(commits, std::vector<std::string>{"b"});
}

}  // namespace
