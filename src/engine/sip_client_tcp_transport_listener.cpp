#include "engine/sip_client_tcp_transport_listener.h"

#include "engine/message_intake.h"
#include "framework/log.h"
#include "framework/user_agent.h"

void IMS_Proxy_SipClientTcpTransportListener::notifyResponse(SIPLIB_SIPClientTcpTransport* transport) {
  if (user_agent_ == nullptr)
    IMS_log::loginfo(4, __func__, "Null user_agent");
  else if (transport == nullptr)
    IMS_log::loginfo(4, __func__, "Null client connection");
  else
    user_agent_->handle_notify_tcp_response(transport);
}

void IMS_Proxy_SipClientTcpTransportListener::notifyConnectionClosed(SIPLIB_SIPClientTcpTransport* transport) {
  if (user_agent_ == nullptr)
    IMS_log::loginfo(4, __func__, "Null user_agent");
  else if (transport == nullptr)
    IMS_log::loginfo(4, __func__, "Null client connection");
  else
    user_agent_->handle_notify_tcp_conn_closed(transport);
}

bool IMS_Proxy_SipClientTcpTransportListener::handleIncomingMessage(char* text, unsigned int length,
                                                                    SIPLIB_message** message) {
  // A connection that the proxy opened carries answers; a request on it is read in the same way.
  return !intake::parse(text, length, message) || !intake::is_from_registrar(**message);
}
