// The state table, the queue's events, and the classification of every message.
//
//   arrived                     TCP                                  UDP
//   from the network  request   process_network_to_ua_tcp_request    process_network_to_ua_udp_request
//                     response  process_network_to_ua_tcp_response   process_network_to_ua_udp_response
//   from a local UA   request   process_ua_to_network_tcp_request    process_ua_to_network_udp_request
//   to the network    response  process_ua_to_network_tcp_response   process_ua_to_network_udp_response
//   from a local UA   request   process_ua_to_ua_tcp_request         process_ua_to_ua_udp_request
//   to a local UA     response  process_ua_to_ua_tcp_response        process_ua_to_ua_udp_response
//   to the proxy      MESSAGE   handle_proxy_message                 handle_proxy_message
//
// Local user agents are served on the loopback address only, and network-side transports are bound to other addresses:
// so the address of a transport tells where its messages come from.

#include <string>

#include "engine/engine_proxy.h"
#include "framework/log.h"
#include "siplib/address.h"
#include "siplib/transaction.h"

namespace {

enum Event : unsigned int {
  EVENT_NONE = 0,
  EVENT_TCP_REQUEST = 0x9000,
  EVENT_TCP_RESPONSE = 0x9001,
  EVENT_TCP_CREATED = 0x9002,
  EVENT_TCP_CLOSED = 0x9003,
  EVENT_UDP_MESSAGE = 0x9004,
  EVENT_REGISTRAR_REQUEST = 0x9005,
  EVENT_REGISTRAR_RESPONSE = 0x9006,
  EVENT_FRAMEWORK_TEXT = 0x9007,
};

Event event_of(std::uint32_t message_type) {
  switch (message_type) {
    case MSG_REGISTRAR_RESPONSE:
      return EVENT_REGISTRAR_RESPONSE;
    case MSG_REGISTRAR_REQUEST:
      return EVENT_REGISTRAR_REQUEST;
    case MSG_TCP_RESPONSE:
      return EVENT_TCP_RESPONSE;
    case MSG_TCP_CLIENT_CLOSED:
    case MSG_TCP_SERVER_CLOSED:
      // One event: its handler tells the two kinds of connection apart itself.
      return EVENT_TCP_CLOSED;
    case MSG_TCP_REQUEST:
      return EVENT_TCP_REQUEST;
    case MSG_TCP_INCOMING:
      return EVENT_TCP_CREATED;
    case MSG_UDP_MESSAGE:
      return EVENT_UDP_MESSAGE;
    case MSG_FRAMEWORK_TEXT:
      return EVENT_FRAMEWORK_TEXT;
    default:
      return EVENT_NONE;
  }
}

/// What a message says about itself; the addresses end with it.
struct Inspection {
  bool is_request = false;
  std::string method;
  SIPLIB_SIPAddress* from = nullptr;
  SIPLIB_SIPAddress* to = nullptr;

  Inspection() = default;
  Inspection(const Inspection&) = delete;
  Inspection& operator=(const Inspection&) = delete;
  ~Inspection() {
    delete from;
    delete to;
  }
};

IMS_STATE_HANDLER_T handler(int (IMS_engine_proxy::*function)(void*)) {
  return static_cast<IMS_STATE_HANDLER_T>(function);
}

/// The event's connection; null, with a log line, when it has none.
SIPLIB_SIPTransportConnection* transport_of(void* data, const char* function) {
  if (data == nullptr) IMS_log::loginfo(3, function, "the event has no connection");
  return static_cast<SIPLIB_SIPTransportConnection*>(static_cast<SIPLIB_SIPConnection*>(data));
}

/// True for a route command: a MESSAGE to the proxy's own address, naming no user.
bool is_for_proxy(const SIPLIB_SIPAddress& to, const std::string& method, const char* function) {
  const std::string_view user = to.getUser();
  const std::string_view host = to.getHost();
  IMS_log::loginfo(5, function, "To:user=%.*s, To:host=%.*s, method=%s", static_cast<int>(user.size()), user.data(),
                   static_cast<int>(host.size()), host.data(), method.c_str());
  if (!user.empty() || host != IMS_engine_proxy::localhost_ip || method != "MESSAGE") return false;
  IMS_log::loginfo(5, function, "MESSAGE on %s:%s will be handled by Proxy", IMS_engine_proxy::localhost_ip.c_str(),
                   IMS_engine_proxy::localhost_port.c_str());
  return true;
}

}  // namespace

