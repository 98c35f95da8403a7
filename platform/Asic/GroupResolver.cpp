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
  while (!queue_.empty()) {
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
