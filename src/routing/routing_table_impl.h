// The routing table: who is who. Clients (local user agents) and domains (network profiles), each under a key.
//
// Keys are decimal texts of two class-wide counters, never given out twice; both tables are walked in string order of
// the keys ("0", "1", "10", "2"), and "first" means first in that order. Searches of clients give what a walk over all
// of them would, and cost little however much is registered (see client_index.h); domains, of which there is a handful,
// are walked. All clients together stay within the bounds of their addresses, feature tags and texts, domains within
// that of routes; an operation that would go above is refused. The table sends nothing; it opens and closes TCP client
// connections through the engine and drops authentication state with its client or domain. Loop thread only, no lock.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "routing/client_index.h"
#include "routing/client_matches.h"
#include "routing/client_records.h"
#include "routing/domain_records.h"
#include "routing/routing_table_intf.h"

class IMS_User_Agent;

class IMS_Proxy_RoutingTable_Impl : public IMS_Proxy_RoutingTable_Intf {
 public:
  IMS_Proxy_RoutingTable_Impl() = default;
  /// `owner` is kept and never used.
  explicit IMS_Proxy_RoutingTable_Impl(IMS_User_Agent* owner) : owner_(owner) {}

  // --- Clients ------------------------------------------------------------------------------------------------------

  bool addClient(ClientTable_Entry_T const& entry) override;
  bool hasRoomFor(ClientTable_Entry_T const& entry, std::string const& replaced_port) override;
  bool deleteClient(ClientTable_Field_T const& type, std::string const& value) override;
  bool appendClientField(ClientTable_Field_T const& type, std::string const& value, ClientTable_Field_T const& field,
                         std::string const& text) override;
  bool appendClientField(ClientTable_Field_T const& type, std::string const& value,
                         std::vector<ClientHeader_T> const& headers) override;
  bool appendClientField(ClientTable_Field_T const& type, std::string const& value,
                         std::vector<ClientAOR_T> const& aors) override;
  bool replaceClientField(ClientTable_Field_T const& type, std::string const& value, ClientTable_Field_T const& field,
                          std::string const& text) override;
  bool replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                          std::vector<ClientHeader_T> const& headers) override;
  bool replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                          std::vector<ClientAOR_T> const& aors) override;
  bool getClient(ClientTable_Field_T const& type, std::string const& value, ClientTable_Entry_T& entry) override;

  /// The client's key, or an empty text.
  std::string findKey(ClientTable_Field_T const& type, std::string const& value) const;
  /// Key of the first client that matches CF_UA_PORT, CF_URI or CF_PACKAGES, or an empty text.
  std::string findClient(ClientFilter_Field_T const& filter, std::string const& value) const;
  /// Keys of the clients with a matching address of record, for CF_EVENT, CF_METHOD, CF_CONTENT_TYPE and CF_AOR;
  /// sorted, the distinct ones first, as many as there were matches. True when there are any.
  bool findClients(ClientFilter_Field_T const& filter, std::string const& value, std::vector<std::string>& keys) const;
  /// The same among the given keys; unknown ones are passed over.
  bool findClients(ClientFilter_Field_T const& filter, std::string const& value, std::vector<std::string> const& among,
                   std::vector<std::string>& keys) const;
  /// Appends the keys of the clients one of whose feature tags stands in `contact`.
  void findClients_FtrTag(std::string const& contact, std::vector<std::string>& keys) const;
  // The three again with the list counted, for callers that it would be too long for. What is found is good until the
  // next change of the table; `among` is what such a search gave since, and may not be `matches`.
  bool findClients(ClientFilter_Field_T const& filter, std::string const& value, ClientMatches& matches) const;
  bool findClients(ClientFilter_Field_T const& filter, std::string const& value, ClientMatches const& among,
                   ClientMatches& matches) const;
  /// Replaces what was in `matches`.
  void findClients_FtrTag(std::string const& contact, ClientMatches& matches) const;
  /// Appends the keys of the clients of the profile.
  void findClients_ProfileId(std::string const& profile_id, std::vector<std::string>& keys) const;
  /// Key of the first client with this connection, or an empty text.
  std::string findClient_Connection(const void* connection) const;
  /// The stored record, good until the next change of the table; null when the key names none.
  const RoutingTable_Entry_T* client(std::string const& key) const;

  // --- Domains ------------------------------------------------------------------------------------------------------

  bool addDomain(Domain_Entry_T const& entry);
  bool updateDomain(DomainTable_Field_T const& type, std::string const& value, DomainTable_Field_T const& field,
                    std::string const& text);
  bool updateDomain(DomainTable_Field_T const& type, std::string const& value, std::vector<SA_Info_T> const& sa_list);
  /// `handle` is a SIPLIB_SIPClientTcpTransport* (DT_TCP_CLIENT_CONN) or a SIPLIB_SIPTransportNotifier* (DT_PNOTIFIER),
  /// exactly of that type; may be null. The handle that was there is neither closed nor returned.
  bool updateDomain(DomainTable_Field_T const& type, std::string const& value, DomainTable_Field_T const& field,
                    void const* handle);
  bool deleteDomain(DomainTable_Field_T const& type, std::string const& value);
  /// Ends the domain's use of its client connection. One that is its alone is closed for good and stays in its field;
  /// one that another domain or a client has too is left to them, and the field is null. Nothing for an unknown key.
  void endConnection(std::string const& key);
  /// Key of the domain with this profile id, or an empty text.
  std::string findDomain(DomainTable_Field_T const& type, std::string const& value) const;
  /// Key of the first domain whose client connection is this one (a SIPLIB_SIPClientTcpTransport*), or an empty text.
  std::string findDomain_Connection(void* connection) const;
  /// The stored record, good until the next change of the table; null when the key names none.
  const DomainTable_Entry_T* domain(std::string const& key) const;

 private:
  void setConnection(DomainTable_Entry_T& entry, SIPLIB_SIPClientTcpTransport* connection);
  bool isShared(DomainTable_Entry_T const& entry) const;
  void endConnection(DomainTable_Entry_T& entry);
  void tellProxies() const;
  void search_tags(const char* caller, const std::string& text, ClientMatches& matches) const;
  /// False, with a line, when the clients would go above a bound with `more` in place of `less`.
  bool has_room(const char* caller, const ClientAmount& more, const ClientAmount& less) const;

  std::map<std::string, DomainTable_Entry_T> domains_;
  std::map<std::string, RoutingTable_Entry_T> clients_;
  ClientIndex index_;  ///< of clients_
  /// Of deleted domains. All are on the one network-side address of the process, so any will do for the next domain.
  std::vector<SIPLIB_SIPTransportNotifier*> spare_notifiers_;
  IMS_User_Agent* owner_ = nullptr;

  static unsigned int current_rt_tbl_key;
  static unsigned int current_dom_tbl_key;
};
