#include "tools/gnmi/GnmiTarget.h"

namespace VeskTool {

grpc::Status GnmiTarget::Capabilities(grpc::ServerContext*, const gnmi::CapabilityRequest*,
                                      gnmi::CapabilityResponse* response) {
  gnmi::ModelData* model = response->add_supported_models();
  model->set_name(kGnmiModel);
  model->set_organization(kGnmiModelOrganization);
  model->set_version(kGnmiModelVersion);
  response->add_supported_encodings(gnmi::JSON_IETF);
  response->add_supported_encodings(gnmi::PROTO);
  response->set_gnmi_version(kGnmiVersion);
  return grpc::Status::OK;
}

}  // namespace VeskTool
