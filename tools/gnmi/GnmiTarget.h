#pragma once

#include <atomic>
#include <cstddef>

#include "gnmi/gnmi.grpc.pb.h"
#include "tools/gnmi/GnmiFeed.h"

namespace VeskTool {

// The name and version of the path schema this target serves (docs/gnmi.md), as
// Capabilities tells it.
inline constexpr const char* kGnmiModel = "vesktap-tables";
inline constexpr const char* kGnmiModelOrganization = "VeskTap";
inline constexpr const char* kGnmiModelVersion = "1";
inline constexpr const char* kGnmiVersion = "0.10.0";

// The gNMI service of the shared-memory root: read-only, it reads through its feed (one
// reader thread) and never writes. Set is not declared, so gRPC answers it UNIMPLEMENTED.
// At most `maxStreams` Subscribe RPCs run at once; more are refused RESOURCE_EXHAUSTED.
// Subscribe is served through gRPC's callback API with raw messages: no thread per stream,
// and each response serialised once for its write. Owned by the program's server; gRPC
// calls it from its own threads.
class GnmiTarget final : public gnmi::gNMI::WithRawCallbackMethod_Subscribe<gnmi::gNMI::Service> {
 public:
  GnmiTarget(GnmiFeed& feed, size_t maxStreams) : feed_(feed), maxStreams_(maxStreams) {}

  grpc::Status Capabilities(grpc::ServerContext* context, const gnmi::CapabilityRequest* request,
                            gnmi::CapabilityResponse* response) override;
  grpc::Status Get(grpc::ServerContext* context, const gnmi::GetRequest* request,
                   gnmi::GetResponse* response) override;
  grpc::ServerBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* Subscribe(
      grpc::CallbackServerContext* context) override;

 private:
  GnmiFeed& feed_;
  const size_t maxStreams_;
  std::atomic<size_t> streams_{0};
};

}  // namespace VeskTool
