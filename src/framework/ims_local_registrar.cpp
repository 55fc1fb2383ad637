#include "framework/ims_local_registrar.h"

std::string IMS_LocalRegistrar::form_user_agent_header() {
  return "ue-proxy/" UE_PROXY_VERSION;
}
