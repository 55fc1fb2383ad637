// Requests of local user agents that go to their domain's network proxy.

#include <memory>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "framework/log.h"
#include "framework/utility.h"
#include "proxy/forwarding.h"
#include "routing/routing_table_impl.h"
#include "siplib/address.h"
#include "siplib/connection.h"
#include "siplib/header.h"

namespace {

/// A request outside a dialog: the client is who sent it, the domain its own or, for a REGISTER or SUBSCRIBE, the one
/// that it names. False with one line when no client has the port.
bool route_fresh_request(const char* function, SIPLIB_SIPTransportConnection* connection, const SIPLIB_SIPHeader& via,
                         const std::string& method, std::string& tags, std::string& client_key,
                         std::string& domain_key) {
  const IMS_Proxy_RoutingTable_Impl& table = *IMS_engine_proxy::rt;
  std::string port;
  via.getParameter("port", port);
  client_key = table.findClient(CF_UA_PORT, port);
  if (client_key.empty()) {
    IMS_log::loginfo(4, function, "ERROR: Can't find any client for port=%d", portNumber(port));
    return false;
  }
  std::string profile;
  const bool has_profile = connection->getHeader("Zel-Profile-ID", profile) == 0;
  if (has_profile && (method == "REGISTER" || method == "SUBSCRIBE")) {
    domain_key = table.findDomain(DT_PROFILE_ID, profile);
    IMS_log::loginfo(5, function, "Removing Zel-Profile-ID=%s from method=%s", profile.c_str(), method.c_str());
    forwarding::remove_profile_id(connection);
    if (!profile.empty()) {
      IMS_log::loginfo(5, function, "Adding profile-ID to request- profile is %s", profile.c_str());
      tags += ";profile=" + profile;
    }
  } else if (const RoutingTable_Entry_T* client = table.client(client_key)) {
    domain_key = client->domain_key;
  }
  tags += ";mok=" + client_key;
  IMS_log::loginfo(5, function, "FRESH REQUEST, Client key=%s;Domain key=%s", client_key.c_str(), domain_key.c_str());
  return true;
}

/// What TCP and UDP have in common: everything but the st tag and the sending. The domain; null when the request was
/// dropped.
const DomainTable_Entry_T* prepare_request(const char* function, IMS_engine_proxy& engine,
                                           SIPLIB_SIPTransportConnection* connection, const std::string& method,
                                           SIPLIB_SIPAddress* from, SIPLIB_SIPAddress* to, std::string& via,
                                           std::string& domain_key) {
  IMS_log::loginfo(5, function, "Received a request on connection=%p", static_cast<const void*>(connection));
  std::string client_key;
  if (!engine.update_ua_to_network_request_via_contact(connection, from, to, method, via, client_key, domain_key)) {
    IMS_log::loginfo(3, function, "ERROR: check why domain_key empty");
    return nullptr;
  }
  const DomainTable_Entry_T* domain = IMS_engine_proxy::rt->domain(domain_key);
  // Credentials where the domain has the proxy answer its challenges. What comes of it decides nothing: the request is
  // sent with or without.
  IMS_Proxy_Authenticate* auth = IMS_engine_proxy::ims_proxy_auth_ptr;
  if (auth->is_mode_ietf_shared(domain->domain.op_mode)) {
    auth->update_auth_info_for_request(connection, domain_key, client_key);
  }
  return domain;
}

}  // namespace

