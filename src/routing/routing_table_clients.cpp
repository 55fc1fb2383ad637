// The client side of the routing table.
#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "auth/proxy_authenticate.h"
#include "engine/engine_proxy.h"
#include "engine/port_number.h"
#include "framework/log.h"
#include "framework/utility.h"
#include "routing/routing_table_impl.h"
#include "siplib/connection.h"

unsigned int IMS_Proxy_RoutingTable_Impl::current_rt_tbl_key = 0;

namespace {

/// One domain per AOR, runs of equal ones counted once. Not sorted first: A, B, A are three. `caller` names the
/// operation in the log.
std::size_t count_domains(const char* caller, const std::vector<ClientAOR_T>& aors) {
  std::vector<std::string> domains;
  std::vector<std::string> pieces;
  for (const ClientAOR_T& aor : aors) {
    IMS_utility::tokenize(aor.aor, pieces, "@");
    if (pieces.size() == 2) {
      IMS_log::loginfo(5, caller, "pushing aor=%s into domain_list", pieces[1].c_str());
      domains.push_back(pieces[1]);
    } else {
      IMS_log::loginfo(5, caller, "Pushing NULL domain");
      domains.emplace_back();
    }
  }
  domains.erase(std::unique(domains.begin(), domains.end()), domains.end());
  return domains.size();
}

/// Sorts the keys and brings the distinct ones to the front without shortening the list; what stands behind them keeps
/// its value. Deliberate: callers count matches, and a client that matches with two AORs counts twice.
void sort_and_compact(std::vector<std::string>& keys) {
  std::sort(keys.begin(), keys.end());
  std::size_t last = 0;
  for (std::size_t i = 1; i < keys.size(); ++i) {
    if (keys[i] != keys[last] && ++last != i) keys[last] = keys[i];  // copied, never moved: keys[i] stays as it is
  }
}

bool is_aor_filter(ClientFilter_Field_T filter) {
  return filter == CF_EVENT || filter == CF_METHOD || filter == CF_CONTENT_TYPE || filter == CF_AOR;
}

/// Else with a line.
bool is_aor_search(const char* caller, ClientFilter_Field_T filter, const std::string& value,
                   const char* wrong_filter) {
  if (!is_aor_filter(filter)) {
    IMS_log::loginfo(4, caller, "%s", wrong_filter);
    return false;
  }
  if (value.empty()) IMS_log::loginfo(4, caller, "Returning  : Invalid identifier Value");
  return !value.empty();
}

// The lines about what is looked at, for the log's highest level: each client is told of there, found or not.

void tell_text(const char* caller, ClientFilter_Field_T filter, const ClientAOR_T& aor) {
  const char* const text = filtered_text(filter, aor).c_str();
  switch (filter) {
    case CF_EVENT:
      IMS_log::loginfo(5, caller, "search string is event : %s", text);
      return;
    case CF_METHOD:
      IMS_log::loginfo(5, caller, "search string is method: %s", text);
      return;
    case CF_CONTENT_TYPE:
      IMS_log::loginfo(5, caller, "search string is content type :  %s", text);
      return;
    default:
      IMS_log::loginfo(5, caller, "search string is aor : %s", text);
  }
}

void tell_texts(const char* caller, ClientFilter_Field_T filter, const RoutingTable_Entry_T& client) {
  for (const ClientAOR_T& aor : client.aors) tell_text(caller, filter, aor);
}

void tell_tags(const char* caller, const std::string& key, const RoutingTable_Entry_T& client) {
  for (const ClientAOR_T& aor : client.aors) {
    IMS_log::loginfo(5, caller, "client key=%s, AOR=%s", key.c_str(), aor.aor.c_str());
    for (const std::string& tag : aor.feature_tags) {
      IMS_log::loginfo(5, caller, "client key=%s, feature tag =%s", key.c_str(), tag.c_str());
    }
  }
}

/// Both sizes are that of the list: compacting does not shorten it.
void tell_sizes(const char* caller, const char* name, std::size_t size) {
  IMS_log::loginfo(5, caller, "After sorting %s.size=%d", name, static_cast<int>(size));
  IMS_log::loginfo(5, caller, "After unique %s.size=%d", name, static_cast<int>(size));
}

/// Whether there is anything.
bool tell_narrowed(const char* caller, const ClientMatches& matches) {
  tell_sizes(caller, "output", matches.size());
  if (matches.empty()) {
    IMS_log::loginfo(4, caller, "Could not find any Client entry in output ");
    return false;
  }
  IMS_log::loginfo(5, caller, "Found Client entries");
  return true;
}

/// In how many of the client's addresses of record the value stands.
std::size_t matching_aors(const RoutingTable_Entry_T& client, ClientFilter_Field_T filter,
                          const SearchedValue& searched) {
  return static_cast<std::size_t>(std::count_if(client.aors.begin(), client.aors.end(), [&](const ClientAOR_T& aor) {
    return searched.stands_in(filtered_text(filter, aor));
  }));
}

ClientAmount amount_of(const std::vector<ClientAOR_T>& aors) {
  ClientAmount amount;
  for (const ClientAOR_T& aor : aors) amount.add(aor);
  return amount;
}

ClientAmount amount_of(const ClientTable_Entry_T& entry) {
  ClientAmount amount = amount_of(entry.aors);
  amount.text_bytes += entry.uri.size() + entry.packages.size();
  return amount;
}

}  // namespace

