// Requests of the network for a local user agent.

#include <memory>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "proxy/forwarding.h"
#include "proxy/network_gate.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"
#include "siplib/header.h"

namespace {

/// These wait for a person or another party; the network is told at once that they arrived.
bool wants_100_trying(const std::string& method) {
  return method == "INVITE" || method == "REFER";
}

/// The last step: the tags are written, the message goes.
bool finish(const char* function, SIPLIB_SIPTransportConnection* client, const std::string& client_key,
            const std::string& via, const std::string& contact) {
  client->setHeader("Via", via);
  if (!contact.empty()) client->setHeader("Contact", contact);
  return forwarding::send(function, client, "client", client_key);
}

}  // namespace

bool IMS_engine_proxy::update_network_to_ua_request_via_contact(SIPLIB_SIPTransportConnection* connection,
                                                                SIPLIB_SIPAddress* from, SIPLIB_SIPAddress* to,
                                                                const std::string& method, std::string& via,
                                                                std::string& contact, std::string& client_key,
                                                                std::string& domain_key) {
  client_key.clear();
  domain_key.clear();
  const std::unique_ptr<SIPLIB_SIPHeader> via_header = forwarding::read_via(connection, via);
  if (!via_header) {
    IMS_log::loginfo(3, __func__, "createSIPHeaderObject failed for viah");
    return false;
  }
  const forwarding::RequestUri uri(__func__, connection);

  std::string tag;
  if (!uri.in_dialog()) {
    find_domain_and_client_network_to_ua_request(connection, from, to, method, domain_key, client_key);
    IMS_log::loginfo(5, __func__, "FRESH REQUEST, Domain key=%s, Client key=%s", domain_key.c_str(),
                     client_key.c_str());
    tag = ";mtk=" + client_key;
  } else {
    // Deliberate: the tag written earlier is the one of this side. Requests to the network go by the later one.
    tag = forwarding::dialog_tag(__func__, uri, forwarding::Wins::kEarlier, client_key);
    std::string profile;
    if (!client_key.empty() && get_parameter("profile", uri.text, profile)) {
      IMS_log::loginfo(5, __func__, "SUBSEQUENT Request for REG_UA");
      domain_key = rt->findDomain(DT_PROFILE_ID, profile);
    } else if (const RoutingTable_Entry_T* client = rt->client(client_key)) {
      domain_key = client->domain_key;
    }
    IMS_log::loginfo(5, __func__, "SUBSEQUENT REQUEST, Client key=%s;Domain key=%s", client_key.c_str(),
                     domain_key.c_str());
  }
  // A key can name a record that is gone (a deleted client, a forged tag, a refused domain) or the proxy itself: that
  // is no key either.
  const DomainTable_Entry_T* domain = rt->domain(domain_key);
  if (domain == nullptr || forwarding::user_agent(client_key) == nullptr) {
    IMS_log::loginfo(3, __func__, "ERROR: check why client or domain key empty");
    return false;
  }
  IMS_log::loginfo(5, __func__, "string to be added in Via and Contact is %s", tag.c_str());

  siplib::Scratch host, branch;
  std::string port = "5060";
  via_header->getParameter("host", host);
  via_header->getParameter("port", port);
  if (via_header->getParameter("branch", branch) != 0) {
    via_header->setParameter("branch", forwarding::kNoBranch);
    IMS_log::loginfo(5, __func__, "set Branch ");
  }
  // Only the domain's own proxy may ask, under exactly the name that it was set with.
  const Domain_Entry_T& proxy = domain->domain;
  IMS_log::loginfo(5, __func__, "Via ip:port(%s:%s) Domain table entry ip:port(%s:%s)", host.c_str(), port.c_str(),
                   proxy.proxy_ip.c_str(), proxy.proxy_port.c_str());
  if (host != proxy.proxy_ip || port != proxy.proxy_port) {
    IMS_log::loginfo(3, __func__, "ERROR ? : Request coming from ip:port not in the domain table");
    return false;
  }
  via_header->setParameter("host", localhost_ip);
  via_header->setParameter("port", localhost_port);
  via_header->getHeaderValue(via);
  via += tag;
  if (!network_gate::admits_contact(__func__, connection, tag)) return false;
  forwarding::tag_contact(connection, tag, contact);
  return true;
}

void IMS_engine_proxy::process_network_to_ua_tcp_request(SIPLIB_SIPTransportConnection* connection,
                                                         const std::string& method, SIPLIB_SIPAddress* from,
                                                         SIPLIB_SIPAddress* to) {
  if (!network_gate::admits_request(__func__, connection, method, from)) return;
  siplib::Scratch via, contact;
  std::string client_key, domain_key;
  if (!update_network_to_ua_request_via_contact(connection, from, to, method, via, contact, client_key, domain_key)) {
    IMS_log::loginfo(3, __func__, "ERROR: check why client or domain key empty");
    return;
  }
  const std::string& st_tag = find_tcp_server_conn(connection);
  if (!st_tag.empty()) via.append(";st=").append(st_tag);

  SIPLIB_SIPTransportConnection* client = rt->client(client_key)->tcp_client_conn;
  if (!forwarding::is_there(__func__, client, "client", client_key)) return;
  client->setSipMessageHandle(connection->getSipMessageHandle());
  // While the message still has the network's own Via, which the 100 copies.
  if (wants_100_trying(method)) send_100_trying("TCP", connection, domain_key);
  finish(__func__, client, client_key, via, contact);
}

void IMS_engine_proxy::process_network_to_ua_udp_request(SIPLIB_SIPTransportConnection* connection,
                                                         const std::string& method, SIPLIB_SIPAddress* from,
                                                         SIPLIB_SIPAddress* to) {
  IMS_log::loginfo(5, __func__, "Received a request on connection=%p", static_cast<const void*>(connection));
  if (!network_gate::admits_request(__func__, connection, method, from)) return;
  siplib::Scratch via, contact;
  std::string client_key, domain_key;
  if (!update_network_to_ua_request_via_contact(connection, from, to, method, via, contact, client_key, domain_key)) {
    IMS_log::loginfo(4, __func__, "ERROR: check why client_key/domain_key empty");
    return;
  }
  via += ";st=0";
  SIPLIB_SIPTransportConnection* client = forwarding::open_udp_to_client(__func__, *rt->client(client_key));
  if (client == nullptr) return;
  client->setSipMessageHandle(connection->getSipMessageHandle());
  if (wants_100_trying(method)) {
    IMS_log::loginfo(5, __func__, " Sending 100 Trying for method=%s", method.c_str());
    send_100_trying("UDP", connection, domain_key);
  }
  if (finish(__func__, client, client_key, via, contact)) {
    IMS_log::loginfo(5, __func__, "Sent the request on connection=%p", static_cast<const void*>(client));
  }
  ua_connector->close(client);
}
