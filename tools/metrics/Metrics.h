#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace VeskTool {

// Where `vesktap metrics --listen` serves: a host name or address, and a port (0: any
// free one).
struct ListenAddress {
  std::string host;
  uint16_t port = 0;
};

// "host:port", an IPv6 address in brackets ("[::1]:9464"). Throws std::invalid_argument
// saying what is wrong.
ListenAddress parseListenAddress(std::string_view text);

// The counters of an agent and of its hardware side in the Prometheus text exposition
// format (version 0.0.4), labelled by table type (table) and unit (unit): what the
// running agent publishes of its clients' changes (tools/core/AgentCounters.h; none, and
// vesktap_agent_up 0, without a running agent), and what the shared memory holds (change
// logs, what the hardware side has taken, the units' entries; tools/core/AgentMemory.h).
// A part that cannot be read is left out, counted in vesktap_read_errors and told as one
// line on `err`.
void printMetrics(std::ostream& out, std::ostream& err);

// Serves the same at http://<address>/metrics, read afresh for every request, until
// SIGTERM or SIGINT; tells on `err` the address it listens on (with the port it got) and,
// once each, the parts it cannot read. Returns the signal that stopped it. Throws
// std::runtime_error when it cannot listen there.
int serveMetrics(const ListenAddress& address, std::ostream& err);

}  // namespace VeskTool
