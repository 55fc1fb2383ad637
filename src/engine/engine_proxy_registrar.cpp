// The hand-over to the registrar.

#include <utility>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "registrar/local_registrar.h"
#include "siplib/transaction.h"

void IMS_engine_proxy::handle_registrar_register_message(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "ssc=%p", static_cast<void*>(request));
  if (local_registrar != nullptr) local_registrar->handle_register(request);
}

void IMS_engine_proxy::handle_registrar_subscribe_message(SIPLIB_SIPServerConnection* request) {
  IMS_log::loginfo(5, __func__, "ssc=%p", static_cast<void*>(request));
  if (local_registrar != nullptr) local_registrar->handle_subscribe(request);
}

void IMS_engine_proxy::handle_registrar_response_message(SIPLIB_SIPClientConnection* response) {
  IMS_log::loginfo(5, __func__, "message=%p", static_cast<void*>(response));
  if (local_registrar != nullptr) local_registrar->handle_response(response);
}

void IMS_engine_proxy::handle_registrar_refresh_message(std::string& text) {
  if (local_registrar != nullptr) local_registrar->handle_refresh(text);
}

int IMS_engine_proxy::get_credentials_from_registrar(std::string profile_id, std::string& first, std::string& second,
                                                     std::string& third) {
  if (local_registrar == nullptr) return 0;
  return local_registrar->get_profile_credentials(std::move(profile_id), first, second, third);
}
