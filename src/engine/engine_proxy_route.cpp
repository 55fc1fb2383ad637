// Route commands: MESSAGE requests of the terminal's framework that set, change and remove the domains.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "framework/ims_message.h"
#include "framework/log.h"
#include "framework/set_route_xml.h"
#include "framework/utility.h"
#include "routing/routing_table_impl.h"
#include "siplib/connector.h"

namespace {

/// For each header that the answer takes over, with the terminating NUL.
constexpr std::size_t kReplyHeaderBuffer = 256;

/// A body that does not parse leaves every value empty.
IMSSetRouteXml parse_command(const std::string& body) {
  IMSSetRouteXml command;
  command.set_text(body.c_str(), static_cast<int>(body.size()) + 1);
  command.parseXml();
  return command;
}

std::string route_info(const std::string& profile_id) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<route-info>\n"
         "  <profile-info>\n"
         "    <zel-profile-id>" +
         profile_id +
         "</zel-profile-id>\n"
         "  </profile-info>\n"
         "</route-info>\n";
}

}  // namespace

void IMS_engine_proxy::handle_proxy_message(SIPLIB_SIPTransportConnection* connection) {
  // Deliberate: this one line has the short form of the pointer.
  IMS_log::loginfo(5, __func__, "conn=%x", static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(connection)));
  std::string why;
  if (connection != nullptr && ua_connector != nullptr && !ua_connector->mayControl(*connection, why)) {
    std::string ip;
    int port = 0;
    connection->getPeerAddress(ip, port);
    IMS_log::loginfo(4, __func__, "route command from %s:%d dropped: %s", ip.c_str(), port, why.c_str());
    return;
  }
  std::string body;
  if (connection != nullptr) connection->getContent(body);
  if (body.empty()) {
    IMS_log::loginfo(3, __func__, "ERROR: check why the getContent() returns empty string");
    return;
  }
  const IMSSetRouteXml command = parse_command(body);
  const std::string& action = command.action();
  const std::string& profile_id = command.profile_id();
  if (action == "delete-route") {
    rt->deleteDomain(DT_PROFILE_ID, profile_id);
    send_message_ok(connection);
    return;
  }

  std::vector<std::string> tokens;
  IMS_utility::tokenize(command.ip_type_port(), tokens, ":");
  if (tokens.size() < 3) {
    IMS_log::loginfo(3, __func__, "ERROR: check why address/transport/port is incorrect");
    return;
  }
  const std::string& proxy_ip = tokens[0];
  const std::string& proxy_transport = tokens[1];
  const std::string& proxy_port = tokens[2];

  if (action == "set-route") {
    Domain_Entry_T entry;
    entry.profile_id = profile_id;
    entry.net_intf = command.device_name();
    entry.proxy_ip = proxy_ip;
    entry.proxy_port = proxy_port;
    entry.proxy_transport = proxy_transport;
    entry.mode_flag = "no";
    if (get_credentials_from_registrar(profile_id, entry.username, entry.password, entry.op_mode) == 1) {
      IMS_log::loginfo(5, __func__, "returned from get_credentials");
      IMS_log::loginfo(5, __func__, "username is %s, password is %s, op_mode is %s", entry.username.c_str(),
                       entry.password.c_str(), entry.op_mode.c_str());
    }
    rt->addDomain(entry);
  } else if (action == "update-route") {
    const std::string key = rt->findDomain(DT_PROFILE_ID, profile_id);
    const DomainTable_Entry_T* domain = rt->domain(key);
    if (domain == nullptr) {
      IMS_log::loginfo(3, __func__, "ERROR: update-route called for a non-existing entry");
      return;
    }
    const bool other_ip = domain->domain.proxy_ip != proxy_ip;
    const bool other_port = domain->domain.proxy_port != proxy_port;
    // The same place over another transport is no change: the stored transport is never touched here.
    if (other_ip || other_port) {
      rt->endConnection(key);
      // Deliberate: here, and here alone, the name counts with its case.
      if (proxy_transport == "TCP") {
        const auto* handle = static_cast<SIPLIB_SIPClientTcpTransport*>(
            open_client_connection("TCP", net_intf_ip, portNumber(net_intf_port), proxy_ip, portNumber(proxy_port)));
        rt->updateDomain(DT_PROFILE_ID, profile_id, DT_TCP_CLIENT_CONN, static_cast<const void*>(handle));
      } else {
        IMS_log::loginfo(5, __func__, "UDP mode is specified for client connection");
      }
      if (other_ip) rt->updateDomain(DT_PROFILE_ID, profile_id, DT_PROXY_IP, proxy_ip);
      if (other_port) rt->updateDomain(DT_PROFILE_ID, profile_id, DT_PROXY_PORT, proxy_port);
    }
  }
  IMS_log::loginfo(5, __func__, "ip_type_port=%s, proxy_ip=%s, proxy_transport=%s", command.ip_type_port().c_str(),
                   proxy_ip.c_str(), proxy_transport.c_str());
  IMS_log::loginfo(5, __func__, "proxy_port=%s, device_name=%s, profile_id=%s, action=%s", proxy_port.c_str(),
                   command.device_name().c_str(), profile_id.c_str(), action.c_str());
  send_message_ok(connection);
}

void IMS_engine_proxy::send_message_ok(SIPLIB_SIPTransportConnection* connection) {
  IMS_log::loginfo(5, __func__, "Sending 200 OK on MESSAGE ");
  if (connection == nullptr) {
    IMS_log::loginfo(3, __func__, "200 OK not sent: no connection");
    return;
  }
  const SIPLIB_SIPMessageHandle answer(new SIPLIB_message(200, "OK"));
  const IMS_Message request(connection);
  char value[kReplyHeaderBuffer];
  for (const char* name : {"From", "To", "Call-ID", "CSeq", "Max-Forwards"}) {
    if (request.get_header(name, value, sizeof value))
      answer->addHeader(name, value);
    else
      IMS_log::loginfo(4, __func__, "200 OK without %s: absent or longer than %zu bytes", name, sizeof value - 1);
  }
  std::string via;
  if (connection->getHeader("Via", via) == 0) answer->addHeader("Via", via);

  std::string body;
  connection->getContent(body);
  if (body.empty()) IMS_log::loginfo(5, __func__, "ERROR: check why the getContent() returns empty string");
  const std::string content = route_info(parse_command(body).profile_id());
  IMS_log::loginfo(5, __func__, "Body in 200 OK MESSAGE = %s", content.c_str());
  answer->setBody(content);
  connection->setSipMessageHandle(answer);
  IMS_Message(connection).send();
}
