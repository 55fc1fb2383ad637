// The engine: the one user agent of this process. Its parts, by file:
//
//   engine/engine_proxy.cpp              life, command line, start-up
//   engine/engine_proxy_dispatch.cpp     state table, events, classification of every message
//   engine/engine_proxy_connections.cpp  connection table, opening and closing, 100 trying
//   engine/engine_proxy_route.cpp        route commands
//   engine/engine_proxy_registrar.cpp    hand-over to the registrar
//   proxy/engine_proxy_tagging.cpp       tags and message inspection
//   proxy/engine_proxy_ua_to_network_request.cpp, ..._network_to_ua_response.cpp, ..._network_to_ua_selection.cpp,
//   ..._network_to_ua_request.cpp, ..._ua_to_network_response.cpp, ..._ua_to_ua.cpp    one per forwarding direction
//
// Threads: the handle_notify_* operations are called on the I/O thread and only queue; everything else runs on the loop
// thread. Almost all state is static, so that listeners and tables reach it without a pointer; none of it is locked.
#pragma once

#include <string>
#include <vector>

#include "engine/tcp_server_conn.h"
#include "framework/ua_with_state_machine.h"

class IMS_Proxy_Authenticate;
class IMS_Proxy_RoutingTable_Impl;
class IMS_Proxy_RoutingTable_Intf;
class IMS_Proxy_SipClientTcpTransportListener;
class IMS_Proxy_SipServerTransportListener;
class IMS_UA_SipClientConnListener;
class IMS_UA_SipDialogListener;
class IMS_UA_SipServerConnListener;
class IMS_local_registrar;
class SIPLIB_SIPAddress;

class IMS_engine_proxy : public IMS_UA_With_State_Machine {
 public:
  IMS_engine_proxy();
  ~IMS_engine_proxy() override;

  // --- Process-wide state -------------------------------------------------------------------------------------------

  static IMS_engine_proxy* inst;
  static const char* arg_dynport;     ///< value of the dynport option; null when not given
  static std::string localhost_ip;    ///< where local user agents are served
  static std::string localhost_port;  ///< decimal; set in run
  static std::string net_intf_ip;     ///< network-side address; set by the first domain
  static std::string net_intf_port;   ///< decimal
  static IMS_Proxy_SipServerTransportListener* serv_list;
  static IMS_Proxy_SipClientTcpTransportListener* client_list;
  static IMS_Proxy_RoutingTable_Impl* rt;
  static IMS_Proxy_RoutingTable_Intf* rtintf;  ///< the same object
  static IMS_Proxy_Authenticate* ims_proxy_auth_ptr;
  static IMS_local_registrar* local_registrar;
  static std::vector<IMS_PROXY_TCP_SERVER_CONN_T> tcp_servconn_table;  ///< in order of acceptance
  static const IMS_STATE_TBL_T default_state[];
  static const IMS_STATE_TBL_T* const states[];

  // --- Life and start-up --------------------------------------------------------------------------------------------

  static void set_instance(IMS_engine_proxy* engine);
  /// Takes "dynport" for itself and passes the whole line on to the framework.
  void set_options(int argc, char** argv);
  void print_usage() override;
  /// Start-up and loop; returns when the loop ends or start-up failed. Always 0.
  int run();
  /// The part of run between the SIP stack and the loop: local endpoint, tables, registrar, capability file. False when
  /// a listening port could not be opened.
  bool start();
  void init_registrar();
  /// A network-side TCP listening transport on `ip`; the port (or with dynport the first free of 100) comes back in
  /// `port`. Null, and `port` untouched, when none could be opened.
  static SIPLIB_SIPTransportNotifier* open_net_notifier(const std::string& ip, std::string& port);
  /// The engine's own client-connection listener, which the registrar gives to its NOTIFYs.
  IMS_UA_SipClientConnListener* client_connection_listener() { return client_conn_listener_; }

  // --- Events -------------------------------------------------------------------------------------------------------

  void handle_notify_tcp_request(SIPLIB_SIPConnection* connection) override;
  void handle_notify_tcp_response(SIPLIB_SIPConnection* connection) override;
  void handle_notify_tcp_incoming_conn(SIPLIB_SIPConnection* connection) override;
  void handle_notify_tcp_conn_closed(SIPLIB_SIPConnection* connection) override;
  void handle_notify_udp_message(SIPLIB_SIPConnection* connection) override;
  unsigned int get_event_id_from_message(void* message) override;

  int handle_registrar_request_message(void* data);
  int handle_registrar_response_message(void* data);
  int handle_default_tcp_request_message(void* data);
  int handle_default_tcp_response_message(void* data);
  int handle_default_tcp_connection_created(void* data);
  int handle_default_tcp_connection_closed(void* data);
  int handle_default_udp_message(void* data);
  int handle_default_framework_message(void* data);

  // --- Connections --------------------------------------------------------------------------------------------------

  /// The tag of an accepted connection; empty when it is not in the table.
  static const std::string& find_tcp_server_conn(const SIPLIB_SIPConnection* connection);
  /// The accepted connection of a tag; null when there is none.
  static SIPLIB_SIPServerTcpTransport* find_tcp_server_conn(const std::string& tag);
  /// Null when it could not be opened. A TCP one gets `client_list` as listener.
  static SIPLIB_SIPTransportConnection* open_client_connection(const std::string& transport,
                                                               const std::string& source_ip, int source_port,
                                                               const std::string& ip, int port);
  /// For good: only a new opening of the same pair leads there again. Null is accepted.
  static void close_client_connection(SIPLIB_SIPClientTcpTransport* connection);
  /// The answer to its loss: the next message opens it again.
  static void close_lost_client_connection(SIPLIB_SIPClientTcpTransport* connection);
  static void close_server_connection(SIPLIB_SIPServerTcpTransport* connection);
  /// Answers a request from the network at once. Not sent, with one line, when a header that it needs is missing or
  /// longer than its buffer.
  void send_100_trying(const std::string& transport, SIPLIB_SIPTransportConnection* request,
                       const std::string& domain_key);
  /// The addresses of all domains' proxies, whenever they have changed: strangers cannot keep them out.
  static void keep_places_for_proxies(const std::vector<std::string>& addresses);
  /// "TCP" without regard to case.
  static bool is_tcp(const std::string& transport);

