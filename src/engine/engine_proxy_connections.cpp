// The table of accepted connections, opening and closing, and the one answer that the proxy gives to the network.

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "engine/sip_client_tcp_transport_listener.h"
#include "framework/ims_message.h"
#include "framework/log.h"
#include "routing/routing_table_impl.h"
#include "siplib/connector.h"
#include "siplib/random.h"

namespace {

/// For each header that a reply takes over, with the terminating NUL.
constexpr std::size_t kReplyHeaderBuffer = 256;

}  // namespace

bool IMS_engine_proxy::is_tcp(const std::string& transport) {
  return strcasecmp(transport.c_str(), "TCP") == 0;
}

// --- The table

const std::string& IMS_engine_proxy::find_tcp_server_conn(const SIPLIB_SIPConnection* connection) {
  IMS_log::loginfo(5, __func__, "Searching Server Table for Conn=%p", static_cast<const void*>(connection));
  for (std::size_t i = 0; i < tcp_servconn_table.size(); ++i) {
    if (tcp_servconn_table[i].connection != connection) continue;
    IMS_log::loginfo(5, __func__, "FOUND matching Server Connection at index=%d", static_cast<int>(i));
    return tcp_servconn_table[i].tag;
  }
  IMS_log::loginfo(3, __func__, "Didn't find matching Server Conn=%p", static_cast<const void*>(connection));
  static const std::string none;
  return none;
}

SIPLIB_SIPServerTcpTransport* IMS_engine_proxy::find_tcp_server_conn(const std::string& tag) {
  IMS_log::loginfo(5, __func__, "Searching Server Table for tag =%s", tag.c_str());
  for (std::size_t i = 0; i < tcp_servconn_table.size(); ++i) {
    if (tcp_servconn_table[i].tag != tag) continue;
    IMS_log::loginfo(5, __func__, "FOUND matching Server Connection at index=%d", static_cast<int>(i));
    return tcp_servconn_table[i].connection;
  }
  IMS_log::loginfo(3, __func__, "Didn't find matching Server Conn, tag=%s", tag.c_str());
  return nullptr;
}

int IMS_engine_proxy::handle_default_tcp_connection_created(void* data) {
  auto* connection = dynamic_cast<SIPLIB_SIPServerTcpTransport*>(static_cast<SIPLIB_SIPConnection*>(data));
  if (connection == nullptr) {
    IMS_log::loginfo(3, __func__, "the event has no server connection");
    return 0;
  }
  IMS_PROXY_TCP_SERVER_CONN_T record;
  record.connection = connection;
  connection->getLocalAddress(record.local_address, record.local_port);
  SIPLIB_UTIL_RANDOM_STRING_T tag;
  SIPLIB_UTIL_generateRandomString(tag);
  record.tag = tag;
  tcp_servconn_table.push_back(record);
  IMS_log::loginfo(5, __func__, "Added entry in tcp_servconn_table, conn=%p, addr=%s, lport=%d, tag=%s",
                   static_cast<void*>(connection), record.local_address.c_str(), record.local_port, tag);
  return 0;
}

int IMS_engine_proxy::handle_default_tcp_connection_closed(void* data) {
  IMS_log::loginfo(5, __func__, "conn=%p", data);
  auto* connection = static_cast<SIPLIB_SIPConnection*>(data);
  if (auto* server = dynamic_cast<SIPLIB_SIPServerTcpTransport*>(connection)) {
    IMS_log::loginfo(5, __func__, "Tcp Server Connection = %p", static_cast<void*>(server));
    close_server_connection(server);
    return 0;
  }
  auto* client = dynamic_cast<SIPLIB_SIPClientTcpTransport*>(connection);
  if (client == nullptr) {
    IMS_log::loginfo(3, __func__, "the event has no TCP connection");
    return 0;
  }
  IMS_log::loginfo(5, __func__, "Tcp Client Connection ");
  std::string peer_ip, source_ip;
  int peer_port = 0, source_port = 0;
  client->getPeerAddress(peer_ip, peer_port);
  client->getSourceAddress(source_ip, source_port);
  IMS_log::loginfo(5, __func__, "conn=%p (src,dst)= (%s:%d, %s:%d)", static_cast<void*>(client), source_ip.c_str(),
                   source_port, peer_ip.c_str(), peer_port);
  close_lost_client_connection(client);
  IMS_log::loginfo(5, __func__, "Closing Client Connection conn=%p", static_cast<void*>(client));

  // Deliberate: the peer's address is given as source and the source as destination, for every peer. On a terminal no
  // socket binds to the peer's address, so what reaches the peer again is the next send on the closed connection.
  SIPLIB_SIPTransportConnection* reopened = open_client_connection("TCP", peer_ip, peer_port, source_ip, source_port);
  if (peer_ip == localhost_ip) {
    IMS_log::loginfo(5, __func__, "LOCAL DOMAIN  - hence connection not reopened");
  } else if (reopened != nullptr) {
    auto* handle = static_cast<SIPLIB_SIPClientTcpTransport*>(reopened);
    const std::string key = rt->findDomain_Connection(client);
    if (const DomainTable_Entry_T* domain = rt->domain(key)) {
      const std::string profile_id = domain->domain.profile_id;
      rt->updateDomain(DT_PROFILE_ID, profile_id, DT_TCP_CLIENT_CONN, static_cast<const void*>(handle));
    }
    IMS_log::loginfo(5, __func__, "key=%s, tcp_client_conn=%p", key.c_str(), static_cast<void*>(handle));
  }
  return 0;
}

