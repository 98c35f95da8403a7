#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "gnmi/gnmi.pb.h"

namespace VeskTool {

// A request the target refuses: the gRPC status it answers, with a message that names
// the valid choices.
class GnmiError : public std::runtime_error {
 public:
  GnmiError(grpc::StatusCode code, const std::string& message)
      : std::runtime_error(message), code_(code) {}
  grpc::StatusCode code() const noexcept { return code_; }
  grpc::Status status() const { return {code_, what()}; }

 private:
  grpc::StatusCode code_;
};

// The tree the target serves (docs/gnmi.md, schema version kGnmiModelVersion):
//   /agent/state/<leaf>
//   /tables/table[name=T]/state/<leaf>
//   /tables/table[name=T]/units/unit[id=U]/state/<leaf>
//   /tables/table[name=T]/units/unit[id=U]/entries/entry[<key field>=<text>,...]/<leaf>
// A name or key given as "*", or left out, stands for every one. table[since=V] asks a
// subscription for the changes after version V of that table.
struct PathSelector {
  enum Part : uint8_t { agentState = 1, tableState = 2, unitState = 4, entries = 8, all = 15 };
  uint8_t parts = all;
  std::optional<size_t> table;  // catalogue index
  std::optional<uint64_t> since;
  std::optional<uint16_t> unit;
  // Key fields that must read as given (the printed form: "1/0xffffffff"), by name.
  std::vector<std::pair<std::string, std::string>> keyFields;
  std::string leaf;  // empty: every leaf

  bool has(Part part) const noexcept { return (parts & part) != 0; }
  bool selectsTable(size_t t) const noexcept { return !table || *table == t; }
  bool selectsUnit(uint16_t u) const noexcept { return !unit || *unit == u; }
};

// The selector of prefix + path. Throws GnmiError: INVALID_ARGUMENT for a name, key or
// value the tree has not got, UNIMPLEMENTED for an origin other than "" or "vesktap".
PathSelector selectorOf(const gnmi::Path& prefix, const gnmi::Path& path);

// A leaf's value as the schema types it.
using LeafValue = std::variant<bool, uint64_t, double, std::string>;
struct Leaf {
  std::string_view name;  // static: the schema's or a field table's
  LeafValue value;
};

// One container of the tree with its leaves: what one notification carries.
struct Node {
  gnmi::Path path;
  std::vector<Leaf> leaves;
};

// The leaves of the state containers, in the order they are sent.
inline constexpr std::string_view kAgentLeaves[] = {"status", "running", "pid", "restoredEntries",
                                                    "restoreMs"};
inline constexpr std::string_view kTableLeaves[] = {"tableId",
                                                    "committedVersion",
                                                    "hardwareTakenVersion",
                                                    "hardwareLag",
                                                    "changeLogRecords",
                                                    "changeLogCapacity",
                                                    "changeLogUsedPercent",
                                                    "oldestVersion",
                                                    "resync"};
inline constexpr std::string_view kUnitLeaves[] = {
    "entries",        "tombstones",      "capacity",  "usedPercent",        "level",
    "warningPercent", "criticalPercent", "tcamLines", "tcamAppliedVersion", "notInHardware",
    "error"};
// An entry's leaves besides its fields.
inline constexpr std::string_view kEntryLeaves[] = {"version", "inHardware"};

// Paths of the tree.
gnmi::Path agentStatePath();
gnmi::Path tablePath(std::string_view table);
gnmi::Path unitPath(std::string_view table, uint16_t unit);
// `keyFields`: name and printed value of every key field.
gnmi::Path entryPath(std::string_view table, uint16_t unit,
                     std::span<const std::pair<std::string, std::string>> keyFields);
// "/tables/table[name=T]/..." as collectors print paths.
std::string pathText(const gnmi::Path& path);

// The encodings served: JSON and JSON_IETF (a container as one JSON object, a leaf as its
// JSON value) and PROTO (each leaf its own typed update). Throws GnmiError UNIMPLEMENTED
// for any other, naming these.
gnmi::Encoding checkedEncoding(gnmi::Encoding encoding);

// The notification of a node: prefix the node's path, its leaves (or only `leaf`) as
// updates in `encoding`. Empty (no update) when `leaf` is not one of the node's. The first
// form fills `n` (a message on an arena, say), which must be empty.
void fillNotification(gnmi::Notification& n, const Node& node, gnmi::Encoding encoding,
                      std::string_view leaf, int64_t timestamp, uint32_t duplicates = 0);
// The same, taking the node's path instead of copying it.
void fillNotification(gnmi::Notification& n, Node&& node, gnmi::Encoding encoding,
                      std::string_view leaf, int64_t timestamp, uint32_t duplicates = 0);
gnmi::Notification notificationOf(const Node& node, gnmi::Encoding encoding, std::string_view leaf,
                                  int64_t timestamp, uint32_t duplicates = 0);

// Nanoseconds since the Unix epoch, now.
int64_t nowNs();

}  // namespace VeskTool