  // --- Route commands -----------------------------------------------------------------------------------------------

  void handle_proxy_message(SIPLIB_SIPTransportConnection* connection);
  void send_message_ok(SIPLIB_SIPTransportConnection* connection);

  // --- Registrar ----------------------------------------------------------------------------------------------------

  void handle_registrar_register_message(SIPLIB_SIPServerConnection* request);
  void handle_registrar_subscribe_message(SIPLIB_SIPServerConnection* request);
  void handle_registrar_response_message(SIPLIB_SIPClientConnection* response);
  void handle_registrar_refresh_message(std::string& text);
  int get_credentials_from_registrar(std::string profile_id, std::string& first, std::string& second,
                                     std::string& third);

  // --- Tags and inspection ------------------------------------------------------------------------------------------

  static bool get_parameter(const std::string& name, const std::string& text, std::string& value);
  /// `from` and `to` are made with new, or null; the caller deletes them.
  static void get_from_to_method(SIPLIB_SIPTransportConnection* connection, bool& is_request, std::string& method,
                                 SIPLIB_SIPAddress*& from, SIPLIB_SIPAddress*& to);
  static bool is_dest_local(SIPLIB_SIPTransportConnection* connection, bool& is_request, std::string& method,
                            SIPLIB_SIPAddress*& from, SIPLIB_SIPAddress*& to);
  static std::string get_client_key_from_via(std::string& key, const std::string& via);
  static bool get_profile_id_from_via(SIPLIB_SIPTransportConnection* connection, std::string& profile);
  static void update_contact(std::string& contact, const std::string& marker, const std::string& tags);

  // --- Forwarding (`from` and `to` may be null and stay the caller's) -----------------------------------------------

  bool update_ua_to_network_request_via_contact(SIPLIB_SIPTransportConnection* connection, SIPLIB_SIPAddress* from,
                                                SIPLIB_SIPAddress* to, const std::string& method, std::string& via,
                                                std::string& client_key, std::string& domain_key);
  void process_ua_to_network_tcp_request(SIPLIB_SIPTransportConnection* connection, const std::string& method,
                                         SIPLIB_SIPAddress* from, SIPLIB_SIPAddress* to);
  void process_ua_to_network_udp_request(SIPLIB_SIPTransportConnection* connection, const std::string& method,
                                         SIPLIB_SIPAddress* from, SIPLIB_SIPAddress* to);

  bool update_network_to_ua_response_via_contact(SIPLIB_SIPTransportConnection* connection, std::string& via,
                                                 std::string& client_key, std::string& st_tag);
  void process_network_to_ua_tcp_response(SIPLIB_SIPTransportConnection* connection);
  void process_network_to_ua_udp_response(SIPLIB_SIPTransportConnection* connection);

  void find_domain_and_client_network_to_ua_request(SIPLIB_SIPTransportConnection* connection, SIPLIB_SIPAddress* from,
                                                    SIPLIB_SIPAddress* to, const std::string& method,
                                                    std::string& domain_key, std::string& client_key);
  void get_clients_from_feature_tag_headers(SIPLIB_SIPTransportConnection* connection, std::vector<std::string>& keys);

  bool update_network_to_ua_request_via_contact(SIPLIB_SIPTransportConnection* connection, SIPLIB_SIPAddress* from,
                                                SIPLIB_SIPAddress* to, const std::string& method, std::string& via,
                                                std::string& contact, std::string& client_key, std::string& domain_key);
  void process_network_to_ua_tcp_request(SIPLIB_SIPTransportConnection* connection, const std::string& method,
                                         SIPLIB_SIPAddress* from, SIPLIB_SIPAddress* to);
  void process_network_to_ua_udp_request(SIPLIB_SIPTransportConnection* connection, const std::string& method,
                                         SIPLIB_SIPAddress* from, SIPLIB_SIPAddress* to);

  bool update_ua_to_network_response_via_contact(SIPLIB_SIPTransportConnection* connection, std::string& via,
                                                 std::string& domain_key, std::string& st_tag);
  void process_ua_to_network_tcp_response(SIPLIB_SIPTransportConnection* connection);
  void process_ua_to_network_udp_response(SIPLIB_SIPTransportConnection* connection);

  bool update_int_request_via_contact(SIPLIB_SIPTransportConnection* connection, std::string& via,
                                      std::string& destination_key);
  bool update_int_response_via_contact(SIPLIB_SIPTransportConnection* connection, std::string& via,
                                       std::string& source_key, std::string& st_tag);
  void process_ua_to_ua_tcp_request(SIPLIB_SIPTransportConnection* connection);
  void process_ua_to_ua_udp_request(SIPLIB_SIPTransportConnection* connection);
  void process_ua_to_ua_tcp_response(SIPLIB_SIPTransportConnection* connection);
  void process_ua_to_ua_udp_response(SIPLIB_SIPTransportConnection* connection);

 private:
  IMS_UA_SipServerConnListener* server_conn_listener_;
  IMS_UA_SipClientConnListener* client_conn_listener_;
  IMS_UA_SipDialogListener* dialog_listener_;
};
