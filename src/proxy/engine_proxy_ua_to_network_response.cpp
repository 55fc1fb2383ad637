// Local user agents' answers to requests of the network.

#include <memory>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "proxy/forwarding.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"
#include "siplib/header.h"

namespace {

/// What TCP and UDP have in common: everything but the sending. False when the response was dropped.
bool restore_response(const char* function, IMS_engine_proxy& engine, SIPLIB_SIPTransportConnection* connection,
                      std::string& domain_key, std::string& st_tag) {
  IMS_log::loginfo(5, function, "Received a response on connection=%p", static_cast<const void*>(connection));
  siplib::Scratch via;
  if (!engine.update_ua_to_network_response_via_contact(connection, via, domain_key, st_tag)) {
    IMS_log::loginfo(3, function, "ERROR: check why returning domain_key=%s, stag=%s", domain_key.c_str(),
                     st_tag.c_str());
    return false;
  }
  connection->setHeader("Via", via);
  return true;
}

}  // namespace

bool IMS_engine_proxy::update_ua_to_network_response_via_contact(SIPLIB_SIPTransportConnection* connection,
                                                                 std::string& via, std::string& domain_key,
                                                                 std::string& st_tag) {
  const std::unique_ptr<SIPLIB_SIPHeader> via_header = forwarding::read_via(connection, via);
  if (!via_header) {
    IMS_log::loginfo(3, __func__, "createSIPHeaderObject failed for viah");
    return false;
  }
  std::string client_key;
  const std::string tag = get_client_key_from_via(client_key, via);
  get_parameter("st", via, st_tag);
  const RoutingTable_Entry_T* client = rt->client(client_key);
  // A client may answer by way of another profile than its own.
  std::string profile;
  if (!client_key.empty() && connection->getHeader("Zel-Profile-ID", profile) == 0) {
    domain_key = rt->findDomain(DT_PROFILE_ID, profile);
    forwarding::remove_profile_id(connection);
  } else if (client != nullptr) {
    domain_key = client->domain_key;
  }
  IMS_log::loginfo(5, __func__, "Domain key=%s;Client key=%s;st=%s", domain_key.c_str(), client_key.c_str(),
                   st_tag.c_str());
  const DomainTable_Entry_T* domain = rt->domain(domain_key);
  if (client == nullptr || domain == nullptr || st_tag.empty()) {
    IMS_log::loginfo(3, __func__, "ERROR: Either client/domain key/tag is empty");
    return false;
  }
  const Domain_Entry_T& proxy = domain->domain;
  IMS_log::loginfo(5, __func__, " NW Proxy Address (ip:port) (%s:%s)", proxy.proxy_ip.c_str(),
                   proxy.proxy_port.c_str());
  via_header->setParameter("host", proxy.proxy_ip);
  via_header->setParameter("port", proxy.proxy_port);
  siplib::Scratch branch;
  if (via_header->getParameter("branch", branch) == 0 && branch == forwarding::kNoBranch) {
    via_header->removeParameter("branch");
  }
  via_header->getHeaderValue(via);
  forwarding::cut_from(via, tag);
  siplib::Scratch contact;
  forwarding::tag_contact(connection, tag, contact);
  forwarding::add_user_agent(__func__, connection);
  return true;
}

void IMS_engine_proxy::process_ua_to_network_tcp_response(SIPLIB_SIPTransportConnection* connection) {
  std::string domain_key;
  siplib::Scratch st_tag;
  if (!restore_response(__func__, *this, connection, domain_key, st_tag)) return;
  forwarding::send_response(__func__, connection, st_tag, forwarding::Side::kNetwork, domain_key);
}

void IMS_engine_proxy::process_ua_to_network_udp_response(SIPLIB_SIPTransportConnection* connection) {
  std::string domain_key;
  siplib::Scratch st_tag;
  if (!restore_response(__func__, *this, connection, domain_key, st_tag)) return;
  const DomainTable_Entry_T& domain = *rt->domain(domain_key);
  if (const void* sent_on = forwarding::send_udp_to_network(__func__, connection, domain_key, domain)) {
    IMS_log::loginfo(5, __func__, "Sent the response on conn=%p", sent_on);
  }
}
