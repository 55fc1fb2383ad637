// As much of the engine as IMS_local_registrar looks at, so that this program links without the folders beside.

#include "engine/engine_proxy.h"
#include "framework/listeners.h"

IMS_Proxy_RoutingTable_Intf* IMS_engine_proxy::rtintf = nullptr;

IMS_engine_proxy::IMS_engine_proxy()
    : server_conn_listener_(nullptr),
      client_conn_listener_(new IMS_UA_SipClientConnListener(this)),
      dialog_listener_(nullptr) {
}
IMS_engine_proxy::~IMS_engine_proxy() {
  delete client_conn_listener_;
}

void IMS_engine_proxy::print_usage() {
}
void IMS_engine_proxy::handle_notify_tcp_request(SIPLIB_SIPConnection*) {
}
void IMS_engine_proxy::handle_notify_tcp_response(SIPLIB_SIPConnection*) {
}
void IMS_engine_proxy::handle_notify_tcp_incoming_conn(SIPLIB_SIPConnection*) {
}
void IMS_engine_proxy::handle_notify_tcp_conn_closed(SIPLIB_SIPConnection*) {
}
void IMS_engine_proxy::handle_notify_udp_message(SIPLIB_SIPConnection*) {
}
unsigned int IMS_engine_proxy::get_event_id_from_message(void*) {
  return 0;
}
