#include "proxy/forwarding.h"

#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "framework/ims_local_registrar.h"
#include "framework/log.h"
#include "routing/client_records.h"
#include "routing/domain_records.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"
#include "siplib/connector.h"
#include "siplib/header.h"

namespace forwarding {

namespace {

bool is_network_side(const SIPLIB_SIPTransportConnection& accepted) {
  std::string ip;
  int port = 0;
  accepted.getLocalAddress(ip, port);
  return ip != IMS_engine_proxy::localhost_ip;
}

}  // namespace

int position(const std::string& text, const char* mark) {
  const std::size_t at = text.find(mark);
  return at == std::string::npos ? -1 : static_cast<int>(at);
}

void insert_tags(std::string& contact, const std::string& tags) {
  const std::size_t end_of_uri = contact.find('>');
  if (end_of_uri != std::string::npos) contact.insert(end_of_uri, tags);
}

void cut_from(std::string& text, const std::string& mark) {
  const std::size_t at = text.find(mark);
  if (at != std::string::npos) text.erase(at);
}

RequestUri::RequestUri(const char* function, const SIPLIB_SIPTransportConnection* connection)
    : text(connection->viewRequestURI()), mok_pos(position(text, "mok=")), mtk_pos(position(text, "mtk=")) {
  IMS_log::loginfo(5, function, "Req-URI is %s", text.c_str());
  IMS_log::loginfo(5, function, " mok_pos is %d, mtk_pos is %d", mok_pos, mtk_pos);
}

std::string dialog_tag(const char* function, const RequestUri& uri, Wins wins, std::string& key) {
  bool terminated = uri.mok_pos < 0;
  if (uri.mok_pos >= 0 && uri.mtk_pos >= 0) {
    terminated = (wins == Wins::kLater) == (uri.mok_pos < uri.mtk_pos);
    IMS_log::loginfo(5, function, terminated ? " MT SIDE request : Req-URI is %s" : " MO SIDE request : Req-URI is %s",
                     uri.text.c_str());
  } else {
    IMS_log::loginfo(5, function, " Dialog with a  new type of UA");
    IMS_log::loginfo(5, function,
                     terminated ? " MT SIDE IS OUR UA : Req-URI is %s" : " MO SIDE IS OUR UA: Req-URI is %s",
                     uri.text.c_str());
  }
  IMS_engine_proxy::get_parameter(terminated ? "mtk" : "mok", uri.text, key);
  return (terminated ? ";mtk=" : ";mok=") + key;
}

const RoutingTable_Entry_T* user_agent(const std::string& key) {
  const RoutingTable_Entry_T* client = IMS_engine_proxy::rt->client(key);
  return client != nullptr && client->ua_port != IMS_engine_proxy::localhost_port ? client : nullptr;
}

std::unique_ptr<SIPLIB_SIPHeader> read_via(const SIPLIB_SIPTransportConnection* connection, std::string& via) {
  via.clear();
  connection->getHeader("Via", via);
  return std::unique_ptr<SIPLIB_SIPHeader>(SIPLIB_SIPHeader::createSIPHeaderObject("Via", via));
}

void tag_contact(SIPLIB_SIPTransportConnection* connection, const std::string& tags, std::string& contact) {
  contact.clear();
  if (connection->getHeader("Contact", contact) != 0) return;
  insert_tags(contact, tags);
  connection->setHeader("Contact", contact);
}

void remove_profile_id(SIPLIB_SIPTransportConnection* connection) {
  connection->getSipMessageHandle()->removeHeaders("Zel-Profile-ID");
}

void add_user_agent(const char* function, SIPLIB_SIPTransportConnection* connection) {
  const std::string user_agent = IMS_LocalRegistrar::form_user_agent_header();
  IMS_log::loginfo(5, function, "Adding User-agent=%s", user_agent.c_str());
  connection->addHeader("User-agent", user_agent);
}

bool current_address(const char* function, const std::string& domain_key, const DomainTable_Entry_T& domain,
                     const char* transport, std::string& ip, int& port) {
  if (domain.pnotifier == nullptr || !domain.pnotifier->getCurrentAddress(transport, ip, port)) {
    IMS_log::loginfo(3, function, "no %s address for domain key=%s, message dropped", transport, domain_key.c_str());
    return false;
  }
  IMS_log::loginfo(5, function, "CurrentAddress (ip:port) (%s:%d)", ip.c_str(), port);
  return true;
}

bool is_there(const char* function, const SIPLIB_SIPTransportConnection* connection, const char* owner,
              const std::string& key) {
  if (connection != nullptr) return true;
  IMS_log::loginfo(3, function, "no connection for %s key=%s, message dropped", owner, key.c_str());
  return false;
}

bool send(const char* function, SIPLIB_SIPTransportConnection* connection, const char* owner, const std::string& key) {
  if (connection->send() == 0) return true;
  IMS_log::loginfo(3, function, "not sent on connection=%p of %s key=%s, message dropped",
                   static_cast<const void*>(connection), owner, key.c_str());
  return false;
}

bool send_and_close(const char* function, SIPLIB_SIPTransportConnection* connection, const char* owner,
                    const std::string& key) {
  const bool sent = send(function, connection, owner, key);
  IMS_User_Agent::ua_connector->close(connection);
  return sent;
}

void send_response(const char* function, const SIPLIB_SIPTransportConnection* from, const std::string& st_tag, Side to,
                   const std::string& key) {
  const bool to_network = to == Side::kNetwork;
  SIPLIB_SIPTransportConnection* connection = IMS_engine_proxy::find_tcp_server_conn(st_tag);
  if (connection == nullptr || is_network_side(*connection) != to_network) {
    IMS_log::loginfo(3, function, "%ssc is NULL for stag = %s", to_network ? " " : "", st_tag.c_str());
    return;
  }
  connection->setSipMessageHandle(from->getSipMessageHandle());
  if (!send(function, connection, to_network ? "domain" : "client", key)) return;
  IMS_log::loginfo(5, function, "Sent the response on connection=%p", static_cast<const void*>(connection));
}

SIPLIB_SIPTransportConnection* open_udp_to_client(const char* function, const RoutingTable_Entry_T& client) {
  const std::string& ip = IMS_engine_proxy::localhost_ip;
  const std::string& port = IMS_engine_proxy::localhost_port;
  const int client_port = portNumber(client.ua_port);
  auto* connection = static_cast<SIPLIB_SIPTransportConnection*>(
      IMS_User_Agent::conn_open(IMS_User_Agent::ua_connector, "UDP", ip, portNumber(port), ip.c_str(), client_port));
  if (connection == nullptr) {
    IMS_log::loginfo(3, function, "UDP client conn is NULL (src,dst)=(%s:%s,%s:%d)", ip.c_str(), port.c_str(),
                     ip.c_str(), client_port);
  }
  return connection;
}

const void* send_udp_to_client(const char* function, const SIPLIB_SIPTransportConnection* from, const std::string& key,
                               const RoutingTable_Entry_T& client) {
  SIPLIB_SIPTransportConnection* to = open_udp_to_client(function, client);
  if (to == nullptr) return nullptr;
  to->setSipMessageHandle(from->getSipMessageHandle());
  return send_and_close(function, to, "client", key) ? to : nullptr;
}

const void* send_udp_to_network(const char* function, const SIPLIB_SIPTransportConnection* from, const std::string& key,
                                const DomainTable_Entry_T& domain) {
  std::string ip;
  int port = 0;
  if (!current_address(function, key, domain, "UDP", ip, port)) return nullptr;
  const std::string& proxy_ip = domain.domain.proxy_ip;
  const int proxy_port = portNumber(domain.domain.proxy_port);
  auto* to = static_cast<SIPLIB_SIPTransportConnection*>(
      IMS_User_Agent::conn_open(IMS_User_Agent::ua_connector, "UDP", ip, port, proxy_ip.c_str(), proxy_port));
  if (to == nullptr) {
    IMS_log::loginfo(3, function, "UDP client conn is NULL (src,dest)=(%s:%d,%s:%d)", ip.c_str(), port,
                     proxy_ip.c_str(), proxy_port);
    return nullptr;
  }
  to->setSipMessageHandle(from->getSipMessageHandle());
  return send_and_close(function, to, "domain", key) ? to : nullptr;
}

}  // namespace forwarding
