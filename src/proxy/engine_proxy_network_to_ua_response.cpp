// The network's answers to requests of local user agents. All that leads one back is the top Via.

#include <memory>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "proxy/forwarding.h"
#include "proxy/network_gate.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"
#include "siplib/header.h"

namespace {

/// Has the authentication store remember a challenge of a domain that leaves its challenges to the proxy. The client
/// gets the challenge all the same. Before the Via is restored: it names the profile.
void learn_challenge(const char* function, SIPLIB_SIPTransportConnection* connection, const std::string& client_key) {
  const IMS_Proxy_RoutingTable_Impl& table = *IMS_engine_proxy::rt;
  IMS_Proxy_Authenticate* auth = IMS_engine_proxy::ims_proxy_auth_ptr;
  if (!auth->is_request_challenged(connection)) return;
  IMS_log::loginfo(5, function, "Request is CHALLENGED");
  std::string profile;
  std::string domain_key;
  if (IMS_engine_proxy::get_profile_id_from_via(connection, profile)) {
    domain_key = table.findDomain(DT_PROFILE_ID, profile);
  } else if (const RoutingTable_Entry_T* client = table.client(client_key)) {
    domain_key = client->domain_key;
  }
  const DomainTable_Entry_T* domain = table.domain(domain_key);
  const std::string mode = domain != nullptr ? domain->domain.op_mode : std::string();
  IMS_log::loginfo(5, function, "Mode is %s, domain key is %s", mode.c_str(), domain_key.c_str());
  if (auth->is_mode_ietf_shared(mode)) auth->update_auth_info_for_response(connection, domain_key);
}

/// What TCP and UDP have in common: everything but the sending. False when the response was dropped.
bool restore_response(const char* function, IMS_engine_proxy& engine, SIPLIB_SIPTransportConnection* connection,
                      std::string& client_key, std::string& st_tag) {
  IMS_log::loginfo(5, function, "Received a response on connection=%p", static_cast<const void*>(connection));
  if (!network_gate::admits_response(function, connection)) return false;
  siplib::Scratch via;
  if (!engine.update_network_to_ua_response_via_contact(connection, via, client_key, st_tag)) {
    IMS_log::loginfo(3, function, "ERROR: check why returning client_key=%s, stag=%s", client_key.c_str(),
                     st_tag.c_str());
    return false;
  }
  learn_challenge(function, connection, client_key);
  connection->setHeader("Via", via);
  return true;
}

}  // namespace

bool IMS_engine_proxy::update_network_to_ua_response_via_contact(SIPLIB_SIPTransportConnection* connection,
                                                                 std::string& via, std::string& client_key,
                                                                 std::string& st_tag) {
  client_key.clear();
  const std::unique_ptr<SIPLIB_SIPHeader> via_header = forwarding::read_via(connection, via);
  if (!via_header) {
    IMS_log::loginfo(3, __func__, "createSIPHeaderObject failed for viah");
    return false;
  }
  const std::string tag = get_client_key_from_via(client_key, via);
  get_parameter("st", via, st_tag);
  IMS_log::loginfo(5, __func__, "Via Client key=%s;st=%s", client_key.c_str(), st_tag.c_str());
  const RoutingTable_Entry_T* client = forwarding::user_agent(client_key);
  if (client == nullptr || st_tag.empty()) {
    IMS_log::loginfo(3, __func__, "ERROR: Either client key/tag is empty");
    return false;
  }
  via_header->setParameter("host", localhost_ip);
  via_header->setParameter("port", client->ua_port);
  via_header->getHeaderValue(via);
  forwarding::cut_from(via, tag);
  if (!network_gate::admits_contact(__func__, connection, tag)) return false;
  siplib::Scratch contact;
  forwarding::tag_contact(connection, tag, contact);
  return true;
}

void IMS_engine_proxy::process_network_to_ua_tcp_response(SIPLIB_SIPTransportConnection* connection) {
  std::string client_key;
  siplib::Scratch st_tag;
  if (!restore_response(__func__, *this, connection, client_key, st_tag)) return;
  forwarding::send_response(__func__, connection, st_tag, forwarding::Side::kUserAgents, client_key);
}

void IMS_engine_proxy::process_network_to_ua_udp_response(SIPLIB_SIPTransportConnection* connection) {
  std::string client_key;
  siplib::Scratch st_tag;
  if (!restore_response(__func__, *this, connection, client_key, st_tag)) return;
  const RoutingTable_Entry_T& client = *rt->client(client_key);
  if (const void* sent_on = forwarding::send_udp_to_client(__func__, connection, client_key, client)) {
    IMS_log::loginfo(5, __func__, "Sent the response on connection=%p", sent_on);
  }
}
