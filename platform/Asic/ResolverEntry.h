#pragma once

#include "Asic/DependencyEntryHandle.h"
#include "Asic/EntryFlags.h"
#include "Nimbo/Ptr.h"

namespace Asic {

// One change waiting in a group resolver's queue: what it depends on, what kind of change
// it is, and the two questions the resolver asks of it, in this order: isResolved(), then,
// once that is true, commitEntry(). Shared by reference count; single-threaded.
class ResolverEntry : public Nimbo::Node {
 public:
  ResolverEntry(Nimbo::Ptr<const DependencyEntryHandle> dependency, EntryFlags flags)
      : dependency_(std::move(dependency)), flags_(flags) {}

  const Nimbo::Ptr<const DependencyEntryHandle>& dependency() const noexcept { return dependency_; }
  EntryFlags flags() const noexcept { return flags_; }
  bool isEntryDeleted() const noexcept { return flags_ == EntryFlags::remove; }
  bool isTableDeleted() const noexcept { return flags_ == EntryFlags::removeAll; }

  virtual bool isResolved() = 0;
  // `self` is this entry, so that the table may keep it or pass it on.
  virtual void commitEntry(const Nimbo::Ptr<ResolverEntry>& self) = 0;
  // Asks the caches for what commitEntry() will read. The resolver asks twice per entry:
  // well ahead of its commit (`soon` false) and a few entries ahead (true), for what the
  // first answer points at. Changes nothing and may do nothing.
  virtual void prefetch(bool /*soon*/) const noexcept {}

 private:
  Nimbo::Ptr<const DependencyEntryHandle> dependency_;
  EntryFlags flags_;
};

}  // namespace Asic
