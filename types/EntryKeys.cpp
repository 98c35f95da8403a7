#include "types/EntryKeys.h"

namespace VeskTapAgg {

using Out = fmt::format_context::iterator;

Out DefaultFwdTcamEntryEntryKey::formatTo(Out out) const {
  out = fmt::format_to(out, "DefaultFwdTcamEntryEntryKey(prio={}", priority);
  out = formatMatch(out, "port", ingressPort);
  out = formatMatch(out, "vlan", vlan);
  out = formatMatch(out, "etherType", etherType);
  out = formatMatch(out, "dstMac", dstMac);
  out = formatMatch(out, "srcMac", srcMac);
  out = formatMatch(out, "dstIp", dstIp);
  out = formatMatch(out, "srcIp", srcIp);
  out = formatMatch(out, "proto", ipProtocol);
  out = formatMatch(out, "tcpFlags", tcpFlags);
  out = formatMatch(out, "l4Dst", l4DstPort);
  return fmt::format_to(out, ", action={})", actionIndex);
}

Out ServicePolicyMacTcamEntryEntryKey::formatTo(Out out) const {
  out = fmt::format_to(out, "ServicePolicyMacTcamEntryEntryKey(prio={}", priority);
  out = formatMatch(out, "port", ingressPort);
  out = formatMatch(out, "vlan", vlan);
  out = formatMatch(out, "etherType", etherType);
  out = formatMatch(out, "dstMac", dstMac);
  out = formatMatch(out, "srcMac", srcMac);
  return fmt::format_to(out, ", action={})", actionIndex);
}

Out ServicePolicyV4TcamEntryEntryKey::formatTo(Out out) const {
  out = fmt::format_to(out, "ServicePolicyV4TcamEntryEntryKey(prio={}", priority);
  out = formatMatch(out, "port", ingressPort);
  out = formatMatch(out, "vlan", vlan);
  out = formatMatch(out, "srcIp", srcIp);
  out = formatMatch(out, "dstIp", dstIp);
  out = formatMatch(out, "l4Src", l4SrcPort);
  out = formatMatch(out, "l4Dst", l4DstPort);
  out = formatMatch(out, "proto", ipProtocol);
  out = formatMatch(out, "dscp", dscp);
  out = formatMatch(out, "tcpFlags", tcpFlags);
  return fmt::format_to(out, ", action={})", actionIndex);
}

Out ServicePolicyV6TcamEntryEntryKey::formatTo(Out out) const {
  out = fmt::format_to(out, "ServicePolicyV6TcamEntryEntryKey(prio={}", priority);
  out = formatMatch(out, "port", ingressPort);
  out = formatMatch(out, "vlan", vlan);
  out = formatMatch(out, "srcIp", srcIp);
  out = formatMatch(out, "dstIp", dstIp);
  out = formatMatch(out, "l4Src", l4SrcPort);
  out = formatMatch(out, "l4Dst", l4DstPort);
  out = formatMatch(out, "nextHeader", nextHeader);
  out = formatMatch(out, "trafficClass", trafficClass);
  return fmt::format_to(out, ", action={})", actionIndex);
}

Out TapTunnelTerminationTcamEntryEntryKey::formatTo(Out out) const {
  out = fmt::format_to(out, "TapTunnelTerminationTcamEntryEntryKey(prio={}", priority);
  out = formatMatch(out, "port", ingressPort);
  out = formatMatch(out, "tunnelType", tunnelType);
  out = formatMatch(out, "outerSrcIp", outerSrcIp);
  out = formatMatch(out, "outerDstIp", outerDstIp);
  out = formatMatch(out, "tunnelKey", tunnelKey);
  return fmt::format_to(out, ", action={})", actionIndex);
}

}  // namespace VeskTapAgg
