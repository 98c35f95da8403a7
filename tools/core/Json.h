#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

namespace VeskTool {

// The JSON the tools print (`show --json`, `agent --report-json`) and the Python module
// returns. Keys keep the order they were set in, so output is stable and reads top down.
using Json = nlohmann::ordered_json;

// The version of the documents' layout, described in docs/json.md and checked against
// docs/vesktap.schema.json: raised when a field changes meaning or goes away (new fields
// alone do not raise it).
inline constexpr int kJsonSchemaVersion = 1;

// A document's first two fields: {"schemaVersion": 1, "kind": kind}.
inline Json jsonDocument(std::string_view kind) {
  Json j;
  j["schemaVersion"] = kJsonSchemaVersion;
  j["kind"] = kind;
  return j;
}

// How full a bounded collection is, as a resource monitor tells it: "ok" below 70%,
// "warning" from 70%, "critical" from 85%.
inline std::string_view capacityLevel(double used) {
  return used >= 0.85 ? "critical" : used >= 0.70 ? "warning" : "ok";
}

}  // namespace VeskTool
