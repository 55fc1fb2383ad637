// The user-agent text that the proxy and registrar put into messages.
#pragma once

#include <string>

class IMS_LocalRegistrar {
 public:
  /// "ue-proxy/VERSION".
  static std::string form_user_agent_header();
};
