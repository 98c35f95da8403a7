#pragma once

#include <cstdint>

#include "Nimbo/Export.h"
#include "types/MatchFields.h"

namespace VeskTapAgg {

// The keys of the five entry tables. An entry table's key is a whole TCAM line: the
// priority that orders overlapping matches, the value/mask fields the table's role
// matches on, and the index of the entry in the paired action table. That index is part
// of the key because the TCAM line is programmed as one unit: pointing a match at another
// action is a new line, not an update of the old one. Field order keeps every key free of
// padding, so keys hash and compare by their bytes. Each key is its field table (see
// types/RecordSchema.h): a field added there is printed, inspected, in JSON and in Python.

// Default forwarding: what tapped traffic does when no service policy claims it.
#define VESK_FIELDS(F)             \
  F(uint32_t, priority, decimal)   \
  F(U32Match, ingressPort, record) \
  F(U16Match, vlan, record)        \
  F(U16Match, etherType, record)   \
  F(MacMatch, dstMac, record)      \
  F(MacMatch, srcMac, record)      \
  F(Ip4Match, dstIp, record)       \
  F(Ip4Match, srcIp, record)       \
  F(U8Match, ipProtocol, record)   \
  F(U8Match, tcpFlags, record)     \
  F(U16Match, l4DstPort, record)   \
  F(uint32_t, actionIndex, decimal)
struct VESK_EXPORT DefaultFwdTcamEntryEntryKey {
  VESK_RECORD(DefaultFwdTcamEntryEntryKey, VESK_FIELDS);
};
#undef VESK_FIELDS

// Service policy on layer-2 headers.
#define VESK_FIELDS(F)             \
  F(uint32_t, priority, decimal)   \
  F(U32Match, ingressPort, record) \
  F(U16Match, vlan, record)        \
  F(U16Match, etherType, record)   \
  F(MacMatch, dstMac, record)      \
  F(MacMatch, srcMac, record)      \
  F(uint32_t, actionIndex, decimal)
struct VESK_EXPORT ServicePolicyMacTcamEntryEntryKey {
  VESK_RECORD(ServicePolicyMacTcamEntryEntryKey, VESK_FIELDS);
};
#undef VESK_FIELDS

// Service policy on IPv4 headers.
#define VESK_FIELDS(F)             \
  F(uint32_t, priority, decimal)   \
  F(U32Match, ingressPort, record) \
  F(U16Match, vlan, record)        \
  F(U16Match, l4SrcPort, record)   \
  F(Ip4Match, srcIp, record)       \
  F(Ip4Match, dstIp, record)       \
  F(U16Match, l4DstPort, record)   \
  F(U8Match, ipProtocol, record)   \
  F(U8Match, dscp, record)         \
  F(U8Match, tcpFlags, record)     \
  F(uint16_t, reserved, hidden)    \
  F(uint32_t, actionIndex, decimal)
struct VESK_EXPORT ServicePolicyV4TcamEntryEntryKey {
  VESK_RECORD(ServicePolicyV4TcamEntryEntryKey, VESK_FIELDS);
};
#undef VESK_FIELDS

// Service policy on IPv6 headers.
#define VESK_FIELDS(F)             \
  F(uint32_t, priority, decimal)   \
  F(U32Match, ingressPort, record) \
  F(U16Match, vlan, record)        \
  F(U16Match, l4SrcPort, record)   \
  F(Ip6Match, srcIp, record)       \
  F(Ip6Match, dstIp, record)       \
  F(U16Match, l4DstPort, record)   \
  F(U8Match, nextHeader, record)   \
  F(U8Match, trafficClass, record) \
  F(uint32_t, actionIndex, decimal)
struct VESK_EXPORT ServicePolicyV6TcamEntryEntryKey {
  VESK_RECORD(ServicePolicyV6TcamEntryEntryKey, VESK_FIELDS);
};
#undef VESK_FIELDS

// Termination of the tunnels that carry tapped traffic to the switch. tunnelKey is the
// VXLAN VNI or the GRE key.
enum class TunnelType : uint8_t { none = 0, gre = 1, vxlan = 2, ipInIp = 3 };

#define VESK_FIELDS(F)             \
  F(uint32_t, priority, decimal)   \
  F(U32Match, ingressPort, record) \
  F(U8Match, tunnelType, record)   \
  F(uint16_t, reserved, hidden)    \
  F(Ip4Match, outerSrcIp, record)  \
  F(Ip4Match, outerDstIp, record)  \
  F(U32Match, tunnelKey, record)   \
  F(uint32_t, actionIndex, decimal)
struct VESK_EXPORT TapTunnelTerminationTcamEntryEntryKey {
  VESK_RECORD(TapTunnelTerminationTcamEntryEntryKey, VESK_FIELDS);
};
#undef VESK_FIELDS

}  // namespace VeskTapAgg
