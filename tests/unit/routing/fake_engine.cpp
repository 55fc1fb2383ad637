// The engine's statics that the routing table uses, played by the running test's FakeEngine.
#include "engine/engine_proxy.h"

#include <strings.h>

#include "routing_fixture.h"

FakeEngine* fake_engine = nullptr;

std::string IMS_engine_proxy::localhost_ip = "127.0.0.1";
std::string IMS_engine_proxy::localhost_port;
std::string IMS_engine_proxy::net_intf_ip;
std::string IMS_engine_proxy::net_intf_port;
IMS_Proxy_Authenticate* IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;

RoutingTable::RoutingTable() {
  fake_engine = &engine;
  IMS_engine_proxy::localhost_port = "5060";
  IMS_engine_proxy::net_intf_ip.clear();
  IMS_engine_proxy::net_intf_port = "5062";
  IMS_engine_proxy::ims_proxy_auth_ptr = &engine.store;
}

RoutingTable::~RoutingTable() {
  fake_engine = nullptr;
  IMS_engine_proxy::ims_proxy_auth_ptr = nullptr;
}

bool IMS_engine_proxy::is_tcp(const std::string& transport) {
  return strcasecmp(transport.c_str(), "TCP") == 0;
}

SIPLIB_SIPTransportConnection* IMS_engine_proxy::open_client_connection(const std::string& transport,
                                                                        const std::string& source_ip, int source_port,
                                                                        const std::string& ip, int port) {
  fake_engine->opened.push_back({transport, source_ip, source_port, ip, port});
  return fake_engine->refuse_connections ? nullptr : &fake_engine->connections.emplace_back();
}

void IMS_engine_proxy::close_client_connection(SIPLIB_SIPClientTcpTransport* connection) {
  fake_engine->closed.push_back(connection);
}

void IMS_engine_proxy::keep_places_for_proxies(const std::vector<std::string>& addresses) {
  fake_engine->proxies = addresses;
}

SIPLIB_SIPTransportNotifier* IMS_engine_proxy::open_net_notifier(const std::string& ip, std::string& port) {
  fake_engine->notifiers.push_back(ip + ":" + port);
  return fake_engine->refuse_notifiers ? nullptr : &fake_engine->notifier;
}
