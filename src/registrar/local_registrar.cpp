#include "registrar/local_registrar.h"

#include "engine/engine_proxy.h"
#include "framework/listeners.h"
#include "registrar/registrar.h"

int IMS_local_registrar::initialize(IMS_engine_proxy* engine) {
  registrar_ = IMSE_Registrar::init_registrar(IMS_User_Agent::ua_connector, IMS_engine_proxy::rtintf,
                                              engine->client_connection_listener());
  return 0;
}

int IMS_local_registrar::handle_register(SIPLIB_SIPServerConnection* request) {
  if (registrar_ != nullptr) registrar_->handle_registrar_register_message(request);
  return 0;
}

int IMS_local_registrar::handle_subscribe(SIPLIB_SIPServerConnection* request) {
  if (registrar_ != nullptr) registrar_->handle_registrar_subscribe_message(request);
  return 0;
}

int IMS_local_registrar::handle_response(SIPLIB_SIPClientConnection* response) {
  if (registrar_ != nullptr) registrar_->handle_registrar_response_message(response);
  return 0;
}

int IMS_local_registrar::handle_refresh(std::string& text) {
  if (registrar_ != nullptr) registrar_->handle_registrar_refresh_message(text);
  return 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value, as the engine's operation before it.
int IMS_local_registrar::get_profile_credentials(std::string profile_id, std::string& first, std::string& second,
                                                 std::string& third) {
  return registrar_ != nullptr ? registrar_->get_profile_credentials(profile_id, first, second, third) : 0;
}