// --- Opening and closing

SIPLIB_SIPTransportConnection* IMS_engine_proxy::open_client_connection(const std::string& transport,
                                                                        const std::string& source_ip, int source_port,
                                                                        const std::string& ip, int port) {
  auto* connection = static_cast<SIPLIB_SIPTransportConnection*>(
      conn_open(ua_connector, transport, source_ip, source_port, ip.c_str(), port));
  if (connection == nullptr) {
    IMS_log::loginfo(4, __func__, "client conn open failed (src,dest)=(%s:%d,%s:%d)", source_ip.c_str(), source_port,
                     ip.c_str(), port);
    return nullptr;
  }
  IMS_log::loginfo(5, __func__, "Successfully opened client conn (src,dest)=(%s:%d,%s:%d)", source_ip.c_str(),
                   source_port, ip.c_str(), port);
  if (is_tcp(transport)) static_cast<SIPLIB_SIPClientTcpTransport*>(connection)->setListener(client_list);
  return connection;
}

void IMS_engine_proxy::close_client_connection(SIPLIB_SIPClientTcpTransport* connection) {
  if (connection != nullptr) ua_connector->close(connection);
}

void IMS_engine_proxy::close_lost_client_connection(SIPLIB_SIPClientTcpTransport* connection) {
  if (connection != nullptr) ua_connector->closeLost(connection);
}

void IMS_engine_proxy::keep_places_for_proxies(const std::vector<std::string>& addresses) {
  ua_connector->keepPlacesFor(addresses);
}

void IMS_engine_proxy::close_server_connection(SIPLIB_SIPServerTcpTransport* connection) {
  const auto record = std::find_if(tcp_servconn_table.begin(), tcp_servconn_table.end(),
                                   [&](const auto& entry) { return entry.connection == connection; });
  if (record == tcp_servconn_table.end()) {
    IMS_log::loginfo(4, __func__, "entry=%p not found in tcp_servconn_table", static_cast<void*>(connection));
    return;
  }
  ua_connector->close(connection);
  tcp_servconn_table.erase(record);
  IMS_log::loginfo(5, __func__, "deleted entry %p", static_cast<void*>(connection));
}

// --- The provisional answer

void IMS_engine_proxy::send_100_trying(const std::string& transport, SIPLIB_SIPTransportConnection* request,
                                       const std::string& domain_key) {
  IMS_log::loginfo(5, __func__, "Sending 100 Trying");
  if (request == nullptr) {
    IMS_log::loginfo(3, __func__, "100 trying not sent: no connection");
    return;
  }
  const SIPLIB_SIPMessageHandle trying(new SIPLIB_message(100, "trying"));
  const IMS_Message source(request);
  char value[kReplyHeaderBuffer];
  for (const char* name : {"To", "From", "Call-ID", "CSeq"}) {
    // Without one of these the answer belongs to no transaction.
    if (!source.get_header(name, value, sizeof value) || value[0] == '\0') {
      IMS_log::loginfo(4, __func__, "100 trying not sent: %s of the request is absent or longer than %zu bytes", name,
                       sizeof value - 1);
      return;
    }
    trying->addHeader(name, value);
  }
  trying->appendLines("Via", *request->getSipMessageHandle());

  if (strcasecmp(transport.c_str(), "UDP") != 0) {
    request->setSipMessageHandle(trying);
    IMS_Message(request).send();
    return;
  }
  const DomainTable_Entry_T* domain = rt->domain(domain_key);
  if (domain == nullptr || domain->pnotifier == nullptr) {
    IMS_log::loginfo(3, __func__, "100 trying not sent: domain key=%s has no network-side listener",
                     domain_key.c_str());
    return;
  }
  std::string ip;
  int port = 0;
  domain->pnotifier->getCurrentAddress("UDP", ip, port);
  IMS_log::loginfo(5, __func__, "CurrentAddress (ip:port) (%s:%d)", ip.c_str(), port);
  const std::string& proxy_ip = domain->domain.proxy_ip;
  const int proxy_port = portNumber(domain->domain.proxy_port);
  auto* connection = static_cast<SIPLIB_SIPTransportConnection*>(
      conn_open(ua_connector, "UDP", ip, port, proxy_ip.c_str(), proxy_port));
  if (connection == nullptr) {
    IMS_log::loginfo(3, __func__, "UDP client conn is NULL (src,dest)=(%s:%d,%s:%d)", ip.c_str(), port,
                     proxy_ip.c_str(), proxy_port);
    return;
  }
  IMS_log::loginfo(5, __func__, "Successfully opened client conn (src,dest,UDP)=(%s:%d,%s:%d)", ip.c_str(), port,
                   proxy_ip.c_str(), proxy_port);
  connection->setSipMessageHandle(trying);
  IMS_Message(connection).send();
  ua_connector->close(connection);
}
