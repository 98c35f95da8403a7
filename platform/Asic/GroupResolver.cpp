#include "Asic/GroupResolver.h"

namespace Asic {

void GroupResolver::resolverQueueEnq(const Nimbo::Ptr<ResolverEntry>& entry) {
  queue_.push_back(entry);
}

Nimbo::Ptr<ResolverEntry> GroupResolver::resolverQueueFront() const {
  return queue_.empty() ? nullptr : queue_.front();
}

void GroupResolver::maybeUpdateSuspend() {
  if (queue_.empty() || suspended() || scheduled_ || !scheduler_) return;
  scheduled_ = true;
  scheduler_();
}

size_t GroupResolver::runUntilIdle() {
  scheduled_ = false;
  size_t committed = 0;
  // How many entries ahead of the one committed the resolver asks the caches for what the
  // next commits read: far enough for memory to answer, near enough to stay cached.
  constexpr size_t kWellAhead = 12, kSoon = 4;
  while (!queue_.empty()) {
    if (queue_.size() > kWellAhead) queue_[kWellAhead]->prefetch(false);
    if (queue_.size() > kSoon) queue_[kSoon]->prefetch(true);
    Nimbo::Ptr<ResolverEntry> head = queue_.front();
    if (!head->isResolved()) {
      blockedAt_ = genId_;
      break;
    }
    queue_.pop_front();
    head->commitEntry(head);
    ++committed;
  }
  return committed;
}

}  // namespace Asic
