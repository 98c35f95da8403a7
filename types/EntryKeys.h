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
// padding, so keys hash and compare by their bytes.

// Default forwarding: what tapped traffic does when no service policy claims it.
struct VESK_EXPORT DefaultFwdTcamEntryEntryKey {
  uint32_t priority = 0;
  U32Match ingressPort;
  U16Match vlan;
  U16Match etherType;
  MacMatch dstMac;
  MacMatch srcMac;
  Ip4Match dstIp;
  Ip4Match srcIp;
  U8Match ipProtocol;
  U8Match tcpFlags;
  U16Match l4DstPort;
  uint32_t actionIndex = 0;
  VESK_RECORD_OPS(DefaultFwdTcamEntryEntryKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const;
};

// Service policy on layer-2 headers.
struct VESK_EXPORT ServicePolicyMacTcamEntryEntryKey {
  uint32_t priority = 0;
  U32Match ingressPort;
  U16Match vlan;
  U16Match etherType;
  MacMatch dstMac;
  MacMatch srcMac;
  uint32_t actionIndex = 0;
  VESK_RECORD_OPS(ServicePolicyMacTcamEntryEntryKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const;
};

// Service policy on IPv4 headers.
struct VESK_EXPORT ServicePolicyV4TcamEntryEntryKey {
  uint32_t priority = 0;
  U32Match ingressPort;
  U16Match vlan;
  U16Match l4SrcPort;
  Ip4Match srcIp;
  Ip4Match dstIp;
  U16Match l4DstPort;
  U8Match ipProtocol;
  U8Match dscp;
  U8Match tcpFlags;
  uint16_t reserved = 0;
  uint32_t actionIndex = 0;
  VESK_RECORD_OPS(ServicePolicyV4TcamEntryEntryKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const;
};

// Service policy on IPv6 headers.
struct VESK_EXPORT ServicePolicyV6TcamEntryEntryKey {
  uint32_t priority = 0;
  U32Match ingressPort;
  U16Match vlan;
  U16Match l4SrcPort;
  Ip6Match srcIp;
  Ip6Match dstIp;
  U16Match l4DstPort;
  U8Match nextHeader;
  U8Match trafficClass;
  uint32_t actionIndex = 0;
  VESK_RECORD_OPS(ServicePolicyV6TcamEntryEntryKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const;
};

// Termination of the tunnels that carry tapped traffic to the switch.
enum class TunnelType : uint8_t { none = 0, gre = 1, vxlan = 2, ipInIp = 3 };

struct VESK_EXPORT TapTunnelTerminationTcamEntryEntryKey {
  uint32_t priority = 0;
  U32Match ingressPort;
  U8Match tunnelType;
  uint16_t reserved = 0;
  Ip4Match outerSrcIp;
  Ip4Match outerDstIp;
  U32Match tunnelKey;  // VXLAN VNI or GRE key
  uint32_t actionIndex = 0;
  VESK_RECORD_OPS(TapTunnelTerminationTcamEntryEntryKey);
  fmt::format_context::iterator formatTo(fmt::format_context::iterator out) const;
};

}  // namespace VeskTapAgg
