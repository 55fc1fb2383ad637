// Messages between two local user agents. The proxy stays in their path and never shows them to the network.

#include <memory>
#include <vector>

#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "framework/log.h"
#include "proxy/forwarding.h"
#include "routing/routing_table_impl.h"
#include "siplib/address.h"
#include "siplib/connection.h"
#include "siplib/header.h"

namespace {

void append_tags(std::string& text, const std::string& source_key, const std::string& destination_key) {
  text.append(";scli=").append(source_key).append(";dcli=").append(destination_key);
}

void retag_contact(SIPLIB_SIPTransportConnection* connection, const std::string& source_key,
                   const std::string& destination_key) {
  siplib::Scratch contact;
  if (connection->getHeader("Contact", contact) != 0) return;
  siplib::Scratch tags;
  append_tags(tags, source_key, destination_key);
  IMS_engine_proxy::update_contact(contact, ";scli=", tags);
  connection->setHeader("Contact", contact);
}

/// For a request whose To names no user: the client that a NOTIFY's event or a SUBSCRIBE's package leads to, or an
/// empty key.
std::string find_by_event(const char* function, const SIPLIB_SIPTransportConnection* connection,
                          const std::string& method) {
  const IMS_Proxy_RoutingTable_Impl& table = *IMS_engine_proxy::rt;
  std::string event;
  if (connection->getHeader("Event", event) != 0) return {};
  IMS_log::loginfo(5, function, "Routing based on EVENT(method=%s) %s", method.c_str(), event.c_str());
  std::string key;
  if (method == "NOTIFY") {
    ClientMatches keys;
    table.findClients(CF_EVENT, event, keys);
    if (keys.size() == 1) {
      key = keys.front();
      IMS_log::loginfo(5, function, "Found a destination client based on event supported=%s", event.c_str());
    }
  } else if (method == "SUBSCRIBE") {
    key = table.findClient(CF_PACKAGES, event);
    if (!key.empty()) {
      IMS_log::loginfo(5, function, "Found a destination client based on package %s", event.c_str());
    }
  }
  return key;
}

/// A request outside a dialog: from the client whose port is in the Via, to the one that To or the event leads to.
/// False with one line.
bool route_fresh_request(const char* function, SIPLIB_SIPTransportConnection* connection, const SIPLIB_SIPHeader& via,
                         std::string& source_key, std::string& destination_key) {
  const IMS_Proxy_RoutingTable_Impl& table = *IMS_engine_proxy::rt;
  siplib::Scratch own_route("<sip:127.0.0.1:");
  own_route.append(IMS_engine_proxy::localhost_port).append(">");
  connection->addHeader("Record-Route", own_route);

  std::string port;
  via.getParameter("port", port);
  source_key = table.findClient(CF_UA_PORT, port);
  if (source_key.empty()) {
    IMS_log::loginfo(3, function, "ERROR: Can't find any client based on port (%d)", portNumber(port));
    return false;
  }

  const std::unique_ptr<SIPLIB_SIPAddress> to(
      SIPLIB_SIPAddress::createSIPAddressObject("To", connection->viewHeader("To")));
  if (!to) {
    IMS_log::loginfo(3, function, "createSIPAddressObject failed for addr");
    return false;
  }
  to->removeParameter("port");
  if (!to->getUser().empty()) {
    IMS_log::loginfo(5, function, "TO contains the name of the destination client");
    siplib::Scratch uri;
    to->getURI(uri);
    destination_key = table.findClient(CF_URI, uri);
    if (destination_key.empty()) {
      IMS_log::loginfo(3, function, "ERROR: Can't find any destination client based on from_address (%s)", uri.c_str());
      return false;
    }
  } else {
    IMS_log::loginfo(5, function, "TO doesn't contain the name of the destination client");
    const std::string method = connection->getMethod();
    destination_key = find_by_event(function, connection, method);
    if (destination_key.empty()) {
      IMS_log::loginfo(3, function, "ERROR: Can't route %s request", method.c_str());
      return false;
    }
  }
  IMS_log::loginfo(5, function, "Fresh request, scli(SourceClient)=%s, dcli(Destination Client)=%s", source_key.c_str(),
                   destination_key.c_str());
  return true;
}

/// What TCP and UDP have in common for a response: everything but the sending. False when it was dropped.
bool restore_response(const char* function, IMS_engine_proxy& engine, SIPLIB_SIPTransportConnection* connection,
                      std::string& source_key, std::string& st_tag) {
  IMS_log::loginfo(5, function, "Received a response on connection=%p", static_cast<const void*>(connection));
  siplib::Scratch via;
  if (!engine.update_int_response_via_contact(connection, via, source_key, st_tag)) {
    IMS_log::loginfo(3, function, "ERROR: check why returning src_client_key=%s, stag=%s", source_key.c_str(),
                     st_tag.c_str());
    return false;
  }
  connection->setHeader("Via", via);
  return true;
}

}  // namespace