// --- Adding and deleting --------------------------------------------------------------------------------------------

bool IMS_Proxy_RoutingTable_Impl::addClient(ClientTable_Entry_T const& entry) {
  IMS_log::loginfo(5, __func__, "Adding a new client");
  if (entry.ua_port.empty()) {
    IMS_log::loginfo(4, __func__, "ERROR: addClient called with empty ua_port");
    return false;
  }
  IMS_log::loginfo(5, __func__, "Finding client with port=%s", entry.ua_port.c_str());
  const std::string existing = findClient(CF_UA_PORT, entry.ua_port);
  IMS_log::loginfo(5, __func__, "findClient returning client based on port=%s, key=%s", entry.ua_port.c_str(),
                   existing.c_str());
  if (!existing.empty()) {
    IMS_log::loginfo(4, __func__, "Client already exists - Cannot add client");
    return false;
  }
  IMS_log::loginfo(5, __func__, "Client UA Port does not exist - Adding client");
  if (count_domains(__func__, entry.aors) > 1) {
    IMS_log::loginfo(4, __func__, "ERROR: AORs have different domains for one entry. Cannot add client");
    return false;
  }
  if (!has_room(__func__, amount_of(entry), {})) return false;

  SIPLIB_SIPTransportConnection* connection = IMS_engine_proxy::open_client_connection(
      "TCP", IMS_engine_proxy::localhost_ip, portNumber(IMS_engine_proxy::localhost_port),
      IMS_engine_proxy::localhost_ip, portNumber(entry.ua_port));
  if (connection == nullptr) IMS_log::loginfo(4, __func__, "TCP Client connection with UA failed.");

  RoutingTable_Entry_T record{entry, {}, dynamic_cast<SIPLIB_SIPClientTcpTransport*>(connection)};
  IMS_log::loginfo(5, __func__, "Profile Id=%s", entry.profile_id.c_str());
  const std::string domain_key = findDomain(DT_PROFILE_ID, entry.profile_id);
  IMS_log::loginfo(5, __func__, "findDomain returning domain based on profile-id=%s, key=%s", entry.profile_id.c_str(),
                   domain_key.c_str());
  if (const auto domain_entry = domains_.find(domain_key); domain_entry != domains_.end()) {
    IMS_log::loginfo(5, __func__, "Found an existing Domain Table entry for Profile id %s", entry.profile_id.c_str());
    record.domain_key = domain_key;
    ++domain_entry->second.client_count;
  }

  const auto added = clients_.insert_or_assign(std::to_string(current_rt_tbl_key), std::move(record)).first;
  index_.add(added->first, added->second);
  IMS_log::loginfo(5, __func__, "Successfully Added Client key=%d", static_cast<int>(current_rt_tbl_key));
  ++current_rt_tbl_key;
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::hasRoomFor(ClientTable_Entry_T const& entry, std::string const& replaced_port) {
  const std::string* const replaced = index_.with_port(replaced_port);
  return has_room(__func__, amount_of(entry), replaced != nullptr ? amount_of(*client(*replaced)) : ClientAmount());
}

bool IMS_Proxy_RoutingTable_Impl::deleteClient(ClientTable_Field_T const& type, std::string const& value) {
  IMS_log::loginfo(5, __func__, "Delete client field  - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  const auto found = clients_.find(findKey(type, value));
  if (found == clients_.end()) {
    IMS_log::loginfo(4, __func__, "Client entry not found");
    return false;
  }
  const RoutingTable_Entry_T& record = found->second;
  // A client may carry the key of a domain that was never stored (see addDomain), or that another profile got later and
  // did not count it.
  if (const auto linked = domains_.find(record.domain_key);
      linked != domains_.end() && linked->second.client_count > 0) {
    --linked->second.client_count;
  }
  // Deliberately the null one: an open connection is only forgotten, the library keeps it for the pair of ports and
  // gives it out again when a user agent registers from that port anew.
  if (record.tcp_client_conn == nullptr) IMS_engine_proxy::close_client_connection(record.tcp_client_conn);
  if (IMS_engine_proxy::ims_proxy_auth_ptr != nullptr) {
    IMS_engine_proxy::ims_proxy_auth_ptr->delete_client_auth_info(record.domain_key, found->first);
    IMS_engine_proxy::ims_proxy_auth_ptr->forget_client(found->first);
  }
  index_.remove(found->first, record);
  clients_.erase(found);
  IMS_log::loginfo(5, __func__, "Delete Client is Successful");
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::has_room(const char* caller, const ClientAmount& more,
                                           const ClientAmount& less) const {
  ClientAmount total = index_.amount();
  total += more;
  total -= less;
  const char* const bound = total.bound_exceeded();
  if (bound == nullptr) return true;
  IMS_log::loginfo(4, caller, "the clients in the table would go above %s", bound);
  return false;
}

// --- Field changes --------------------------------------------------------------------------------------------------

bool IMS_Proxy_RoutingTable_Impl::appendClientField(ClientTable_Field_T const& type, std::string const& value,
                                                    ClientTable_Field_T const& /*field*/, std::string const& /*text*/) {
  IMS_log::loginfo(5, __func__, "appending client field  - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  if (findKey(type, value).empty()) {
    IMS_log::loginfo(4, __func__, "Client Entry does not exist ");
    return false;
  }
  return true;  // no single field can grow; callers ask for the answer only
}

bool IMS_Proxy_RoutingTable_Impl::appendClientField(ClientTable_Field_T const& type, std::string const& value,
                                                    std::vector<ClientHeader_T> const& headers) {
  IMS_log::loginfo(5, __func__, "appending client field  - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  const auto found = clients_.find(findKey(type, value));
  if (found == clients_.end()) {
    IMS_log::loginfo(4, __func__, "Client Entry does not exist ");
    return false;
  }
  std::vector<ClientHeader_T>& stored = found->second.headers;
  stored.insert(stored.end(), headers.begin(), headers.end());
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::appendClientField(ClientTable_Field_T const& type, std::string const& value,
                                                    std::vector<ClientAOR_T> const& aors) {
  IMS_log::loginfo(5, __func__, "adding new aor value to client field - - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  const auto found = clients_.find(findKey(type, value));
  if (found == clients_.end()) {
    IMS_log::loginfo(4, __func__, "Client Entry does not exist ");
    return false;
  }
  std::vector<ClientAOR_T>& stored = found->second.aors;
  if (stored.empty()) {
    IMS_log::loginfo(4, __func__, "Client %s has no AOR to compare with", value.c_str());
    return false;
  }
  // Strict on purpose: the user part counts too, so only the AOR that the client already has passes, with what else it
  // can handle. Those before a mismatch stay.
  std::vector<std::string> reference;
  std::vector<std::string> pieces;
  IMS_utility::tokenize(stored.front().aor, reference, "@");
  for (const ClientAOR_T& aor : aors) {
    IMS_utility::tokenize(aor.aor, pieces, "@");
    if (pieces != reference) {
      IMS_log::loginfo(4, __func__, "AOR domain mismatch");
      return false;
    }
    if (!has_room(__func__, amount_of(std::vector{aor}), {})) return false;
    stored.push_back(aor);
    index_.add(found->first, stored.back());
  }
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                                                     ClientTable_Field_T const& /*field*/,
                                                     std::string const& /*text*/) {
  IMS_log::loginfo(5, __func__, "replacing value to client field - - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  return true;  // the identity of a client never changes; callers rely on the answer, client or not
}

bool IMS_Proxy_RoutingTable_Impl::replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                                                     std::vector<ClientHeader_T> const& headers) {
  IMS_log::loginfo(5, __func__, "replacing HDR value to client field - - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  const auto found = clients_.find(findKey(type, value));
  if (found == clients_.end()) {
    IMS_log::loginfo(4, __func__, "Client Entry does not exist ");
    return false;
  }
  found->second.headers = headers;
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::replaceClientField(ClientTable_Field_T const& type, std::string const& value,
                                                     std::vector<ClientAOR_T> const& aors) {
  IMS_log::loginfo(5, __func__, "replacing AOR value to client field - - identifier type %d, identifier_value %s",
                   static_cast<int>(type), value.c_str());
  if (aors.empty()) {
    IMS_log::loginfo(4, __func__, " No AOR to be replaced");
    return false;
  }
  const auto found = clients_.find(findKey(type, value));
  if (found == clients_.end()) {
    IMS_log::loginfo(4, __func__, "Client Entry does not exist ");
    return false;
  }
  if (count_domains(__func__, aors) > 1) {
    IMS_log::loginfo(4, __func__, "AORs have different domains for one entry. Cannot Replace");
    return false;
  }
  std::vector<ClientAOR_T>& stored = found->second.aors;
  if (!has_room(__func__, amount_of(aors), amount_of(stored))) return false;
  for (const ClientAOR_T& aor : stored) index_.remove(found->first, aor);
  stored = aors;
  for (const ClientAOR_T& aor : stored) index_.add(found->first, aor);
  return true;
}

// --- Queries --------------------------------------------------------------------------------------------------------

bool IMS_Proxy_RoutingTable_Impl::getClient(ClientTable_Field_T const& type, std::string const& value,
                                            ClientTable_Entry_T& entry) {
  IMS_log::loginfo(5, __func__, "getClient - identifier type %d, identifier_value %s", static_cast<int>(type),
                   value.c_str());
  const auto found = clients_.find(findKey(type, value));
  if (found == clients_.end()) {
    IMS_log::loginfo(4, __func__, "Client Entry does not exist ");
    return false;
  }
  entry = static_cast<const ClientTable_Entry_T&>(found->second);
  return true;
}

std::string IMS_Proxy_RoutingTable_Impl::findKey(ClientTable_Field_T const& type, std::string const& value) const {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(type), value.c_str());
  if (type != CT_UA_PORT) {
    IMS_log::loginfo(4, __func__, "INVALID Identifier %d", static_cast<int>(type));
    return {};
  }
  std::string key = findClient(CF_UA_PORT, value);
  IMS_log::loginfo(5, __func__, "Returning key=%s", key.c_str());
  return key;
}

std::string IMS_Proxy_RoutingTable_Impl::findClient(ClientFilter_Field_T const& filter,
                                                    std::string const& value) const {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(filter), value.c_str());
  if (filter != CF_UA_PORT && filter != CF_URI && filter != CF_PACKAGES) {
    IMS_log::loginfo(4, __func__, "Returning: Invalid identifier");
    return {};
  }
  if (value.empty()) {
    IMS_log::loginfo(4, __func__, "Returning empty client key as identifier_value is empty for identifier=%d",
                     static_cast<int>(filter));
    return {};
  }
  const std::string* const key = filter == CF_UA_PORT ? index_.with_port(value) : index_.first_with(filter, value);
  if (key == nullptr) {
    IMS_log::loginfo(4, __func__, "Could not find any Client entry, returning empty client key");
    return {};
  }
  IMS_log::loginfo(5, __func__, "Found Client entry : client key is %s", key->c_str());
  return *key;
}

bool IMS_Proxy_RoutingTable_Impl::findClients(ClientFilter_Field_T const& filter, std::string const& value,
                                              ClientMatches& matches) const {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(filter), value.c_str());
  if (!is_aor_search(__func__, filter, value, "Returning  : Invalid identifier")) return false;
  if (IMS_log::enabled(5)) {
    const SearchedValue searched(value);
    for (const auto& [key, record] : clients_) {
      for (const ClientAOR_T& aor : record.aors) {
        tell_text(__func__, filter, aor);
        if (!searched.stands_in(filtered_text(filter, aor))) continue;
        IMS_log::loginfo(5, __func__, "Adding client key=%s", key.c_str());
      }
    }
  }
  index_.with_text(filter, value, matches);
  tell_sizes(__func__, "clients", matches.size());
  if (matches.empty()) {
    IMS_log::loginfo(4, __func__, "Could not find any Client entry for identifier=%d", static_cast<int>(filter));
    return false;
  }
  return true;
}

bool IMS_Proxy_RoutingTable_Impl::findClients(ClientFilter_Field_T const& filter, std::string const& value,
                                              std::vector<std::string>& keys) const {
  ClientMatches matches;
  const bool found = findClients(filter, value, matches);
  if (is_aor_filter(filter) && !value.empty()) keys = matches.list();  // a refusal leaves them as they were
  return found;
}

bool IMS_Proxy_RoutingTable_Impl::findClients(ClientFilter_Field_T const& filter, std::string const& value,
                                              ClientMatches const& among, ClientMatches& matches) const {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(filter), value.c_str());
  if (!is_aor_search(__func__, filter, value, "Returning: Invalid identifier")) return false;
  if (IMS_log::enabled(5)) {
    const char* const caller = __func__;
    among.for_each([&](const std::string& key) { tell_texts(caller, filter, *client(key)); });
  }
  matches.clear();
  const SearchedValue searched(value);
  among.for_each_key([&](const std::string& key, std::size_t times) {
    matches.add(key, times * matching_aors(*client(key), filter, searched));
  });
  return tell_narrowed(__func__, matches);
}

bool IMS_Proxy_RoutingTable_Impl::findClients(ClientFilter_Field_T const& filter, std::string const& value,
                                              std::vector<std::string> const& among,
                                              std::vector<std::string>& keys) const {
  IMS_log::loginfo(5, __func__, "identifier=%d, identifier_value=%s", static_cast<int>(filter), value.c_str());
  if (!is_aor_search(__func__, filter, value, "Returning: Invalid identifier")) return false;
  std::map<std::string_view, std::size_t> times;
  for (const std::string& key : among) {
    const RoutingTable_Entry_T* const record = client(key);
    if (record == nullptr) continue;
    ++times[key];
    if (IMS_log::enabled(5)) tell_texts(__func__, filter, *record);
  }
  ClientMatches matches;
  const SearchedValue searched(value);
  for (const auto& [key, count] : times) {
    const auto found = clients_.find(std::string(key));
    matches.add(found->first, count * matching_aors(found->second, filter, searched));
  }
  keys = matches.list();
  return tell_narrowed(__func__, matches);
}

void IMS_Proxy_RoutingTable_Impl::findClients_FtrTag(std::string const& contact, ClientMatches& matches) const {
  search_tags(__func__, contact, matches);
  tell_sizes(__func__, "clients", matches.size());
}

void IMS_Proxy_RoutingTable_Impl::findClients_FtrTag(std::string const& contact, std::vector<std::string>& keys) const {
  ClientMatches matches;
  search_tags(__func__, contact, matches);
  matches.append_to(keys);
  sort_and_compact(keys);
  tell_sizes(__func__, "clients", keys.size());
}

void IMS_Proxy_RoutingTable_Impl::search_tags(const char* caller, const std::string& text,
                                              ClientMatches& matches) const {
  IMS_log::loginfo(5, caller, "contact_string=%s ", text.c_str());
  if (IMS_log::enabled(5)) {
    for (const auto& [key, record] : clients_) tell_tags(caller, key, record);
  }
  index_.with_tags_in(text, matches);
}

void IMS_Proxy_RoutingTable_Impl::findClients_ProfileId(std::string const& profile_id,
                                                        std::vector<std::string>& keys) const {
  for (const auto& [key, record] : clients_) {
    if (record.profile_id != profile_id) continue;
    keys.push_back(key);
    IMS_log::loginfo(5, __func__, "Client: From=%s, profile-id =%s", record.uri.c_str(), record.profile_id.c_str());
  }
  IMS_log::loginfo(5, __func__, "profile_id=%s, clients.size=%d", profile_id.c_str(), static_cast<int>(keys.size()));
}

std::string IMS_Proxy_RoutingTable_Impl::findClient_Connection(const void* connection) const {
  IMS_log::loginfo(5, __func__, "Finding from routing table, pconn=%p", connection);
  if (connection == nullptr) {
    IMS_log::loginfo(4, __func__, "Returning: Empty client key as conn=NULL");
    return {};
  }
  for (const auto& [key, record] : clients_) {
    if (record.tcp_client_conn != connection) continue;
    IMS_log::loginfo(5, __func__, "Found Client entry for conn=%p : client key is %s", connection, key.c_str());
    return key;
  }
  IMS_log::loginfo(4, __func__, "Could not find client Key ");
  return {};
}

const RoutingTable_Entry_T* IMS_Proxy_RoutingTable_Impl::client(std::string const& key) const {
  const auto found = clients_.find(key);
  return found == clients_.end() ? nullptr : &found->second;
}
