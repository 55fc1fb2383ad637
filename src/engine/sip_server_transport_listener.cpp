#include "engine/sip_server_transport_listener.h"

#include <string>

#include "engine/message_intake.h"
#include "framework/log.h"
#include "framework/user_agent.h"
#include "siplib/message.h"

void IMS_Proxy_SipServerTransportListener::notifyIncomingConnection(SIPLIB_SIPTransportNotifier* notifier) {
  if (notifier == nullptr) {
    IMS_log::loginfo(4, __func__, "Null SIPTransportNotifier");
    return;
  }
  // Accepted before anything else is looked at: the connection is then in nobody's way.
  SIPLIB_SIPServerTcpTransport* connection = notifier->acceptAndOpen();
  if (user_agent_ == nullptr)
    IMS_log::loginfo(4, __func__, "Null user_agent");
  else if (connection == nullptr)
    IMS_log::loginfo(4, __func__, "Null server connection");
  else
    user_agent_->handle_notify_tcp_incoming_conn(connection);
}

void IMS_Proxy_SipServerTransportListener::notifyConnectionClosed(SIPLIB_SIPServerTcpTransport* transport) {
  if (user_agent_ == nullptr)
    IMS_log::loginfo(4, __func__, "Null user_agent");
  else if (transport == nullptr)
    IMS_log::loginfo(4, __func__, "Null server connection");
  else
    user_agent_->handle_notify_tcp_conn_closed(transport);
}

void IMS_Proxy_SipServerTransportListener::notifyRequest(SIPLIB_SIPServerTcpTransport* transport) {
  if (user_agent_ == nullptr)
    IMS_log::loginfo(4, __func__, "Null user_agent");
  else if (transport == nullptr)
    IMS_log::loginfo(4, __func__, "Null server connection");
  else
    user_agent_->handle_notify_tcp_request(transport);
}

void IMS_Proxy_SipServerTransportListener::notifyUdpMsg(SIPLIB_SIPTransportNotifier* notifier) {
  if (notifier == nullptr) {
    IMS_log::loginfo(4, __func__, "Null SIPTransportNotifier");
    return;
  }
  SIPLIB_SIPServerUdpTransport* connection = notifier->acceptOpenUdp();
  if (user_agent_ == nullptr)
    IMS_log::loginfo(4, __func__, "Null user_agent");
  else if (connection == nullptr)
    IMS_log::loginfo(4, __func__, "Null server connection");
  else
    user_agent_->handle_notify_udp_message(connection);
}

bool IMS_Proxy_SipServerTransportListener::handleIncomingMessage(char* text, unsigned int length,
                                                                 SIPLIB_message** message) {
  if (!intake::parse(text, length, message)) return true;
  const SIPLIB_message& received = **message;
  if (received.isResponse()) return !intake::is_from_registrar(received);
  if (!received.isRequest()) return true;

  const std::string method(received.method());
  const intake::Target to = intake::target(received, "To");
  IMS_log::loginfo(5, __func__, "Incoming Request message To:host=%.*s, To:user=%.*s, method=%s",
                   static_cast<int>(to.host.size()), to.host.data(), static_cast<int>(to.user.size()), to.user.data(),
                   method.c_str());
  // Deliberately unequal: every REGISTER to the loopback address is the registrar's, whatever user it names, but a
  // SUBSCRIBE only when it names the registrar. Any other SUBSCRIBE is for a local user agent.
  if (to.host == intake::kLoopback && (method == "REGISTER" || (method == "SUBSCRIBE" && to.user == "registrar"))) {
    IMS_log::loginfo(5, __func__, "Redirected %s Request to Registrar", method.c_str());
    return false;
  }
  IMS_log::loginfo(5, __func__, "%s Request will be handled at the Proxy", method.c_str());
  return true;
}
