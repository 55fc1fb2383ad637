// The operations of the authentication store that the routing table calls.
#include "routing_fixture.h"

bool IMS_Proxy_Authenticate::delete_auth_info(std::string domain_key) {
  fake_engine->dropped_domains.push_back(domain_key);
  return true;
}

bool IMS_Proxy_Authenticate::delete_client_auth_info(std::string domain_key, std::string client_key) {
  fake_engine->dropped_clients.emplace_back(domain_key, client_key);
  return false;
}

void IMS_Proxy_Authenticate::forget_client(const std::string& client_key) {
  fake_engine->forgotten_clients.push_back(client_key);
}