bool IMS_engine_proxy::update_int_request_via_contact(SIPLIB_SIPTransportConnection* connection, std::string& via,
                                                      std::string& destination_key) {
  destination_key.clear();
  const std::unique_ptr<SIPLIB_SIPHeader> via_header = forwarding::read_via(connection, via);
  if (!via_header) {
    IMS_log::loginfo(3, __func__, "createSIPHeaderObject failed for viah");
    return false;
  }
  const siplib::Scratch uri(connection->viewRequestURI());
  std::string source_key;
  if (get_parameter("scli", uri, source_key)) {
    get_parameter("dcli", uri, destination_key);
    connection->getSipMessageHandle()->removeHeaders("Route");
    IMS_log::loginfo(5, __func__, "Request within a Dialog: scli(Source Client)=%s;dcli(Destination Client)=%s",
                     source_key.c_str(), destination_key.c_str());
    // A dcli that names no client: deleted since, forged, or come back with the st text of a TCP exchange.
    if (rt->client(destination_key) == nullptr) return false;
  } else if (!route_fresh_request(__func__, connection, *via_header, source_key, destination_key)) {
    return false;
  }
  // Swapped: the contact is where the other side will send, and then this destination is the source.
  retag_contact(connection, destination_key, source_key);
  via_header->setParameter("port", localhost_port);
  via_header->getHeaderValue(via);
  append_tags(via, source_key, destination_key);
  return true;
}

bool IMS_engine_proxy::update_int_response_via_contact(SIPLIB_SIPTransportConnection* connection, std::string& via,
                                                       std::string& source_key, std::string& st_tag) {
  const std::unique_ptr<SIPLIB_SIPHeader> via_header = forwarding::read_via(connection, via);
  if (!via_header) {
    IMS_log::loginfo(3, __func__, "createSIPHeaderObject failed");
    return false;
  }
  if (!get_parameter("scli", via, source_key)) {
    IMS_log::loginfo(5, __func__, "ERROR: check why scli is not present");
    return false;
  }
  // Of a TCP exchange this is not a bare key: the st text clings to it.
  siplib::Scratch destination_key;
  get_parameter("dcli", via, destination_key);
  get_parameter("st", via, st_tag);
  IMS_log::loginfo(5, __func__, "scli(Source Client)=%s;dcli(Destination Client)=%s;st=%s", source_key.c_str(),
                   destination_key.c_str(), st_tag.c_str());
  const RoutingTable_Entry_T* source = rt->client(source_key);
  if (source == nullptr || destination_key.empty() || st_tag.empty()) {
    IMS_log::loginfo(3, __func__, "ERROR: Either source client/destination client key/tag is empty");
    return false;
  }
  via_header->setParameter("port", source->ua_port);
  retag_contact(connection, source_key, destination_key);
  via_header->getHeaderValue(via);
  forwarding::cut_from(via, ";scli=");
  return true;
}

void IMS_engine_proxy::process_ua_to_ua_tcp_request(SIPLIB_SIPTransportConnection* connection) {
  IMS_log::loginfo(5, __func__, "Received a request on connection=%p", static_cast<const void*>(connection));
  siplib::Scratch via;
  std::string client_key;
  if (!update_int_request_via_contact(connection, via, client_key)) {
    IMS_log::loginfo(4, __func__, "ERROR: check why dst_client_key/src_client_key empty");
    return;
  }
  // Deliberate: no semicolon, unlike on every other path. The st tag still reads back correctly; a dcli does not, so
  // that of a local TCP dialog only the called side's later requests find their client.
  const std::string& st_tag = find_tcp_server_conn(connection);
  if (!st_tag.empty()) via.append("st=").append(st_tag);
  connection->setHeader("Via", via);

  SIPLIB_SIPTransportConnection* client = rt->client(client_key)->tcp_client_conn;
  if (!forwarding::is_there(__func__, client, "client", client_key)) return;
  client->setSipMessageHandle(connection->getSipMessageHandle());
  if (!forwarding::send(__func__, client, "client", client_key)) return;
  IMS_log::loginfo(5, __func__, "Sent the request on connection=%p", static_cast<const void*>(client));
}

void IMS_engine_proxy::process_ua_to_ua_udp_request(SIPLIB_SIPTransportConnection* connection) {
  IMS_log::loginfo(5, __func__, "Received a request on connection=%p", static_cast<const void*>(connection));
  siplib::Scratch via;
  std::string client_key;
  if (!update_int_request_via_contact(connection, via, client_key)) {
    IMS_log::loginfo(3, __func__, "ERROR: check why dst_client_key/src_client_key empty");
    return;
  }
  via += ";st=0";
  connection->setHeader("Via", via);
  if (const void* sent_on = forwarding::send_udp_to_client(__func__, connection, client_key, *rt->client(client_key))) {
    IMS_log::loginfo(5, __func__, "Sent the request on connection=%p", sent_on);
  }
}

void IMS_engine_proxy::process_ua_to_ua_tcp_response(SIPLIB_SIPTransportConnection* connection) {
  std::string client_key;
  siplib::Scratch st_tag;
  if (!restore_response(__func__, *this, connection, client_key, st_tag)) return;
  forwarding::send_response(__func__, connection, st_tag, forwarding::Side::kUserAgents, client_key);
}

void IMS_engine_proxy::process_ua_to_ua_udp_response(SIPLIB_SIPTransportConnection* connection) {
  std::string client_key;
  siplib::Scratch st_tag;
  if (!restore_response(__func__, *this, connection, client_key, st_tag)) return;
  if (const void* sent_on = forwarding::send_udp_to_client(__func__, connection, client_key, *rt->client(client_key))) {
    IMS_log::loginfo(5, __func__, "Sent the response on connection=%p", sent_on);
  }
}
