#pragma once

#include <string>

#include "gnmi/gnmi.grpc.pb.h"

namespace VeskTool {

// The name and version of the path schema this target serves (docs/gnmi.md), as
// Capabilities tells it.
inline constexpr const char* kGnmiModel = "vesktap-tables";
inline constexpr const char* kGnmiModelOrganization = "VeskTap";
inline constexpr const char* kGnmiModelVersion = "1";
inline constexpr const char* kGnmiVersion = "0.10.0";

// The gNMI service of the shared-memory root: read-only, it mounts what it reads as `show`
// does and never writes. Set is not declared, so gRPC answers it UNIMPLEMENTED. Owned by
// the program's server; gRPC calls it from its own threads.
class GnmiTarget final : public gnmi::gNMI::Service {
 public:
  grpc::Status Capabilities(grpc::ServerContext* context, const gnmi::CapabilityRequest* request,
                            gnmi::CapabilityResponse* response) override;
};

}  // namespace VeskTool