const IMS_STATE_TBL_T IMS_engine_proxy::default_state[] = {
    {EVENT_REGISTRAR_REQUEST, handler(&IMS_engine_proxy::handle_registrar_request_message)},
    {EVENT_REGISTRAR_RESPONSE, handler(&IMS_engine_proxy::handle_registrar_response_message)},
    {EVENT_TCP_REQUEST, handler(&IMS_engine_proxy::handle_default_tcp_request_message)},
    {EVENT_TCP_RESPONSE, handler(&IMS_engine_proxy::handle_default_tcp_response_message)},
    {EVENT_TCP_CREATED, handler(&IMS_engine_proxy::handle_default_tcp_connection_created)},
    {EVENT_TCP_CLOSED, handler(&IMS_engine_proxy::handle_default_tcp_connection_closed)},
    {EVENT_UDP_MESSAGE, handler(&IMS_engine_proxy::handle_default_udp_message)},
    {EVENT_FRAMEWORK_TEXT, handler(&IMS_engine_proxy::handle_default_framework_message)},
    {IMS_STATE_TBL_END, nullptr},
};
const IMS_STATE_TBL_T* const IMS_engine_proxy::states[] = {default_state};

// --- I/O thread: log and queue, nothing else

void IMS_engine_proxy::handle_notify_tcp_request(SIPLIB_SIPConnection* connection) {
  IMS_log::loginfo(5, __func__, "Server Conn = %p", static_cast<void*>(connection));
  fill_queue_and_send_signal(MSG_TCP_REQUEST, connection);
}

void IMS_engine_proxy::handle_notify_tcp_response(SIPLIB_SIPConnection* connection) {
  IMS_log::loginfo(5, __func__, "Client Conn = %p", static_cast<void*>(connection));
  fill_queue_and_send_signal(MSG_TCP_RESPONSE, connection);
}

void IMS_engine_proxy::handle_notify_tcp_incoming_conn(SIPLIB_SIPConnection* connection) {
  IMS_log::loginfo(5, __func__, "New Server Conn = %p", static_cast<void*>(connection));
  fill_queue_and_send_signal(MSG_TCP_INCOMING, connection);
}

void IMS_engine_proxy::handle_notify_tcp_conn_closed(SIPLIB_SIPConnection* connection) {
  if (dynamic_cast<SIPLIB_SIPServerTcpTransport*>(connection) != nullptr) {
    IMS_log::loginfo(5, __func__, "Closed Server Conn = %p", static_cast<void*>(connection));
    fill_queue_and_send_signal(MSG_TCP_SERVER_CLOSED, connection);
  } else {
    IMS_log::loginfo(5, __func__, "Closed Client Conn = %p", static_cast<void*>(connection));
    fill_queue_and_send_signal(MSG_TCP_CLIENT_CLOSED, connection);
  }
}

void IMS_engine_proxy::handle_notify_udp_message(SIPLIB_SIPConnection* connection) {
  IMS_log::loginfo(5, __func__, "New Server Conn = %p", static_cast<void*>(connection));
  fill_queue_and_send_signal(MSG_UDP_MESSAGE, connection);
}

// --- Loop thread

unsigned int IMS_engine_proxy::get_event_id_from_message(void* message) {
  if (message == nullptr) return EVENT_NONE;
  const std::uint32_t type = static_cast<const IMS_Queue_Message*>(message)->type;
  const Event event = event_of(type);
  IMS_log::loginfo(5, __func__, "Message type = %d, eventid=%d", static_cast<int>(type), static_cast<int>(event));
  return event;
}

int IMS_engine_proxy::handle_registrar_request_message(void* data) {
  auto* request = dynamic_cast<SIPLIB_SIPServerConnection*>(static_cast<SIPLIB_SIPConnection*>(data));
  if (request == nullptr) {
    IMS_log::loginfo(3, __func__, "the event has no request");
    return 0;
  }
  const std::string method = request->getMethod();
  if (method == "REGISTER") {
    IMS_log::loginfo(5, __func__, "Calling handle_registrar_register_message(ssc)");
    handle_registrar_register_message(request);
  } else if (method == "SUBSCRIBE") {
    IMS_log::loginfo(5, __func__, "Calling handle_registrar_subscribe_message(ssc)");
    handle_registrar_subscribe_message(request);
  } else {
    IMS_log::loginfo(3, __func__, "check why %s request message is reaching Registrar", method.c_str());
    // Nobody will ever answer it; let go, its transaction ends by itself.
    request->release();
  }
  return 0;
}

