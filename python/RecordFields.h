#pragma once

#include <cstddef>
#include <string>
#include <tuple>

#include "types/TableTypes.h"

namespace VeskPy {

// One field of a record as Python sees it: its name and member. Reserved bytes are listed
// too, so that the size check below sees every byte, but Python neither shows nor sets them.
template <class R, class F>
struct Field {
  using Record = R;
  using Type = F;
  const char* name;
  F R::*member;
  bool shown;
};
template <class R, class F>
constexpr Field<R, F> field(const char* name, F R::*member) {
  return {name, member, true};
}
template <class R, class F>
constexpr Field<R, F> reserved(const char* name, F R::*member) {
  return {name, member, false};
}

// The fields of every record the module shows, in layout order, and the record's Python
// name. The records carry no field list of their own (the framework's type records print
// them as text), so it is written here once per record shape; the size check makes a field
// added to a record and not here a compile error.
template <class R>
struct RecordFields;

#define VESK_PY_MATCH_FIELDS(Type)                                                    \
  template <>                                                                         \
  struct RecordFields<VeskTapAgg::Type> {                                             \
    static std::string name() { return #Type; }                                       \
    static constexpr auto list = std::tuple{field("value", &VeskTapAgg::Type::value), \
                                            field("mask", &VeskTapAgg::Type::mask)};  \
  };
VESK_PY_MATCH_FIELDS(U8Match)
VESK_PY_MATCH_FIELDS(U16Match)
VESK_PY_MATCH_FIELDS(U32Match)
VESK_PY_MATCH_FIELDS(MacMatch)
VESK_PY_MATCH_FIELDS(Ip4Match)
VESK_PY_MATCH_FIELDS(Ip6Match)
#undef VESK_PY_MATCH_FIELDS

template <>
struct RecordFields<VeskTapAgg::TcamAction> {
  using A = VeskTapAgg::TcamAction;
  static std::string name() { return "TcamAction"; }
  static constexpr auto list = std::tuple{field("kind", &A::kind),
                                          field("flags", &A::flags),
                                          field("vlanId", &A::vlanId),
                                          field("redirectPort", &A::redirectPort),
                                          field("truncateLength", &A::truncateLength),
                                          reserved("reserved", &A::reserved),
                                          field("counterId", &A::counterId),
                                          field("mirrorSession", &A::mirrorSession),
                                          reserved("reserved2", &A::reserved2)};
};

template <>
struct RecordFields<VeskTapAgg::DefaultFwdTcamEntryEntryKey> {
  using K = VeskTapAgg::DefaultFwdTcamEntryEntryKey;
  static std::string name() { return "DefaultFwdTcamEntryEntryKey"; }
  static constexpr auto list = std::tuple{field("priority", &K::priority),
                                          field("ingressPort", &K::ingressPort),
                                          field("vlan", &K::vlan),
                                          field("etherType", &K::etherType),
                                          field("dstMac", &K::dstMac),
                                          field("srcMac", &K::srcMac),
                                          field("dstIp", &K::dstIp),
                                          field("srcIp", &K::srcIp),
                                          field("ipProtocol", &K::ipProtocol),
                                          field("tcpFlags", &K::tcpFlags),
                                          field("l4DstPort", &K::l4DstPort),
                                          field("actionIndex", &K::actionIndex)};
};

template <>
struct RecordFields<VeskTapAgg::ServicePolicyMacTcamEntryEntryKey> {
  using K = VeskTapAgg::ServicePolicyMacTcamEntryEntryKey;
  static std::string name() { return "ServicePolicyMacTcamEntryEntryKey"; }
  static constexpr auto list = std::tuple{field("priority", &K::priority),
                                          field("ingressPort", &K::ingressPort),
                                          field("vlan", &K::vlan),
                                          field("etherType", &K::etherType),
                                          field("dstMac", &K::dstMac),
                                          field("srcMac", &K::srcMac),
                                          field("actionIndex", &K::actionIndex)};
};

template <>
struct RecordFields<VeskTapAgg::ServicePolicyV4TcamEntryEntryKey> {
  using K = VeskTapAgg::ServicePolicyV4TcamEntryEntryKey;
  static std::string name() { return "ServicePolicyV4TcamEntryEntryKey"; }
  static constexpr auto list = std::tuple{field("priority", &K::priority),
                                          field("ingressPort", &K::ingressPort),
                                          field("vlan", &K::vlan),
                                          field("l4SrcPort", &K::l4SrcPort),
                                          field("srcIp", &K::srcIp),
                                          field("dstIp", &K::dstIp),
                                          field("l4DstPort", &K::l4DstPort),
                                          field("ipProtocol", &K::ipProtocol),
                                          field("dscp", &K::dscp),
                                          field("tcpFlags", &K::tcpFlags),
                                          reserved("reserved", &K::reserved),
                                          field("actionIndex", &K::actionIndex)};
};

template <>
struct RecordFields<VeskTapAgg::ServicePolicyV6TcamEntryEntryKey> {
  using K = VeskTapAgg::ServicePolicyV6TcamEntryEntryKey;
  static std::string name() { return "ServicePolicyV6TcamEntryEntryKey"; }
  static constexpr auto list = std::tuple{field("priority", &K::priority),
                                          field("ingressPort", &K::ingressPort),
                                          field("vlan", &K::vlan),
                                          field("l4SrcPort", &K::l4SrcPort),
                                          field("srcIp", &K::srcIp),
                                          field("dstIp", &K::dstIp),
                                          field("l4DstPort", &K::l4DstPort),
                                          field("nextHeader", &K::nextHeader),
                                          field("trafficClass", &K::trafficClass),
                                          field("actionIndex", &K::actionIndex)};
};

template <>
struct RecordFields<VeskTapAgg::TapTunnelTerminationTcamEntryEntryKey> {
  using K = VeskTapAgg::TapTunnelTerminationTcamEntryEntryKey;
  static std::string name() { return "TapTunnelTerminationTcamEntryEntryKey"; }
  static constexpr auto list =
      std::tuple{field("priority", &K::priority),     field("ingressPort", &K::ingressPort),
                 field("tunnelType", &K::tunnelType), reserved("reserved", &K::reserved),
                 field("outerSrcIp", &K::outerSrcIp), field("outerDstIp", &K::outerDstIp),
                 field("tunnelKey", &K::tunnelKey),   field("actionIndex", &K::actionIndex)};
};

template <class Tag>
struct RecordFields<VeskTapAgg::ActionKey<Tag>> {
  using K = VeskTapAgg::ActionKey<Tag>;
  static std::string name() { return std::string(Tag::name) + "EntryKey"; }
  static constexpr auto list = std::tuple{field("index", &K::index)};
};

// An entry is named after its key: "<T>EntryKey" -> "<T>Entry".
template <class Key>
std::string entryNameOf() {
  const std::string key = RecordFields<Key>::name();
  return key.substr(0, key.size() - 3);
}

template <class Key>
struct RecordFields<VeskTapAgg::ActionEntry<Key>> {
  using E = VeskTapAgg::ActionEntry<Key>;
  static std::string name() { return entryNameOf<Key>(); }
  static constexpr auto list =
      std::tuple{field("entryKey", &E::entryKey), field("action", &E::action)};
};

template <class Key>
struct RecordFields<VeskTapAgg::MatchEntry<Key>> {
  using E = VeskTapAgg::MatchEntry<Key>;
  static std::string name() { return entryNameOf<Key>(); }
  static constexpr auto list = std::tuple{field("entryKey", &E::entryKey)};
};

// Calls visit(field) for every field of R, in layout order.
template <class R, class Visit>
void forEachField(Visit&& visit) {
  std::apply([&](const auto&... f) { (visit(f), ...); }, RecordFields<R>::list);
}

template <class R>
constexpr size_t fieldBytes() {
  return std::apply(
      [](const auto&... f) { return (sizeof(typename std::decay_t<decltype(f)>::Type) + ... + 0); },
      RecordFields<R>::list);
}

}  // namespace VeskPy
