// The engine's hold on the registrar.
#pragma once

#include <string>

class IMSE_Registrar;
class IMS_engine_proxy;
class SIPLIB_SIPClientConnection;
class SIPLIB_SIPServerConnection;

/// Every operation does nothing while the registrar is not initialised. Loop thread only.
class IMS_local_registrar {
 public:
  /// Creates the registrar from the engine's connector, routing table and client-connection listener. Always 0.
  int initialize(IMS_engine_proxy* engine);
  int handle_register(SIPLIB_SIPServerConnection* request);
  int handle_subscribe(SIPLIB_SIPServerConnection* request);
  int handle_response(SIPLIB_SIPClientConnection* response);
  int handle_refresh(std::string& text);
  /// The credentials of a network profile: private identity, secret, operation mode. 1 when found, 0 (texts untouched)
  /// otherwise.
  int get_profile_credentials(std::string profile_id, std::string& first, std::string& second, std::string& third);

 private:
  IMSE_Registrar* registrar_ = nullptr;
};
