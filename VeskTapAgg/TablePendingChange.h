#pragma once

#include <new>

#include "VeskTapAgg/TableSwTable.h"

namespace VeskTapAgg {

// The three objects of one client change, made in one allocation: the handle the client
// holds, the wrapper the pending maps hold and the resolver entry the resolver's queue
// holds. One allocation where three would each take the allocator's header and rounding,
// and two calls to it fewer per change.
//
// Each object keeps its own count. The resolver entry holds the wrapper and the wrapper
// the handle, so the handle always goes last: the other two end in place when their count
// drops (their lastUserGone), and the handle, at the head of the memory, frees it whole
// (its operator delete). Stateless; the objects are single-threaded like any table's.
template <TableTraits Traits>
class TablePendingChange {
 public:
  using SwTable = TableSwTable<Traits>;
  using EntryHandle = typename SwTable::EntryHandle;
  using EntryWrapper = TableEntryWrapper<Traits>;
  using ResolverEntry = TableResolverEntry<Traits>;

  Nimbo::Ptr<EntryHandle> handle;
  Nimbo::Ptr<EntryWrapper> wrapper;
  Nimbo::Ptr<ResolverEntry> resolverEntry;

  // A change of `key` at `version` to `entry` (a default entry carrying the key for a
  // remove), in state created, with a copy of the client's handler.
  static TablePendingChange made(SwTable& table, const Asic::EntryVersion& version,
                                 const typename Traits::EntryKey& key,
                                 const typename SwTable::ResponseHandler& handler,
                                 const typename Traits::Entry& entry,
                                 const Nimbo::Ptr<const Asic::DependencyEntryHandle>& dependency,
                                 Asic::EntryFlags flags) {
    void* const memory = ::operator new(kSize);
    TablePendingChange change;
    // From here the handle owns the memory: a throw below frees it with the handle.
    change.handle = Nimbo::Ptr<EntryHandle>(new (memory) EntryHandle(version, key, &table));
    if (handler) change.handle->responseHandlerIs(handler);
    change.handle->entryStateIs(Asic::EntryState::created);
    change.wrapper = Nimbo::Ptr<EntryWrapper>(new (static_cast<char*>(memory) + kWrapperAt)
                                                  EntryWrapper(entry, change.handle));
    change.wrapper->inPendingChange_ = true;
    change.resolverEntry =
        Nimbo::Ptr<ResolverEntry>(new (static_cast<char*>(memory) + kResolverAt)
                                      ResolverEntry(dependency, flags, &table, change.wrapper));
    change.resolverEntry->inPendingChange_ = true;
    return change;
  }

 private:
  static constexpr size_t alignedUp(size_t at, size_t alignment) {
    return (at + alignment - 1) / alignment * alignment;
  }
  static constexpr size_t kWrapperAt = alignedUp(sizeof(EntryHandle), alignof(EntryWrapper));
  static constexpr size_t kResolverAt =
      alignedUp(kWrapperAt + sizeof(EntryWrapper), alignof(ResolverEntry));
  static constexpr size_t kSize = kResolverAt + sizeof(ResolverEntry);
  static_assert(alignof(EntryHandle) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__ &&
                alignof(EntryWrapper) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__ &&
                alignof(ResolverEntry) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
};

}  // namespace VeskTapAgg
