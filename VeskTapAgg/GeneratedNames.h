#pragma once

#include "Kest/Trace.h"
#include "Nimbo/String.h"

namespace VeskTapAgg {

// The names a class generated for a table type goes by: "<T><Kind>" (DefaultFwdTcamEntry
// and EntryLog make "DefaultFwdTcamEntryEntryLog"), which is also the name of the trace
// handle it writes through, and its source "VeskTapAgg/<T><Kind>". Kind is a tag with a
// static `name`. Made on first use; single-threaded.
template <class Traits, class Kind>
struct GeneratedNames {
  static const Nimbo::String& className() {
    static const Nimbo::String name = Nimbo::String(Traits::tableName) + Kind::name;
    return name;
  }
  static const Nimbo::String& sourceName() {
    static const Nimbo::String name = "VeskTapAgg/" + className();
    return name;
  }
  static Kest::TraceHandle& traceHandle() {
    static Kest::TraceHandle& handle = Kest::traceHandle(className());
    return handle;
  }
};

struct EntryLogKind {
  static constexpr const char* name = "EntryLog";
};
struct SwTableKind {
  static constexpr const char* name = "SwTable";
};
struct EntryHandleKind {
  static constexpr const char* name = "SwTable::EntryHandle";
};
struct EntryWrapperKind {
  static constexpr const char* name = "EntryWrapper";
};
// The unit the wrapper and the resolver entry are generated in; no class of its own.
struct InfraTypesKind {
  static constexpr const char* name = "InfraTypes";
};
struct ResolverEntryKind {
  static constexpr const char* name = "ResolverEntry";
};
struct SwTableHelperBaseKind {
  static constexpr const char* name = "SwTableHelperBase";
};
struct InterfaceKind {
  static constexpr const char* name = "Interface";
};
struct SwTableIteratorStateKind {
  static constexpr const char* name = "SwTableIteratorState";
};
struct SwTableEntriesKind {
  static constexpr const char* name = "SwTable::SwTableEntries_py";
};

}  // namespace VeskTapAgg
