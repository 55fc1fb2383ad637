// The engine's statics that the routing table uses: everything opens, and nothing is behind it.
#include "engine/engine_proxy.h"

#include "auth_fixture.h"

std::string IMS_engine_proxy::localhost_ip = "127.0.0.1";
std::string IMS_engine_proxy::localhost_port = "5060";
std::string IMS_engine_proxy::net_intf_ip = "127.0.0.2";
std::string IMS_engine_proxy::net_intf_port = "5060";
IMS_Proxy_Authenticate* IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;

bool IMS_engine_proxy::is_tcp(const std::string&) {
  return false;
}
SIPLIB_SIPTransportConnection* IMS_engine_proxy::open_client_connection(const std::string&, const std::string&, int,
                                                                        const std::string&, int) {
  static FakeClientTcp connection;
  return &connection;
}
void IMS_engine_proxy::close_client_connection(SIPLIB_SIPClientTcpTransport*) {
}
void IMS_engine_proxy::keep_places_for_proxies(const std::vector<std::string>&) {
}
SIPLIB_SIPTransportNotifier* IMS_engine_proxy::open_net_notifier(const std::string&, std::string&) {
  static FakeNotifier notifier;
  return &notifier;
}

Authenticate::Authenticate() {
  IMS_engine_proxy::ims_proxy_auth_ptr = &auth;
  home = add_domain("home", "alice", "secret");
  k = add_client("6000");
  k1 = add_client("6001");
  k2 = add_client("6002");
}

Authenticate::~Authenticate() {
  IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
  IMS_Proxy_Authenticate::rt_ptr = nullptr;
}