int IMS_engine_proxy::handle_registrar_response_message(void* data) {
  auto* response = dynamic_cast<SIPLIB_SIPClientConnection*>(static_cast<SIPLIB_SIPConnection*>(data));
  if (response == nullptr) {
    IMS_log::loginfo(3, __func__, "the event has no response");
    return 0;
  }
  IMS_log::loginfo(5, __func__, "Calling handle_registrar_response_message(scc)");
  handle_registrar_response_message(response);
  return 0;
}

int IMS_engine_proxy::handle_default_framework_message(void* data) {
  IMS_log::loginfo(5, __func__, "Handle Framework Message in Default state");
  if (data == nullptr) {
    IMS_log::loginfo(3, __func__, "the event has no text");
    return 0;
  }
  std::string text(static_cast<const char*>(data));
  IMS_log::loginfo(5, __func__, "Calling handle_registrar_refresh_message(string&)");
  handle_registrar_refresh_message(text);
  return 0;
}

int IMS_engine_proxy::handle_default_tcp_request_message(void* data) {
  SIPLIB_SIPTransportConnection* connection = transport_of(data, __func__);
  if (connection == nullptr) return 0;
  connection->receive();

  std::string ip;
  int port = 0;
  connection->getLocalAddress(ip, port);
  IMS_log::loginfo(5, __func__, "LocalAddress: ipaddr:port=%s:%d, conn=%p", ip.c_str(), port,
                   static_cast<void*>(connection));
  // Answers come on the connections that the proxy opened. Here one would be taken for a request.
  if (const int status = connection->getStatusCode(); status != 0) {
    IMS_log::loginfo(3, __func__, "response %d on conn=%p dropped: only requests are looked for here", status,
                     static_cast<void*>(connection));
    return 0;
  }
  Inspection message;
  if (ip != localhost_ip) {
    get_from_to_method(connection, message.is_request, message.method, message.from, message.to);
    process_network_to_ua_tcp_request(connection, message.method, message.from, message.to);
  } else if (!is_dest_local(connection, message.is_request, message.method, message.from, message.to)) {
    process_ua_to_network_tcp_request(connection, message.method, message.from, message.to);
  } else if (message.to != nullptr) {
    if (is_for_proxy(*message.to, message.method, __func__))
      handle_proxy_message(connection);
    else
      process_ua_to_ua_tcp_request(connection);
  }
  return 0;
}

int IMS_engine_proxy::handle_default_tcp_response_message(void* data) {
  SIPLIB_SIPTransportConnection* connection = transport_of(data, __func__);
  if (connection == nullptr) return 0;
  connection->receive();

  std::string ip;
  int port = 0;
  connection->getPeerAddress(ip, port);
  IMS_log::loginfo(5, __func__, "RemoteAddress: ipaddr:port=%s:%d", ip.c_str(), port);
  Inspection message;
  if (ip != localhost_ip)
    process_network_to_ua_tcp_response(connection);
  else if (is_dest_local(connection, message.is_request, message.method, message.from, message.to))
    process_ua_to_ua_tcp_response(connection);
  else
    process_ua_to_network_tcp_response(connection);
  return 0;
}

int IMS_engine_proxy::handle_default_udp_message(void* data) {
  SIPLIB_SIPTransportConnection* connection = transport_of(data, __func__);
  if (connection == nullptr) return 0;
  connection->receive();

  std::string ip;
  int port = 0;
  connection->getLocalAddress(ip, port);
  IMS_log::loginfo(5, __func__, "LocalAddress: ipaddr:port=%s:%d, conn=%p", ip.c_str(), port,
                   static_cast<void*>(connection));
  Inspection message;
  if (ip != localhost_ip) {
    get_from_to_method(connection, message.is_request, message.method, message.from, message.to);
    if (message.is_request)
      process_network_to_ua_udp_request(connection, message.method, message.from, message.to);
    else
      process_network_to_ua_udp_response(connection);
  } else if (is_dest_local(connection, message.is_request, message.method, message.from, message.to)) {
    if (!message.is_request) {
      process_ua_to_ua_udp_response(connection);
    } else if (message.to != nullptr) {
      if (is_for_proxy(*message.to, message.method, __func__))
        handle_proxy_message(connection);
      else
        process_ua_to_ua_udp_request(connection);
    }
  } else if (message.is_request) {
    process_ua_to_network_udp_request(connection, message.method, message.from, message.to);
  } else {
    process_ua_to_network_udp_response(connection);
  }
  return 0;
}
