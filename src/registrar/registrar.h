// The local registrar: every REGISTER and SUBSCRIBE that a local user agent addresses to the registrar on the loopback
// interface comes here.
//
// A REGISTER of an unknown party makes a client (registrar.cpp), one of a known party goes to the client that it
// matches (registrar_existing.cpp). Admitted clients stand in the proxy's routing table; external ones belong to the
// domain of their network profile, and the domain tells the subscriber.
//
// Ownership: owns clients, domains and subscriber. Connector, listener and routing table are the caller's and outlive
// it. Loop thread only. A request or response is used during the call only; after the call no client holds it.
#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

class IMSE_Client;
class IMSE_Domain;
class IMSE_ExtClient;
class IMSE_RegSubscriber;
class IMS_Proxy_RoutingTable_Intf;
class SIPLIB_SIPClientConnection;
class SIPLIB_SIPClientConnectionListener;
class SIPLIB_SIPConnector;
class SIPLIB_SIPServerConnection;

class IMSE_Registrar {
 public:
  /// Makes the one instance. Null, with a log line, when an argument is null or there is one already.
  static IMSE_Registrar* init_registrar(SIPLIB_SIPConnector* connector, IMS_Proxy_RoutingTable_Intf* routing_table,
                                        SIPLIB_SIPClientConnectionListener* listener);
  /// Null when there is none.
  static IMSE_Registrar* get_instance();
  static void destroy();

  void handle_registrar_register_message(SIPLIB_SIPServerConnection* request);
  void handle_registrar_subscribe_message(SIPLIB_SIPServerConnection* request);
  /// An answer to a NOTIFY.
  void handle_registrar_response_message(SIPLIB_SIPClientConnection* response);
  void handle_registrar_refresh_message(std::string& text);
  /// Private identity, secret and operation mode of the profile with that (decimal) id: 1, or 0 and nothing changed.
  int get_profile_credentials(const std::string& profile_id, std::string& first, std::string& second,
                              std::string& third);

  /// Whether clients of a kind must authenticate. Both are off and no configuration sets them: the challenge carries no
  /// credentials to answer with yet, so a client that must authenticate never gets past it.
  void set_authentication(bool internal, bool external) {
    int_clients_authenticate_ = internal;
    ext_clients_authenticate_ = external;
  }
  const std::list<std::unique_ptr<IMSE_Client>>& clients() const { return clients_; }
  const std::vector<std::unique_ptr<IMSE_Domain>>& domains() const { return domains_; }
  /// Null while nobody watches.
  const IMSE_RegSubscriber* subscriber() const { return subscriber_.get(); }

 private:
  IMSE_Registrar(SIPLIB_SIPConnector* connector, IMS_Proxy_RoutingTable_Intf* routing_table,
                 SIPLIB_SIPClientConnectionListener* listener);
  ~IMSE_Registrar();

  /// Answers a request that no client holds.
  static void reject(SIPLIB_SIPServerConnection* request, int status);
  bool must_authenticate(const IMSE_Client& client) const;
  // The client's entry in the routing table.
  bool add_entry(IMSE_Client& client);
  void delete_entry(const IMSE_Client& client);
  /// True when the table takes the new client's entry instead of the old one's; its addresses of record are then in
  /// the old entry. False, and nothing changed, when another entry has the port, the addresses are of several domains,
  /// or the entry is above what all together may bring.
  bool prepare_entry(IMSE_Client& new_client, IMSE_Client& old_client);
  /// Puts the new client's entry in the place of the old one's, after prepare_entry. One that says the same stays as it
  /// is, its key and the dialogs that carry it too.
  void replace_entry(IMSE_Client& new_client, IMSE_Client& old_client);
  void handle_new_client_register(SIPLIB_SIPServerConnection* request, std::unique_ptr<IMSE_Client> client);
  /// The admission by the client's kind. Answers the request, whatever comes out.
  bool admit(IMSE_Client* client);
  bool process_ext_client_new_register(IMSE_ExtClient* client);
  bool process_int_client_new_register(IMSE_Client* client);
  /// Takes the client out of the list and lets the others forget it; dropping the result deletes it.
  std::unique_ptr<IMSE_Client> take_out(const IMSE_Client* client);
  void end_subscription();

  // --- registrar_existing.cpp: true when the REGISTER was dealt with as it asked.

  bool handle_existing_client_register(SIPLIB_SIPServerConnection* request, IMSE_Client* client);
  bool handle_existing_client_registration(IMSE_Client* client);
  bool handle_existing_client_reregistration(SIPLIB_SIPServerConnection* request, IMSE_Client* client);
  bool handle_existing_client_retransmission(IMSE_Client* client);
  bool handle_existing_client_refresh(IMSE_Client* client);
  bool handle_existing_client_deregistration(IMSE_Client* client);
  bool handle_existing_client_invalid(IMSE_Client* client);
  /// Brings a new client of an external party into the domain of the old one and answers.
  bool process_re_register(IMSE_Client* new_client, IMSE_Client* old_client);
  static void imse_registrar_pre_client_replace(IMSE_ExtClient* old_client, IMSE_ExtClient* new_client);

  // Destroyed in this order by the destructor: clients, domains, subscriber.
  std::list<std::unique_ptr<IMSE_Client>> clients_;  ///< searched from the front
  std::vector<std::unique_ptr<IMSE_Domain>> domains_;
  std::unique_ptr<IMSE_RegSubscriber> subscriber_;
  SIPLIB_SIPConnector* connector_;
  SIPLIB_SIPClientConnectionListener* listener_;
  std::string local_name_;  ///< what subscribers are told; nothing sets it
  IMS_Proxy_RoutingTable_Intf* routing_table_;
  std::size_t entries_ = 0;  ///< of ours in the routing table
  bool int_clients_authenticate_ = false;
  bool ext_clients_authenticate_ = false;

  static IMSE_Registrar* registrar;
};