bool IMS_engine_proxy::update_ua_to_network_request_via_contact(SIPLIB_SIPTransportConnection* connection,
                                                                SIPLIB_SIPAddress* /*from*/, SIPLIB_SIPAddress* /*to*/,
                                                                const std::string& method, std::string& via,
                                                                std::string& client_key, std::string& domain_key) {
  domain_key.clear();
  const std::unique_ptr<SIPLIB_SIPHeader> via_header = forwarding::read_via(connection, via);
  if (!via_header) {
    IMS_log::loginfo(3, __func__, "createSIPHeaderObject failed for viah");
    return false;
  }
  const forwarding::RequestUri uri(__func__, connection);

  std::string tags;
  if (!uri.in_dialog()) {
    if (!route_fresh_request(__func__, connection, *via_header, method, tags, client_key, domain_key)) return false;
  } else {
    // Deliberate: the tag written later is the one of this side. Requests from the network go by the earlier one.
    tags = forwarding::dialog_tag(__func__, uri, forwarding::Wins::kLater, client_key);
    if (const RoutingTable_Entry_T* client = rt->client(client_key)) domain_key = client->domain_key;
    IMS_log::loginfo(5, __func__, "SUBSEQUENT REQUEST, Client key=%s;Domain key=%s", client_key.c_str(),
                     domain_key.c_str());
  }
  // A key can name a record that is gone (a deleted client, a forged tag, a refused domain): that is no key either.
  const RoutingTable_Entry_T* client = rt->client(client_key);
  const DomainTable_Entry_T* domain = rt->domain(domain_key);
  if (client == nullptr || domain == nullptr) {
    IMS_log::loginfo(4, __func__, "ERROR: Either client or domain key is empty");
    return false;
  }
  IMS_log::loginfo(5, __func__, "string to be added in Via and Contact is %s", tags.c_str());

  // Deliberate: the TCP address also for a request that leaves over UDP; both listen on the same one.
  std::string ip;
  int port = 0;
  if (!forwarding::current_address(__func__, domain_key, *domain, "TCP", ip, port)) return false;
  via_header->setParameter("host", ip);
  via_header->setParameter("port", IMS_utility::itostring(port));
  via_header->getHeaderValue(via);
  via += tags;

  siplib::Scratch contact;
  if (connection->getHeader("Contact", contact) == 0) {
    const std::unique_ptr<SIPLIB_SIPAddress> address(SIPLIB_SIPAddress::createSIPAddressObject("Contact", contact));
    if (!address) {
      IMS_log::loginfo(3, __func__, "createSIPAddressObject failed for addr");
      return false;
    }
    address->setHost(ip);
    address->setPort(port);
    address->setUser("");
    contact = address->toString();
    // Deliberate: a registered contact stays bare, so that the network's fresh requests carry no tag.
    if (method != "REGISTER") forwarding::insert_tags(contact, tags);
    connection->setHeader("Contact", contact);
  }

  for (const ClientHeader_T& extra : client->headers) {
    IMS_log::loginfo(5, __func__, "Adding Header: %s=%s", extra.name.c_str(), extra.value.c_str());
    connection->addHeader(extra.name, extra.value);
  }
  forwarding::add_user_agent(__func__, connection);
  return true;
}

void IMS_engine_proxy::process_ua_to_network_tcp_request(SIPLIB_SIPTransportConnection* connection,
                                                         const std::string& method, SIPLIB_SIPAddress* from,
                                                         SIPLIB_SIPAddress* to) {
  siplib::Scratch via;
  std::string domain_key;
  const DomainTable_Entry_T* domain = prepare_request(__func__, *this, connection, method, from, to, via, domain_key);
  if (domain == nullptr) return;
  const std::string& st_tag = find_tcp_server_conn(connection);
  if (!st_tag.empty()) via.append(";st=").append(st_tag);
  connection->setHeader("Via", via);

  SIPLIB_SIPTransportConnection* network = domain->tcp_client_conn;
  if (!forwarding::is_there(__func__, network, "domain", domain_key)) return;
  network->setSipMessageHandle(connection->getSipMessageHandle());
  if (!forwarding::send(__func__, network, "domain", domain_key)) return;
  IMS_log::loginfo(5, __func__, "Sent the request on connection=%p", static_cast<const void*>(network));
}

void IMS_engine_proxy::process_ua_to_network_udp_request(SIPLIB_SIPTransportConnection* connection,
                                                         const std::string& method, SIPLIB_SIPAddress* from,
                                                         SIPLIB_SIPAddress* to) {
  siplib::Scratch via;
  std::string domain_key;
  const DomainTable_Entry_T* domain = prepare_request(__func__, *this, connection, method, from, to, via, domain_key);
  if (domain == nullptr) return;
  via += ";st=0";
  connection->setHeader("Via", via);
  if (const void* sent_on = forwarding::send_udp_to_network(__func__, connection, domain_key, *domain)) {
    IMS_log::loginfo(5, __func__, "Sent the request on connection=%p", sent_on);
  }
}
