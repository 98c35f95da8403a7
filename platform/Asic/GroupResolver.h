#pragma once

#include <cstdint>
#include <deque>
#include <functional>

#include "Asic/ResolverEntry.h"
#include "Nimbo/Export.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// The resolution queue of one table group. The changes of every table of the group queue
// here in the order their clients made them. Processing asks the head isResolved(),
// commits it and goes on, and stops at the first unresolved entry, so that the changes of
// one key are never reordered. Stopped there, the resolver is suspended until something
// changes: whoever changes what an entry waits for (the hardware side taking a version,
// a dependency resolving) calls updateGenId() and then maybeUpdateSuspend(), which wakes
// it. Waking means calling the scheduler hook, which the agent's event loop turns into a
// later runUntilIdle(); tests call runUntilIdle() themselves. Owned by the group's tables
// by reference count; single-threaded: the agent's event thread.
class VESK_EXPORT GroupResolver : public Nimbo::Node {
 public:
  using Scheduler = std::function<void()>;

  // The hook called when there is work; at most once until runUntilIdle() runs.
  void schedulerIs(Scheduler scheduler) { scheduler_ = std::move(scheduler); }

  void resolverQueueEnq(const Nimbo::Ptr<ResolverEntry>& entry);
  size_t resolverQueueSize() const noexcept { return queue_.size(); }
  Nimbo::Ptr<ResolverEntry> resolverQueueFront() const;

  // Something an entry may wait for has changed.
  void updateGenId() const noexcept { ++genId_; }
  uint64_t genId() const noexcept { return genId_; }
  // Suspended: the head was found unresolved and nothing changed since.
  bool suspended() const noexcept { return !queue_.empty() && blockedAt_ == genId_; }
  // Wakes the resolver through the scheduler hook when it has work and is not suspended.
  void maybeUpdateSuspend();

  // Commits queued entries in order until the queue is empty or its head is unresolved;
  // returns how many were committed. An entry leaves the queue before it is committed, so
  // an exception out of a commit loses that entry only and propagates to the caller.
  size_t runUntilIdle();

 private:
  std::deque<Nimbo::Ptr<ResolverEntry>> queue_;
  mutable uint64_t genId_ = 0;
  uint64_t blockedAt_ = UINT64_MAX;
  bool scheduled_ = false;
  Scheduler scheduler_;
};

}  // namespace Asic
